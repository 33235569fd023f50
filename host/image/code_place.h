// Where code lies: in which driver image, shared object or program, and how far in.
#pragma once

#include <cstddef>
#include <string>
#include <utility>

namespace netsieve::host {

/// Says while it exists that a driver lies at these addresses: an image, or a shared object. The
/// name must outlive it. Beyond 64 at a time they stay nameless.
class ImageRange {
  public:
    enum class Kind : bool { kImage, kSharedObject };
    ImageRange(const char* driver, const void* start, std::size_t size, Kind kind);
    ~ImageRange();
    ImageRange(const ImageRange&) = delete;
    ImageRange& operator=(const ImageRange&) = delete;

  private:
    std::size_t slot_;
};

/// What holds an address: `name` is null when nothing is known there, `symbol` when the place has
/// no name of its own.
struct CodeLocation {
    const char* driver = nullptr;  ///< that an ImageRange announced there
    const char* name = nullptr;
    std::size_t offset = 0;
    const char* symbol = nullptr;
    std::size_t symbolOffset = 0;
};
/// Safe in a signal handler.
CodeLocation LocateCode(const void* code);

/// Whether the address lies in an image, which the unwinder cannot follow. Safe in a signal
/// handler.
bool LiesInImage(const void* code);
/// Whether it lies in this program itself. Safe in a signal handler.
bool LiesInProgram(const void* code);

/// The addresses of the shared object that `code` lies in; none for the program itself, which may
/// hold any number of drivers.
std::pair<const void*, std::size_t> SharedObjectOf(const void* code);

/// As text: "hook.so+0x1139 (DriverEntry+0x20)".
std::string CodePlace(const void* code);
/// What a function or variable of a driver is called: "hook.so!g_lock", "hook.sys+0x3010"; empty
/// where neither code nor data of a program lies. Not in a signal handler.
std::string PlaceName(const void* address);
/// The calls that the caller stands in, innermost first, one place a line.
std::string CallStack();

}  // namespace netsieve::host
