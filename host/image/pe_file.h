// Reads x64 PE32+ images: nothing in the file is trusted, and whatever is wrong has a name.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "host/image/image_result.h"

namespace netsieve::host {

/// One section. All addresses here and below are relative to the image's base ("RVAs").
struct PeSection {
    std::string name;
    std::uint32_t address;
    std::uint32_t size;        // in the process, before it is rounded up to the section alignment
    std::uint32_t fileOffset;  // of its initialised bytes; the rest of it is zero
    std::uint32_t fileSize;
    bool readable;
    bool writable;
    bool executable;
};

/// One import. `slot` is where the loader stores the 8-byte address.
struct PeImport {
    std::string dll;
    std::string name;  // empty for an import by ordinal
    std::uint16_t ordinal;
    std::uint32_t slot;
};

/// One named export. A forwarded one has the other module's "DLL.Name" and no address of its own.
struct PeExport {
    std::string name;
    std::uint32_t address;
    std::string forwarder;
};

/// One entry of the unwind table: a function's [begin, end) and its unwind information.
struct PeFunction {
    std::uint32_t begin;
    std::uint32_t end;
    std::uint32_t unwindInfo;
};

/// The optional header's data directories that a reader of this class may ask about.
enum class PeDirectory : std::size_t {
    kExports = 0,
    kImports = 1,
    kResources = 2,
    kUnwind = 3,
    kCertificates = 4,
    kRelocations = 5,
    kTls = 9,
    kDelayImports = 13,
    kClr = 14,
};

struct PeHeader {
    std::uint64_t imageBase;
    std::uint32_t entryPoint;
    std::uint32_t sectionAlignment;
    std::uint32_t imageSize;
    std::uint32_t headersSize;
    std::uint32_t checksum;
    std::uint32_t checksumOffset;  // of the checksum in the file
    std::uint16_t subsystem;
    bool fixed;  // it cannot be moved: the linker has left the relocations out
};

inline constexpr std::uint16_t kNativeSubsystem = 1;

/// The checksum of an image file whose own checksum field lies at `checksumOffset`, which is even.
std::uint32_t PeChecksum(std::span<const std::uint8_t> file, std::size_t checksumOffset);

/// A parsed image. What Parse accepted is sound: sections ascend without gap or overlap inside the
/// image, and every address in the lists lies inside the image with room for what it denotes.
class PeFile {
  public:
    /// Reads `file`, which need not outlive the call. Form only: whether a kernel would load the
    /// image, checksum included, is for the caller to decide.
    static ImageResult<PeFile> Parse(std::span<const std::uint8_t> file);

    const PeHeader& header() const { return header_; }
    const std::vector<PeSection>& sections() const { return sections_; }
    const std::vector<PeImport>& imports() const { return imports_; }
    /// In ascending order of name.
    const std::vector<PeExport>& exports() const { return exports_; }
    /// The addresses of the 64-bit pointers to which the distance from imageBase is added.
    const std::vector<std::uint32_t>& relocations() const { return relocations_; }
    const std::vector<PeFunction>& functions() const { return functions_; }

    /// Whether the image has this directory.
    bool Has(PeDirectory directory) const;
    /// The checksum the file should carry.
    std::uint32_t computedChecksum() const { return computedChecksum_; }
    /// The image as it is laid out in memory: header().imageSize bytes, not relocated or bound.
    std::span<const std::uint8_t> layout() const { return layout_; }
    /// The section that holds `address`, or null.
    const PeSection* SectionAt(std::uint32_t address) const;
    /// The export of this name, or null.
    const PeExport* FindExport(std::string_view name) const;

  private:
    friend class PeParser;

    struct Range {
        std::uint32_t address;
        std::uint32_t size;
    };

    PeHeader header_{};
    std::vector<Range> directories_;
    std::vector<PeSection> sections_;
    std::vector<PeImport> imports_;
    std::vector<PeExport> exports_;
    std::vector<std::uint32_t> relocations_;
    std::vector<PeFunction> functions_;
    std::vector<std::uint8_t> layout_;
    std::uint32_t computedChecksum_ = 0;
};

}  // namespace netsieve::host
