#include "host/loaded_driver.h"

#include <fmt/format.h>

#include "host/image/kernel_image.h"
#include "host/image/parked_images.h"
#include "host/image/platform_imports.h"
#include "host/machine.h"

namespace netsieve::host {

namespace {

constexpr CSHORT kDriverObjectType = 4;  // IO_TYPE_DRIVER

}  // namespace

LoadedDriver::LoadedDriver(DriverSource source) : source_(std::move(source)) {
    objectName_ = u"\\Driver\\" + std::u16string(source_.name.begin(), source_.name.end());
    const auto bytes = static_cast<USHORT>(objectName_.size() * sizeof(WCHAR));
    object_.Type = kDriverObjectType;
    object_.Size = sizeof(DRIVER_OBJECT);
    object_.DriverName = {.Length = bytes, .MaximumLength = bytes, .Buffer = objectName_.data()};
}

LoadedDriver::~LoadedDriver() {
    if (image_ != nullptr) {
        ParkImage(std::move(image_));
    }
}

bool LoadedDriver::Prepare(std::string& error) {
    entry_ = source_.entry;
    if (entry_ == nullptr) {
        ImportChain imports;
        imports.Add(PlatformImports());
        if (source_.imports != nullptr) {
            imports.Add(*source_.imports);
        }
        ImageResult<std::unique_ptr<KernelImage>> loaded = LoadImage(source_.image, imports);
        if (!loaded) {
            error = loaded.fault().message;
            return false;
        }
        image_ = std::move(loaded.value());
        entry_ = reinterpret_cast<PDRIVER_INITIALIZE>(image_->EntryPoint());
        object_.DriverStart = const_cast<void*>(static_cast<const void*>(image_->memory().data()));
        object_.DriverSize = static_cast<ULONG>(image_->memory().size());
        range_.emplace(source_.name.c_str(), object_.DriverStart, image_->memory().size(),
                       ImageRange::Kind::kImage);
        start_ = reinterpret_cast<std::uintptr_t>(object_.DriverStart);
        size_ = image_->memory().size();
    } else if (const auto [start, size] = SharedObjectOf(reinterpret_cast<const void*>(entry_));
               size != 0) {
        range_.emplace(source_.name.c_str(), start, size, ImageRange::Kind::kSharedObject);
        start_ = reinterpret_cast<std::uintptr_t>(start);
        size_ = size;
    }
    object_.DriverInit = entry_;
    return true;
}

LoadedDriver* LoadedDriver::Calling(const Context& context) {
    if (LoadedDriver* const driver = Machine::Current().DriverAt(context.caller)) {
        return driver;
    }
    return Innermost(context);
}

LoadedDriver* LoadedDriver::Innermost(const Context& context) {
    const CallFrame* frame = context.frame;
    while (frame != nullptr && frame->driver == nullptr && !frame->IsHookCallback()) {
        frame = frame->outer;
    }
    return frame == nullptr ? nullptr : static_cast<LoadedDriver*>(frame->driver);
}

}  // namespace netsieve::host
