// Where code lies: in which driver image, shared object or program, and how far in.
#pragma once

#include <cstddef>
#include <string>

namespace netsieve::host {

/// Says while it exists that an image lies at these addresses. The name must outlive it. Beyond 64
/// images at a time they stay nameless.
class ImageRange {
  public:
    ImageRange(const char* name, const void* start, std::size_t size);
    ~ImageRange();
    ImageRange(const ImageRange&) = delete;
    ImageRange& operator=(const ImageRange&) = delete;

  private:
    std::size_t slot_;
};

/// What holds an address: `name` is null when nothing is known there, `symbol` when the place has
/// no name of its own.
struct CodeLocation {
    const char* name = nullptr;
    std::size_t offset = 0;
    const char* symbol = nullptr;
    std::size_t symbolOffset = 0;
};
/// Safe in a signal handler.
CodeLocation LocateCode(const void* code);

/// Whether the address lies in an image that an ImageRange announced. Safe in a signal handler.
bool LiesInImage(const void* code);

/// As text: "hook.so+0x1139 (DriverEntry+0x20)".
std::string CodePlace(const void* code);
/// The calls that the caller stands in, innermost first, one place a line.
std::string CallStack();

}  // namespace netsieve::host
