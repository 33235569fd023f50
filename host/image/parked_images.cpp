#include "host/image/parked_images.h"

#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

namespace netsieve::host {
namespace {

constexpr std::size_t kMostParked = 4;  // NETSIEVE.sys, and hook drivers beside it

std::mutex g_mutex;

std::vector<std::unique_ptr<KernelImage>>& Parked() {
    static std::vector<std::unique_ptr<KernelImage>> parked;
    return parked;
}

std::unique_ptr<KernelImage> TakeParked(std::span<const std::uint8_t> bytes) {
    const std::lock_guard lock(g_mutex);
    auto& parked = Parked();
    const auto it = std::find_if(parked.begin(), parked.end(), [&](const auto& image) {
        return std::ranges::equal(image->bytes(), bytes);
    });
    if (it == parked.end()) {
        return nullptr;
    }
    std::unique_ptr<KernelImage> image = std::move(*it);
    parked.erase(it);
    return image;
}

}  // namespace

ImageResult<std::unique_ptr<KernelImage>> LoadImage(const std::filesystem::path& path,
                                                    const ImportResolver& resolver) {
    ImageResult<std::vector<std::uint8_t>> bytes = ReadImageFile(path);
    if (!bytes) {
        return bytes.fault();
    }
    if (auto parked = TakeParked(bytes.value()); parked != nullptr && parked->Renew(resolver)) {
        return parked;
    }
    ImageResult<KernelImage> loaded = KernelImage::Load(bytes.value(), resolver);
    if (!loaded) {
        return loaded.fault();
    }
    return std::make_unique<KernelImage>(std::move(loaded.value()));
}

void ParkImage(std::unique_ptr<KernelImage> image) {
    const std::lock_guard lock(g_mutex);
    auto& parked = Parked();
    if (parked.size() == kMostParked) {
        parked.erase(parked.begin());
    }
    parked.push_back(std::move(image));
}

}  // namespace netsieve::host
