#include "host/image/pe_file.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace netsieve::host {
namespace {

constexpr std::uint16_t kMachineX64 = 0x8664;
constexpr std::uint16_t kMagicPe32Plus = 0x20B;
constexpr std::uint16_t kRelocationsStripped = 0x0001;
constexpr std::uint16_t kExecutableImage = 0x0002;

constexpr std::uint32_t kSectionExecutable = 0x20000000;
constexpr std::uint32_t kSectionReadable = 0x40000000;
constexpr std::uint32_t kSectionWritable = 0x80000000;

constexpr std::size_t kFileHeaderSize = 24;  // with the signature before it
constexpr std::size_t kOptionalHeaderSize = 112;
constexpr std::size_t kDirectorySize = 8;
constexpr std::size_t kSectionHeaderSize = 40;
constexpr std::size_t kImportDescriptorSize = 20;
constexpr std::size_t kFunctionSize = 12;
constexpr std::size_t kPointerSize = 8;
constexpr std::uint32_t kPageSize = 4096;

// Far above any driver, and low enough that a broken header cannot take the machine's memory.
constexpr std::uint32_t kMaxImageSize = 64u << 20;
constexpr std::size_t kMaxSections = 96;
constexpr std::size_t kMaxDirectories = 16;
constexpr std::size_t kMaxSymbols = 65536;
constexpr std::size_t kMaxNameLength = 512;

template <class... Arguments>
[[noreturn]] void Refuse(ImageError error,
                         fmt::format_string<Arguments...> format,
                         Arguments&&... arguments) {
    throw ImageFault{error, fmt::format(format, std::forward<Arguments>(arguments)...)};
}

bool IsPowerOfTwo(std::uint32_t value) {
    return value != 0 && (value & (value - 1)) == 0;
}

std::uint64_t RoundUp(std::uint64_t value, std::uint32_t alignment) {
    return (value + alignment - 1) & ~static_cast<std::uint64_t>(alignment - 1);
}

// Bytes that are read with a check each time. Offsets are 64 bits wide, so that the sum of two
// fields of the file cannot wrap around.
class Bytes {
  public:
    Bytes(std::span<const std::uint8_t> bytes, ImageError error, std::string_view what)
        : bytes_(bytes), error_(error), what_(what) {}

    template <class T>
    T Get(std::uint64_t offset) const {
        Require(offset, sizeof(T));
        T value;
        std::memcpy(&value, bytes_.data() + offset, sizeof(T));
        return value;
    }

    void Require(std::uint64_t offset, std::uint64_t size) const {
        if (offset > bytes_.size() || size > bytes_.size() - offset) {
            Refuse(error_, "the {} reaches to byte {:#x}, but there are only {:#x}", what_,
                   offset + size, bytes_.size());
        }
    }

    std::string Text(std::uint64_t offset) const {
        std::string text;
        while (char character = Get<char>(offset + text.size())) {
            if (character < '!' || character > '~' || text.size() == kMaxNameLength) {
                Refuse(error_, "the {} has a name at {:#x} that is no name", what_, offset);
            }
            text.push_back(character);
        }
        if (text.empty()) {
            Refuse(error_, "the {} has an empty name at {:#x}", what_, offset);
        }
        return text;
    }

  private:
    std::span<const std::uint8_t> bytes_;
    ImageError error_;
    std::string_view what_;
};

}  // namespace

// Fills a PeFile step by step; each step relies on what the ones before it have established. A step
// throws the fault it finds, and Parse turns it into its result.
class PeParser {
  public:
    explicit PeParser(std::span<const std::uint8_t> file) : file_(file) {}

    PeFile Run() {
        ReadFileHeader();
        ReadOptionalHeader();
        ReadDirectories();
        ReadSections();
        CheckFileRanges();
        LayOut();
        ReadImports();
        ReadExports();
        ReadRelocations();
        ReadFunctions();
        return std::move(pe_);
    }

  private:
    using Range = PeFile::Range;

