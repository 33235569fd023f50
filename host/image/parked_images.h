// Images whose driver is gone, kept mapped for the next machine that loads the same file.
#pragma once

#include <filesystem>
#include <memory>

#include "host/image/kernel_image.h"

namespace netsieve::host {

/// As KernelImage::Load, but an image of the same bytes that was parked, and whose imports still
/// are what they were, is renewed and taken instead: a search loads one file for every schedule,
/// and mapping it anew costs several times what the schedule does. Any thread.
ImageResult<std::unique_ptr<KernelImage>> LoadImage(const std::filesystem::path& path,
                                                    const ImportResolver& resolver);

/// Gives an image back that LoadImage made. Nothing may run in it or call it any more. A few are
/// kept; the one that was parked first gives way.
void ParkImage(std::unique_ptr<KernelImage> image);

}  // namespace netsieve::host
