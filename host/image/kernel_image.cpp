#include "host/image/kernel_image.h"

#include <fmt/format.h>
#include <sys/mman.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>
#include <utility>

#include "host/client/watched_exports.h"

namespace netsieve::host {
namespace {

// More than the largest image takes, to leave room for certificates and debugging data at its end.
constexpr std::size_t kMaxImageFileSize = 128u << 20;

// The image is laid out with readable and writable pages and gets its real protections last.
void SetProtection(std::uint8_t* start, std::size_t size, int protection) {
    if (mprotect(start, size, protection) != 0) {
        throw ImageFault{ImageError::kNoMemory,
                         fmt::format("the system refuses page protection {:#x}: {}", protection,
                                     std::strerror(errno))};
    }
}

std::string DescribeImport(const PeImport& import) {
    return import.name.empty() ? fmt::format("{}!#{}", import.dll, import.ordinal)
                               : fmt::format("{}!{}", import.dll, import.name);
}

void CheckDirectories(const PeFile& file) {
    static constexpr std::pair<PeDirectory, std::string_view> kRefused[] = {
        {PeDirectory::kTls, "thread-local storage"},
        {PeDirectory::kDelayImports, "delayed imports"},
        {PeDirectory::kClr, "managed code"},
    };
    for (const auto& [directory, what] : kRefused) {
        if (file.Has(directory)) {
            throw ImageFault{ImageError::kUnsupported,
                             fmt::format("the image has {}, which no driver can have", what)};
        }
    }
    for (const PeExport& entry : file.exports()) {
        if (!entry.forwarder.empty()) {
            throw ImageFault{ImageError::kUnsupported,
                             fmt::format("the export {} is forwarded to {}; export a function of "
                                         "the image instead",
                                         entry.name, entry.forwarder)};
        }
    }
}

void CheckSections(const PeFile& file) {
    for (const PeSection& section : file.sections()) {
        if (section.writable && section.executable) {
            throw ImageFault{
                ImageError::kWritableCode,
                fmt::format("section {} is both writable and executable", section.name)};
        }
    }
    const PeSection* entry = file.SectionAt(file.header().entryPoint);
    if (entry == nullptr || !entry->executable) {
        throw ImageFault{ImageError::kBadEntryPoint,
                         fmt::format("the entry point {:#x} is not in an executable section",
                                     file.header().entryPoint)};
    }
}

}  // namespace

ImageResult<std::vector<std::uint8_t>> ReadImageFile(const std::filesystem::path& path) {
    errno = 0;
    std::ifstream stream(path, std::ios::binary);
    std::vector<std::uint8_t> bytes;
    std::array<char, 65536> chunk;
    while (stream.read(chunk.data(), chunk.size()) || stream.gcount() != 0) {
        bytes.insert(bytes.end(), chunk.begin(), chunk.begin() + stream.gcount());
        if (bytes.size() > kMaxImageFileSize) {
            return ImageFault{ImageError::kTooLarge, fmt::format("{} has more than {:#x} bytes",
                                                                 path.string(), kMaxImageFileSize)};
        }
    }
    if (!stream.is_open() || stream.bad()) {
        return ImageFault{
            ImageError::kUnreadable,
            fmt::format("{} cannot be read: {}", path.string(), std::strerror(errno))};
    }
    return bytes;
}

ImageResult<KernelImage> KernelImage::Load(const std::filesystem::path& path,
                                           const ImportResolver& resolver) {
    ImageResult<std::vector<std::uint8_t>> bytes = ReadImageFile(path);
    if (!bytes) {
        return bytes.fault();
    }
    return Load(bytes.value(), resolver);
}

ImageResult<KernelImage> KernelImage::Load(std::span<const std::uint8_t> file,
                                           const ImportResolver& resolver) {
    ImageResult<PeFile> parsed = PeFile::Parse(file);
    if (!parsed) {
        return parsed.fault();
    }
    try {
        CheckLoadable(parsed.value());
        std::vector<void*> imports = ResolveImports(parsed.value(), resolver);
        std::uint8_t* base = Reserve(parsed.value());
        KernelImage image(file, std::move(parsed.value()), base);
        image.imports_ = std::move(imports);
        image.Relocate(Pages::kAll);
        image.Bind(Pages::kAll);
        image.Protect();
        return image;
    } catch (ImageFault& fault) {
        return std::move(fault);
    }
}

void KernelImage::CheckLoadable(const PeFile& file) {
    const PeHeader& header = file.header();
    if (header.checksum != file.computedChecksum()) {
        throw ImageFault{ImageError::kWrongChecksum,
                         fmt::format("the checksum is {:#x}, but the bytes add up to {:#x}",
                                     header.checksum, file.computedChecksum())};
    }
    if (header.subsystem != kNativeSubsystem) {
        throw ImageFault{ImageError::kWrongSubsystem,
                         fmt::format("the subsystem is {}, not native ({})", header.subsystem,
                                     kNativeSubsystem)};
    }
    CheckSections(file);
    CheckDirectories(file);
}

std::vector<void*> KernelImage::ResolveImports(const PeFile& file, const ImportResolver& resolver) {
    std::vector<void*> addresses;
    std::string unknown;
    for (const PeImport& import : file.imports()) {
        if (import.name.empty()) {
            throw ImageFault{
                ImageError::kImportByOrdinal,
                fmt::format("{} is imported by number; import it by name", DescribeImport(import))};
        }
        addresses.push_back(resolver.Resolve(import.dll, import.name));
        if (addresses.back() == nullptr) {
            unknown += (unknown.empty() ? "" : ", ") + DescribeImport(import);
        }
    }
    if (!unknown.empty()) {
        throw ImageFault{ImageError::kUnknownImports,
                         fmt::format("the host does not have {}", unknown)};
    }
    return addresses;
}

// A movable image is not asked for at its own base, so that a missing relocation shows at once.
std::uint8_t* KernelImage::Reserve(const PeFile& file) {
    const PeHeader& header = file.header();
    void* wanted = header.fixed ? reinterpret_cast<void*>(header.imageBase) : nullptr;
    int flags = MAP_PRIVATE | MAP_ANONYMOUS | (header.fixed ? MAP_FIXED_NOREPLACE : 0);
    void* base = mmap(wanted, header.imageSize, PROT_READ | PROT_WRITE, flags, -1, 0);
    if (base == MAP_FAILED) {
        ImageError error = header.fixed ? ImageError::kNotRelocatable : ImageError::kNoMemory;
        throw ImageFault{
            error, fmt::format("{:#x} bytes cannot be mapped at {}: {}", header.imageSize,
                               header.fixed ? "the only base the image can have" : "any address",
                               std::strerror(errno))};
    }
    return static_cast<std::uint8_t*>(base);
}

KernelImage::KernelImage(std::span<const std::uint8_t> bytes, PeFile file, std::uint8_t* base)
    : bytes_(bytes.begin(), bytes.end()),
      file_(std::move(file)),
      base_(base),
      size_(file_.header().imageSize) {
    std::memcpy(base_, file_.layout().data(), size_);
}

bool KernelImage::Renew(const ImportResolver& resolver) {
    for (std::size_t index = 0; index < imports_.size(); ++index) {
        const PeImport& import = file_.imports()[index];
        if (resolver.Resolve(import.dll, import.name) != imports_[index]) {
            return false;
        }
    }
    for (const PeSection& section : file_.sections()) {
        if (section.writable) {
            std::memcpy(base_ + section.address, file_.layout().data() + section.address,
                        section.size);
        }
    }
    Relocate(Pages::kWritable);
    Bind(Pages::kWritable);
    return true;
}

void KernelImage::Relocate(Pages pages) {
    std::uint64_t distance = reinterpret_cast<std::uint64_t>(base_) - file_.header().imageBase;
    for (std::uint32_t address : file_.relocations()) {
        if (pages == Pages::kWritable && !file_.SectionAt(address)->writable) {
            continue;
        }
        std::uint64_t pointer;
        std::memcpy(&pointer, base_ + address, sizeof(pointer));
        pointer += distance;
        std::memcpy(base_ + address, &pointer, sizeof(pointer));
    }
}

void KernelImage::Bind(Pages pages) {
    for (std::size_t index = 0; index < imports_.size(); ++index) {
        const std::uint32_t slot = file_.imports()[index].slot;
        if (pages == Pages::kAll || file_.SectionAt(slot)->writable) {
            std::memcpy(base_ + slot, &imports_[index], sizeof(void*));
        }
    }
}

void KernelImage::Protect() {
    const PeHeader& header = file_.header();
    SetProtection(base_, file_.sections().front().address, PROT_READ);
    for (const PeSection& section : file_.sections()) {
        std::size_t pages = (section.size + header.sectionAlignment - std::size_t{1}) &
                            ~(header.sectionAlignment - std::size_t{1});
        SetProtection(base_ + section.address, pages,
                      (section.readable ? PROT_READ : 0) | (section.writable ? PROT_WRITE : 0) |
                          (section.executable ? PROT_EXEC : 0));
    }
}

KernelImage::~KernelImage() {
    Unmap();
}

KernelImage::KernelImage(KernelImage&& other) noexcept
    : bytes_(std::move(other.bytes_)),
      file_(std::move(other.file_)),
      imports_(std::move(other.imports_)),
      base_(std::exchange(other.base_, nullptr)),
      size_(std::exchange(other.size_, 0)) {}

KernelImage& KernelImage::operator=(KernelImage&& other) noexcept {
    if (this != &other) {
        Unmap();
        bytes_ = std::move(other.bytes_);
        file_ = std::move(other.file_);
        imports_ = std::move(other.imports_);
        base_ = std::exchange(other.base_, nullptr);
        size_ = std::exchange(other.size_, 0);
    }
    return *this;
}

void KernelImage::Unmap() noexcept {
    if (base_ != nullptr) {
        munmap(base_, size_);
    }
}

void* KernelImage::EntryPoint() const {
    return base_ + file_.header().entryPoint;
}

void* KernelImage::FindExport(std::string_view name) const {
    const PeExport* entry = file_.FindExport(name);
    return entry != nullptr ? base_ + entry->address : nullptr;
}

bool KernelImage::Contains(const void* address) const {
    return reinterpret_cast<std::uintptr_t>(address) - reinterpret_cast<std::uintptr_t>(base_) <
           size_;
}

bool KernelImage::ContainsCode(const void* address) const {
    if (!Contains(address)) {
        return false;
    }
    const PeSection* section = file_.SectionAt(
        static_cast<std::uint32_t>(static_cast<const std::uint8_t*>(address) - base_));
    return section != nullptr && section->executable;
}

void* ImageExports::Resolve(std::string_view dll, std::string_view name) const {
    return SameModuleName(dll, dll_) ? WatchedExport(name, image_.FindExport(name)) : nullptr;
}

}  // namespace netsieve::host