    Bytes File(std::string_view what) const { return {file_, ImageError::kTruncated, what}; }
    Bytes Layout(ImageError error, std::string_view what) const {
        return {pe_.layout_, error, what};
    }
    Range Directory(PeDirectory directory) const {
        auto index = static_cast<std::size_t>(directory);
        return index < pe_.directories_.size() ? pe_.directories_[index] : Range{};
    }

    void ReadFileHeader();
    void ReadOptionalHeader();
    void ReadDirectories();
    void ReadSections();
    PeSection ReadSection(std::uint64_t offset) const;
    void CheckFileRanges() const;
    void LayOut();
    void ReadImports();
    void ReadImportsOf(std::uint64_t descriptor);
    PeImport ReadImport(std::uint64_t lookup, std::uint64_t slot) const;
    void ReadExports();
    void ReadRelocations();
    void ReadRelocationBlock(std::uint64_t block, std::uint32_t size);
    void ReadFunctions();
    void CheckFunction(const PeFunction& function) const;

    void CheckPointer(ImageError error, std::string_view what, std::uint64_t address) const;
    static void CheckDistinct(ImageError error,
                              std::string_view what,
                              std::vector<std::uint32_t> addresses);

    std::span<const std::uint8_t> file_;
    std::size_t optionalHeader_ = 0;
    std::size_t sectionTable_ = 0;
    std::size_t sectionCount_ = 0;
    std::uint32_t fileAlignment_ = 0;
    PeFile pe_;
};

void PeParser::ReadFileHeader() {
    Bytes header = File("header");
    if (file_.size() < 2 || header.Get<std::uint16_t>(0) != 0x5A4D) {
        Refuse(ImageError::kNotAnImage, "the file does not begin with \"MZ\"");
    }
    auto start = header.Get<std::uint32_t>(0x3C);
    if (start % 8 != 0) {
        Refuse(ImageError::kBadHeader, "the header's offset {:#x} is no multiple of 8", start);
    }
    header.Require(start, kFileHeaderSize);
    if (header.Get<std::uint32_t>(start) != 0x4550) {
        Refuse(ImageError::kNotAnImage, "there is no \"PE\" signature at {:#x}", start);
    }
    if (auto machine = header.Get<std::uint16_t>(start + 4); machine != kMachineX64) {
        Refuse(ImageError::kWrongMachine, "the machine is {:#x}, not x64 ({:#x})", machine,
               kMachineX64);
    }
    auto flags = header.Get<std::uint16_t>(start + 22);
    pe_.header_.fixed = (flags & kRelocationsStripped) != 0;
    if ((flags & kExecutableImage) == 0) {
        Refuse(ImageError::kBadHeader, "the linker marked the file as not executable");
    }
    sectionCount_ = header.Get<std::uint16_t>(start + 6);
    optionalHeader_ = start + kFileHeaderSize;
    sectionTable_ = optionalHeader_ + header.Get<std::uint16_t>(start + 20);
}

void PeParser::ReadOptionalHeader() {
    Bytes header = File("optional header");
    std::size_t start = optionalHeader_;
    if (auto magic = header.Get<std::uint16_t>(start); magic != kMagicPe32Plus) {
        Refuse(ImageError::kNotPe32Plus, "the optional header is of kind {:#x}, not PE32+", magic);
    }
    header.Require(start, kOptionalHeaderSize);
    PeHeader& found = pe_.header_;
    found.entryPoint = header.Get<std::uint32_t>(start + 16);
    found.imageBase = header.Get<std::uint64_t>(start + 24);
    found.sectionAlignment = header.Get<std::uint32_t>(start + 32);
    fileAlignment_ = header.Get<std::uint32_t>(start + 36);
    found.imageSize = header.Get<std::uint32_t>(start + 56);
    found.headersSize = header.Get<std::uint32_t>(start + 60);
    found.checksumOffset = static_cast<std::uint32_t>(start + 64);
    found.checksum = header.Get<std::uint32_t>(found.checksumOffset);
    found.subsystem = header.Get<std::uint16_t>(start + 68);
    pe_.computedChecksum_ = PeChecksum(file_, found.checksumOffset);

    if (found.imageBase % 0x10000 != 0) {
        Refuse(ImageError::kBadHeader, "the base {:#x} is no multiple of 64 KiB", found.imageBase);
    }
    if (!IsPowerOfTwo(found.sectionAlignment) || found.sectionAlignment < kPageSize) {
        Refuse(ImageError::kBadHeader, "sections are aligned to {:#x}, so pages would be shared",
               found.sectionAlignment);
    }
    if (!IsPowerOfTwo(fileAlignment_) || fileAlignment_ < 512 || fileAlignment_ > 0x10000 ||
        fileAlignment_ > found.sectionAlignment) {
        Refuse(ImageError::kBadHeader, "the file alignment is {:#x}", fileAlignment_);
    }
    if (found.imageSize > kMaxImageSize) {
        Refuse(ImageError::kTooLarge, "the image takes {:#x} bytes; the limit is {:#x}",
               found.imageSize, kMaxImageSize);
    }
}

