#include "host/loaded_driver.h"

#include "host/image/kernel_image.h"
#include "host/image/platform_imports.h"

namespace netsieve::host {

namespace {
constexpr CSHORT kDriverObjectType = 4;  // IO_TYPE_DRIVER
}

LoadedDriver::LoadedDriver(DriverSource source) : source_(std::move(source)) {
    objectName_ = u"\\Driver\\" + std::u16string(source_.name.begin(), source_.name.end());
    const auto bytes = static_cast<USHORT>(objectName_.size() * sizeof(WCHAR));
    object_.Type = kDriverObjectType;
    object_.Size = sizeof(DRIVER_OBJECT);
    object_.DriverName = {.Length = bytes, .MaximumLength = bytes, .Buffer = objectName_.data()};
}

LoadedDriver::~LoadedDriver() = default;

bool LoadedDriver::Prepare(std::string& error) {
    entry_ = source_.entry;
    if (entry_ == nullptr) {
        ImportChain imports;
        imports.Add(PlatformImports());
        if (source_.imports != nullptr) {
            imports.Add(*source_.imports);
        }
        ImageResult<KernelImage> loaded = KernelImage::Load(source_.image, imports);
        if (!loaded) {
            error = loaded.fault().message;
            return false;
        }
        image_ = std::make_unique<KernelImage>(std::move(loaded.value()));
        entry_ = reinterpret_cast<PDRIVER_INITIALIZE>(image_->EntryPoint());
        object_.DriverStart = const_cast<void*>(static_cast<const void*>(image_->memory().data()));
        object_.DriverSize = static_cast<ULONG>(image_->memory().size());
        range_.emplace(source_.name.c_str(), object_.DriverStart, image_->memory().size(),
                       ImageRange::Kind::kImage);
    } else if (const auto [start, size] = SharedObjectOf(reinterpret_cast<const void*>(entry_));
               size != 0) {
        range_.emplace(source_.name.c_str(), start, size, ImageRange::Kind::kSharedObject);
    }
    object_.DriverInit = entry_;
    return true;
}

LoadedDriver* LoadedDriver::Innermost(const Context& context) {
    for (const CallFrame* frame = context.frame; frame != nullptr; frame = frame->outer) {
        if (frame->driver != nullptr) {
            return static_cast<LoadedDriver*>(frame->driver);
        }
    }
    return nullptr;
}

}  // namespace netsieve::host
