// Text that a terminal shows as it is.
#pragma once

#include <string>
#include <string_view>

namespace netsieve::host {

/// The text with every control character but the line feed and the tab spelled out ("\x1B"): what a
/// driver prints must not steer the terminal of who reads it.
std::string VisibleText(std::string_view text);

}  // namespace netsieve::host