void PeParser::ReadDirectories() {
    Bytes header = File("directory table");
    auto count = header.Get<std::uint32_t>(optionalHeader_ + 108);
    std::size_t table = optionalHeader_ + kOptionalHeaderSize;
    if (count > kMaxDirectories || table + count * kDirectorySize > sectionTable_) {
        Refuse(ImageError::kBadHeader, "{} directories do not fit the optional header", count);
    }
    for (std::size_t index = 0; index < count; ++index) {
        Range range{header.Get<std::uint32_t>(table + index * kDirectorySize),
                    header.Get<std::uint32_t>(table + index * kDirectorySize + 4)};
        // Certificates are not part of the image in memory: theirs is a place in the file.
        bool inFile = index == static_cast<std::size_t>(PeDirectory::kCertificates);
        std::uint64_t limit = inFile ? file_.size() : pe_.header_.imageSize;
        if (range.address > limit || range.size > limit - range.address) {
            Refuse(ImageError::kBadDirectory, "directory {} is {:#x} bytes at {:#x} of {:#x}",
                   index, range.size, range.address, limit);
        }
        pe_.directories_.push_back(range);
    }
}

void PeParser::ReadSections() {
    const PeHeader& header = pe_.header_;
    if (sectionCount_ == 0 || sectionCount_ > kMaxSections) {
        Refuse(ImageError::kBadSections, "there are {} sections", sectionCount_);
    }
    std::uint64_t tableEnd = sectionTable_ + sectionCount_ * kSectionHeaderSize;
    File("section table").Require(sectionTable_, sectionCount_ * kSectionHeaderSize);
    if (header.headersSize < tableEnd) {
        Refuse(ImageError::kBadHeader, "the headers take {:#x} bytes, not the {:#x} they claim",
               tableEnd, header.headersSize);
    }
    File("header").Require(0, header.headersSize);

    std::uint64_t next = RoundUp(header.headersSize, header.sectionAlignment);
    for (std::size_t index = 0; index < sectionCount_; ++index) {
        PeSection section = ReadSection(sectionTable_ + index * kSectionHeaderSize);
        if (section.address != next) {
            Refuse(ImageError::kBadSections, "section {} is at {:#x}, but must be at {:#x}",
                   section.name, section.address, next);
        }
        next = RoundUp(next + section.size, header.sectionAlignment);
        pe_.sections_.push_back(std::move(section));
    }
    if (next != header.imageSize) {
        Refuse(ImageError::kBadSections, "the sections end at {:#x}, but the image at {:#x}", next,
               header.imageSize);
    }
}

PeSection PeParser::ReadSection(std::uint64_t offset) const {
    Bytes table = File("section table");
    PeSection section{};
    for (std::size_t index = 0; index < 8; ++index) {
        char character = table.Get<char>(offset + index);
        if (character == '\0') {
            break;
        }
        section.name.push_back(character >= ' ' && character <= '~' ? character : '?');
    }
    section.size = table.Get<std::uint32_t>(offset + 8);
    section.address = table.Get<std::uint32_t>(offset + 12);
    section.fileSize = table.Get<std::uint32_t>(offset + 16);
    section.fileOffset = table.Get<std::uint32_t>(offset + 20);
    auto flags = table.Get<std::uint32_t>(offset + 36);
    section.readable = (flags & kSectionReadable) != 0;
    section.writable = (flags & kSectionWritable) != 0;
    section.executable = (flags & kSectionExecutable) != 0;

    if (section.size == 0) {
        section.size = section.fileSize;
    }
    if (section.size == 0) {
        Refuse(ImageError::kBadSections, "section {} is empty", section.name);
    }
    if (section.fileSize != 0 && (section.fileOffset % fileAlignment_ != 0 ||
                                  section.fileOffset < pe_.header_.headersSize)) {
        Refuse(ImageError::kBadSections, "section {} cannot begin at {:#x} of the file",
               section.name, section.fileOffset);
    }
    if (section.fileSize != 0) {
        File(section.name).Require(section.fileOffset, section.fileSize);
    }
    return section;
}

