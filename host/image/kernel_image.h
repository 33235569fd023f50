#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string_view>
#include <vector>

#include "host/image/import_resolver.h"
#include "host/image/pe_file.h"

namespace netsieve::host {

/// A driver image, mapped into this process: relocated, its imports bound, every section with its
/// own page protection. Its code follows the platform's calling convention, so whatever is called
/// in it, and whatever its imports are bound to, is `__attribute__((ms_abi))`.
class KernelImage {
  public:
    /// Maps `file`, which need not outlive the call; `resolver` only has to live for the call. An
    /// image that a kernel would not load, or that needs something this host does not have, is
    /// refused; nothing of it has run then.
    static ImageResult<KernelImage> Load(std::span<const std::uint8_t> file,
                                         const ImportResolver& resolver);
    /// The same, from a file.
    static ImageResult<KernelImage> Load(const std::filesystem::path& path,
                                         const ImportResolver& resolver);

    /// Unmaps the image. Nothing may run in it or call it any more: neither threads nor handlers,
    /// timers and work items that it has left behind.
    ~KernelImage();
    KernelImage(KernelImage&& other) noexcept;
    KernelImage& operator=(KernelImage&& other) noexcept;

    /// Makes the image what Load has made of it, for another driver to run in; false, and nothing
    /// is changed, when `resolver` binds an import elsewhere or to nothing. The image's own code
    /// could write in its writable sections only.
    bool Renew(const ImportResolver& resolver);

    /// The file that it was made from.
    std::span<const std::uint8_t> bytes() const { return bytes_; }
    /// The driver's entry routine.
    void* EntryPoint() const;
    /// The address of an export, or null.
    void* FindExport(std::string_view name) const;
    /// Whether `address` lies in the image; the second, whether it lies in code.
    bool Contains(const void* address) const;
    bool ContainsCode(const void* address) const;

    std::span<const std::uint8_t> memory() const { return {base_, size_}; }
    /// What the file says of itself.
    const PeFile& file() const { return file_; }

  private:
    enum class Pages : std::uint8_t { kAll, kWritable };

    KernelImage(std::span<const std::uint8_t> bytes, PeFile file, std::uint8_t* base);
    static void CheckLoadable(const PeFile& file);
    static std::vector<void*> ResolveImports(const PeFile& file, const ImportResolver& resolver);
    static std::uint8_t* Reserve(const PeFile& file);
    void Relocate(Pages pages);
    void Bind(Pages pages);
    void Protect();
    void Unmap() noexcept;

    std::vector<std::uint8_t> bytes_;
    PeFile file_;
    std::vector<void*> imports_;
    std::uint8_t* base_;
    std::size_t size_;
};

/// Resolves imports from `dll` to the exports of a loaded image; those for hooks to what watches
/// them, when the machine does.
class ImageExports : public ImportResolver {
  public:
    /// `image` must outlive this and every image that is bound to it.
    ImageExports(std::string_view dll, const KernelImage& image) : dll_(dll), image_(image) {}
    void* Resolve(std::string_view dll, std::string_view name) const override;

  private:
    std::string dll_;
    const KernelImage& image_;
};

/// All bytes of an image file, or why they cannot be had.
ImageResult<std::vector<std::uint8_t>> ReadImageFile(const std::filesystem::path& path);

}  // namespace netsieve::host
