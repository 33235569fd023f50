// How the program ends.
#pragma once

#include <algorithm>
#include <string_view>

#include "host/verifier/crash_report.h"

namespace netsieve::tool {

/// The exit statuses in the order of their weight: when several apply, the highest is the one.
enum class ExitStatus : int {
    kClean = 0,
    kInternalError = 1,
    kUsage = 2,
    kInputUnreadable = 3,
    kInputBrokenOff = 4,
    kNotRepresentable = 5,
    kDriverRefused = 5,  ///< of the commands that ask the driver for something
    kOutputFailed = 6,
    kDriverNotLoaded = 7,
    kFramesLost = 8,
    kRuleBroken = 9,
    kDriverCrashed = 10,  ///< the host ends the process with it
};
static_assert(static_cast<int>(ExitStatus::kDriverCrashed) == host::kCrashStatus);

/// The graver of two.
constexpr ExitStatus Graver(ExitStatus left, ExitStatus right) {
    return std::max(left, right);
}

/// The end of every help text.
constexpr std::string_view kExitStatusHelp =
    R"(Exit status:
  0  nothing was lost and no rule was broken
  1  the program itself failed
  2  the command line is wrong
  3  the capture cannot be read at all, or is not an Ethernet capture
  4  the capture broke off; what could be read was replayed and written
  5  frames have times that the output format has no room for; they were not written
  6  the output, the log or the summary could not be written
  7  the driver or a hook could not be loaded or did not bind to the adapter
  8  frames, NBLs or memory were lost in the driver
  9  the driver broke a rule of its platform
  10 the driver or a hook crashed or never came back; the run ended there
When several apply, the highest number is the exit status.)";

}  // namespace netsieve::tool