void PeParser::CheckFileRanges() const {
    std::vector<const PeSection*> stored;
    for (const PeSection& section : pe_.sections_) {
        if (section.fileSize != 0) {
            stored.push_back(&section);
        }
    }
    std::sort(stored.begin(), stored.end(), [](const PeSection* left, const PeSection* right) {
        return left->fileOffset < right->fileOffset;
    });
    for (std::size_t index = 1; index < stored.size(); ++index) {
        const PeSection& before = *stored[index - 1];
        if (before.fileSize > stored[index]->fileOffset - before.fileOffset) {
            Refuse(ImageError::kBadSections, "sections {} and {} overlap in the file", before.name,
                   stored[index]->name);
        }
    }
}

void PeParser::LayOut() {
    const PeHeader& header = pe_.header_;
    pe_.layout_.resize(header.imageSize);
    std::copy_n(file_.begin(), header.headersSize, pe_.layout_.begin());
    for (const PeSection& section : pe_.sections_) {
        // What the file has beyond the section's last page is padding that nothing can see.
        std::uint64_t room = RoundUp(section.size, header.sectionAlignment);
        std::copy_n(file_.begin() + section.fileOffset,
                    std::min<std::uint64_t>(section.fileSize, room),
                    pe_.layout_.begin() + section.address);
    }
}

void PeParser::ReadImports() {
    Range range = Directory(PeDirectory::kImports);
    if (range.address == 0) {
        return;
    }
    Bytes table = Layout(ImageError::kBadImports, "import table");
    std::uint64_t descriptor = range.address;
    while (table.Get<std::uint32_t>(descriptor + 12) != 0 ||
           table.Get<std::uint32_t>(descriptor + 16) != 0) {
        ReadImportsOf(descriptor);
        descriptor += kImportDescriptorSize;
    }
    std::vector<std::uint32_t> slots;
    for (const PeImport& import : pe_.imports_) {
        slots.push_back(import.slot);
    }
    CheckDistinct(ImageError::kBadImports, "imports", std::move(slots));
}

void PeParser::ReadImportsOf(std::uint64_t descriptor) {
    Bytes table = Layout(ImageError::kBadImports, "import table");
    std::uint64_t lookup = table.Get<std::uint32_t>(descriptor);
    std::string dll = table.Text(table.Get<std::uint32_t>(descriptor + 12));
    std::uint64_t slot = table.Get<std::uint32_t>(descriptor + 16);
    if (lookup == 0) {
        lookup = slot;
    }
    for (; table.Get<std::uint64_t>(lookup) != 0; lookup += kPointerSize, slot += kPointerSize) {
        PeImport import = ReadImport(lookup, slot);
        import.dll = dll;
        pe_.imports_.push_back(std::move(import));
        if (pe_.imports_.size() > kMaxSymbols) {
            Refuse(ImageError::kBadImports, "there are more than {} imports", kMaxSymbols);
        }
    }
}

PeImport PeParser::ReadImport(std::uint64_t lookup, std::uint64_t slot) const {
    Bytes table = Layout(ImageError::kBadImports, "import table");
    CheckPointer(ImageError::kBadImports, "an import", slot);
    PeImport import{};
    import.slot = static_cast<std::uint32_t>(slot);
    constexpr std::uint64_t kByOrdinal = 1ull << 63;
    auto value = table.Get<std::uint64_t>(lookup);
    std::uint64_t limit = (value & kByOrdinal) != 0 ? 0xFFFF : 0x7FFFFFFF;
    if ((value & ~kByOrdinal) > limit) {
        Refuse(ImageError::kBadImports, "the import at {:#x} has stray bits: {:#x}", lookup, value);
    }
    if ((value & kByOrdinal) != 0) {
        import.ordinal = static_cast<std::uint16_t>(value);
    } else {
        import.name = table.Text(value + 2);
    }
    return import;
}

