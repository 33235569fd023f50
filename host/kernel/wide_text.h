// The system's 16-bit text and ours.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace netsieve::host {

/// The same text as UTF-8, or nothing when it has half a surrogate pair in it.
std::optional<std::string> Utf8FromWide(std::u16string_view wide);
/// The same text as UTF-8, with U+FFFD for each half of a surrogate pair that stands alone.
std::string Utf8FromAnyWide(std::u16string_view wide);
/// Nothing when `text` is not UTF-8.
std::optional<std::u16string> WideFromUtf8(std::string_view text);

}  // namespace netsieve::host
