// A driver in the machine.
#pragma once

#include <atomic>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "host/image/code_place.h"
#include "host/sched/context.h"
#include "platform/kernel.h"

namespace netsieve::host {

class ImportResolver;
class KernelImage;

/// Where a driver comes from: a function of this process, or a .sys image.
struct DriverSource {
    std::string name;                    ///< service name: "NETSIEVE"
    PDRIVER_INITIALIZE entry = nullptr;  ///< the native driver's entry routine, or
    std::filesystem::path image{};       ///< the image to load when `entry` is null
    /// Order of filter modules in an adapter's stack: higher is nearer to the protocols.
    int altitude = 0;
    /// Resolves the image's imports that the platform does not have; needed until it is loaded.
    const ImportResolver* imports = nullptr;
};

/// A driver that is loaded. Its address is stable while it is loaded.
class LoadedDriver {
  public:
    explicit LoadedDriver(DriverSource source);
    ~LoadedDriver();

    const std::string& name() const { return source_.name; }
    int altitude() const { return source_.altitude; }
    DRIVER_OBJECT& object() { return object_; }
    /// Maps the image if the driver is one. False with the reason when it cannot be loaded.
    bool Prepare(std::string& error);
    PDRIVER_INITIALIZE entry() const { return entry_; }
    const KernelImage* image() const { return image_.get(); }
    bool unloading() const { return unloading_; }
    void SetUnloading() { unloading_ = true; }
    /// Unloaded: its routines may only return.
    bool gone() const { return gone_.load(std::memory_order_acquire); }
    void SetGone() { gone_.store(true, std::memory_order_release); }

    /// Whether the address lies in the driver's image or shared object. A driver that is part of
    /// the program has nothing to tell its code by.
    bool Contains(const void* address) const {
        return reinterpret_cast<std::uintptr_t>(address) - start_ < size_;
    }

    /// The driver whose code made the latest call to the platform. For code that is part of the
    /// program it is the driver of the innermost callback that `context` is inside of; null outside
    /// of any, and for a hook of the program's own.
    static LoadedDriver* Calling(const Context& context);
    /// The driver of the innermost callback alone. Safe in a signal handler.
    static LoadedDriver* Innermost(const Context& context);

  private:
    DriverSource source_;
    std::u16string objectName_;
    DRIVER_OBJECT object_{};
    PDRIVER_INITIALIZE entry_ = nullptr;
    std::unique_ptr<KernelImage> image_;
    std::optional<ImageRange> range_;
    std::uintptr_t start_ = 0;  ///< of the image or shared object
    std::size_t size_ = 0;
    bool unloading_ = false;
    std::atomic<bool> gone_ = false;
};

}  // namespace netsieve::host