void PeParser::ReadExports() {
    Range range = Directory(PeDirectory::kExports);
    if (range.address == 0) {
        return;
    }
    Bytes table = Layout(ImageError::kBadExports, "export table");
    std::uint64_t start = range.address;
    auto functionCount = table.Get<std::uint32_t>(start + 20);
    auto nameCount = table.Get<std::uint32_t>(start + 24);
    std::uint64_t functions = table.Get<std::uint32_t>(start + 28);
    std::uint64_t names = table.Get<std::uint32_t>(start + 32);
    std::uint64_t ordinals = table.Get<std::uint32_t>(start + 36);
    if (functionCount > kMaxSymbols || nameCount > kMaxSymbols) {
        Refuse(ImageError::kBadExports, "there are {} exports and {} names", functionCount,
               nameCount);
    }
    for (std::uint64_t index = 0; index < nameCount; ++index) {
        PeExport found{table.Text(table.Get<std::uint32_t>(names + 4 * index)), 0, {}};
        // A kernel finds a name by halving the table.
        if (!pe_.exports_.empty() && found.name <= pe_.exports_.back().name) {
            Refuse(ImageError::kBadExports, "the export {} is not in order", found.name);
        }
        auto ordinal = table.Get<std::uint16_t>(ordinals + 2 * index);
        if (ordinal >= functionCount) {
            Refuse(ImageError::kBadExports, "the export {} has ordinal {} of {}", found.name,
                   ordinal, functionCount);
        }
        auto address = table.Get<std::uint32_t>(functions + 4ull * ordinal);
        if (address >= range.address && address - range.address < range.size) {
            found.forwarder = table.Text(address);
        } else if (pe_.SectionAt(address) == nullptr) {
            Refuse(ImageError::kBadExports, "the export {} is at {:#x}, in no section", found.name,
                   address);
        } else {
            found.address = address;
        }
        pe_.exports_.push_back(std::move(found));
    }
}

void PeParser::ReadRelocations() {
    Range range = Directory(PeDirectory::kRelocations);
    Bytes table = Layout(ImageError::kBadRelocations, "relocation table");
    std::uint64_t block = range.address;
    std::uint64_t end = block + range.size;
    while (block != end) {
        auto size = table.Get<std::uint32_t>(block + 4);
        if (size < 8 || size % 4 != 0 || size > end - block) {
            Refuse(ImageError::kBadRelocations, "the relocation block at {:#x} has {:#x} bytes",
                   block, size);
        }
        ReadRelocationBlock(block, size);
        block += size;
    }
    CheckDistinct(ImageError::kBadRelocations, "relocations", pe_.relocations_);
}

void PeParser::ReadRelocationBlock(std::uint64_t block, std::uint32_t size) {
    Bytes table = Layout(ImageError::kBadRelocations, "relocation table");
    constexpr unsigned kPadding = 0;
    constexpr unsigned kPointer = 10;
    auto page = table.Get<std::uint32_t>(block);
    for (std::uint64_t entry = block + 8; entry != block + size; entry += 2) {
        auto value = table.Get<std::uint16_t>(entry);
        unsigned kind = value >> 12;
        std::uint64_t target = std::uint64_t{page} + (value & 0xFFF);
        if (kind == kPadding) {
            continue;
        }
        if (kind != kPointer) {
            Refuse(ImageError::kBadRelocations, "the relocation of {:#x} has the unknown kind {}",
                   target, kind);
        }
        CheckPointer(ImageError::kBadRelocations, "a relocation", target);
        pe_.relocations_.push_back(static_cast<std::uint32_t>(target));
    }
}

