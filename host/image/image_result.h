#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <variant>

namespace netsieve::host {

/// Why an image was refused. The first group is about the file's form, the second about what a
/// kernel, or this host, does not load.
enum class ImageError {
    kUnreadable,
    kTruncated,
    kNotAnImage,
    kWrongMachine,
    kNotPe32Plus,
    kBadHeader,
    kTooLarge,
    kBadSections,
    kBadDirectory,
    kBadImports,
    kBadExports,
    kBadRelocations,
    kBadUnwindData,

    kWrongChecksum,
    kWrongSubsystem,
    kWritableCode,
    kBadEntryPoint,
    kUnsupported,
    kImportByOrdinal,
    kUnknownImports,
    kNotRelocatable,
    kNoMemory,
};

/// The error's name for people and scripts: "wrong-checksum". Never empty.
std::string_view ImageErrorName(ImageError error);

/// A refusal: the error, and a sentence that says what was found where.
struct ImageFault {
    ImageError error;
    std::string message;
};

/// Either a value or the fault that kept it from being made.
template <class T>
class ImageResult {
  public:
    ImageResult(T value) : state_(std::move(value)) {}
    ImageResult(ImageFault fault) : state_(std::move(fault)) {}

    /// Whether there is a value. value() may be called only then, fault() only otherwise.
    explicit operator bool() const { return state_.index() == 0; }
    T& value() { return std::get<0>(state_); }
    const T& value() const { return std::get<0>(state_); }
    const ImageFault& fault() const { return std::get<1>(state_); }

  private:
    std::variant<T, ImageFault> state_;
};

}  // namespace netsieve::host
