#include "tools/netsieve/hook_driver.h"

#include <dlfcn.h>
#include <fmt/format.h>

#include <filesystem>

#include "host/image/kernel_image.h"

namespace netsieve::tool {
namespace {

constexpr const char* kDriverImageName = "NETSIEVE.SYS";  // what a hook driver imports from
constexpr const char* kEntryName = "DriverEntry";

}  // namespace

HookDriver::HookDriver(HookOption spec, unsigned number)
    : spec_(std::move(spec)),
      name_(fmt::format("{}-{}", std::filesystem::path(spec_.driverPath).stem().string(), number)) {
}

HookDriver::~HookDriver() {
    if (object_ != nullptr) {
        dlclose(object_);
    }
}

std::optional<std::string> HookDriver::Load(host::Machine& machine,
                                            const host::LoadedDriver& driver) {
    host::DriverSource source{.name = name_};
    if (driver.image() == nullptr) {
        if (const auto failure = FindEntry(source)) {
            return fmt::format("the hook driver {} cannot be loaded: {}", spec_.driverPath,
                               *failure);
        }
        return Start(machine, source);
    }
    const host::ImageExports exports(kDriverImageName, *driver.image());
    source.image = spec_.driverPath;
    source.imports = &exports;
    return Start(machine, source);
}

std::optional<std::string> HookDriver::FindEntry(host::DriverSource& source) {
    // A path without a slash would be searched for in the system's directories.
    const std::string path = std::filesystem::absolute(spec_.driverPath);
    object_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (object_ == nullptr) {
        return dlerror();
    }
    source.entry = reinterpret_cast<PDRIVER_INITIALIZE>(dlsym(object_, kEntryName));
    if (source.entry == nullptr) {
        return fmt::format(
            "it has no {}; declare it extern \"C\" and with the platform's calling "
            "convention",
            kEntryName);
    }
    return std::nullopt;
}

std::optional<std::string> HookDriver::Start(host::Machine& machine,
                                             const host::DriverSource& source) {
    const std::size_t linesBefore = machine.debugOutput().size();
    const NTSTATUS status = machine.LoadDriver(source);
    if (NT_SUCCESS(status)) {
        loaded_ = true;
        return std::nullopt;
    }
    std::string failure = fmt::format("the hook driver {} did not start, status 0x{:08X}",
                                      spec_.driverPath, static_cast<std::uint32_t>(status));
    for (std::size_t i = linesBefore; i < machine.debugOutput().size(); ++i) {
        std::string line = machine.debugOutput()[i];
        line.erase(line.find_last_not_of('\n') + 1);
        failure += "; " + line;
    }
    return failure;
}

void HookDriver::Unload(host::Machine& machine) {
    if (loaded_) {
        machine.UnloadDriver(name_);
        loaded_ = false;
    }
}

}  // namespace netsieve::tool