void PeParser::ReadFunctions() {
    Range range = Directory(PeDirectory::kUnwind);
    Bytes table = Layout(ImageError::kBadUnwindData, "unwind table");
    if (range.size % kFunctionSize != 0) {
        Refuse(ImageError::kBadUnwindData, "the unwind table has {:#x} bytes", range.size);
    }
    for (std::uint64_t entry = 0; entry < range.size; entry += kFunctionSize) {
        PeFunction function{table.Get<std::uint32_t>(range.address + entry),
                            table.Get<std::uint32_t>(range.address + entry + 4),
                            table.Get<std::uint32_t>(range.address + entry + 8)};
        CheckFunction(function);
        pe_.functions_.push_back(function);
    }
}

void PeParser::CheckFunction(const PeFunction& function) const {
    const PeSection* section = pe_.SectionAt(function.begin);
    bool ordered = pe_.functions_.empty() || pe_.functions_.back().end <= function.begin;
    if (section == nullptr || !section->executable || !ordered || function.end <= function.begin ||
        function.end - section->address > section->size) {
        Refuse(ImageError::kBadUnwindData,
               "the unwind table covers {:#x} to {:#x}, out of order "
               "or not code",
               function.begin, function.end);
    }
    Bytes table = Layout(ImageError::kBadUnwindData, "unwind information");
    auto version = table.Get<std::uint8_t>(function.unwindInfo) & 7;
    if (function.unwindInfo % 4 != 0 || (version != 1 && version != 2)) {
        Refuse(ImageError::kBadUnwindData,
               "the function at {:#x} has unwind information of "
               "version {} at {:#x}",
               function.begin, version, function.unwindInfo);
    }
    auto codes = table.Get<std::uint8_t>(function.unwindInfo + std::uint64_t{2});
    table.Require(function.unwindInfo, 4 + 2ull * codes);
}

void PeParser::CheckPointer(ImageError error, std::string_view what, std::uint64_t address) const {
    const PeSection* section = address < pe_.header_.imageSize
                                   ? pe_.SectionAt(static_cast<std::uint32_t>(address))
                                   : nullptr;
    if (section == nullptr || address - section->address + kPointerSize > section->size) {
        Refuse(error, "{} stores a pointer at {:#x}, where no section has room", what, address);
    }
}

void PeParser::CheckDistinct(ImageError error,
                             std::string_view what,
                             std::vector<std::uint32_t> addresses) {
    std::sort(addresses.begin(), addresses.end());
    for (std::size_t index = 1; index < addresses.size(); ++index) {
        if (addresses[index] - addresses[index - 1] < kPointerSize) {
            Refuse(error, "two {} store pointers at {:#x}", what, addresses[index]);
        }
    }
}

std::uint32_t PeChecksum(std::span<const std::uint8_t> file, std::size_t checksumOffset) {
    std::uint64_t sum = 0;
    for (std::size_t offset = 0; offset < file.size(); offset += 2) {
        if (offset == checksumOffset || offset == checksumOffset + 2) {
            continue;
        }
        sum += file[offset];
        sum += offset + 1 < file.size() ? file[offset + 1] << 8 : 0;
    }
    while (sum >> 16 != 0) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return static_cast<std::uint32_t>(sum + file.size());
}

ImageResult<PeFile> PeFile::Parse(std::span<const std::uint8_t> file) {
    try {
        return PeParser(file).Run();
    } catch (ImageFault& fault) {
        return std::move(fault);
    }
}

bool PeFile::Has(PeDirectory directory) const {
    auto index = static_cast<std::size_t>(directory);
    return index < directories_.size() &&
           (directories_[index].address != 0 || directories_[index].size != 0);
}

const PeSection* PeFile::SectionAt(std::uint32_t address) const {
    for (const PeSection& section : sections_) {
        if (address >= section.address && address - section.address < section.size) {
            return &section;
        }
    }
    return nullptr;
}

const PeExport* PeFile::FindExport(std::string_view name) const {
    auto found = std::lower_bound(
        exports_.begin(), exports_.end(), name,
        [](const PeExport& entry, std::string_view wanted) { return entry.name < wanted; });
    return found != exports_.end() && found->name == name ? &*found : nullptr;
}

}  // namespace netsieve::host
