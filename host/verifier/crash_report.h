// The report of a run that ended because a driver or hook went wrong beyond repair.
#pragma once

#include <string_view>

namespace netsieve::host {

/// The exit status of a process that ended with such a report.
constexpr int kCrashStatus = 10;

/// Where the code stood: an instruction, and the stack pointer that it had.
struct CrashPlace {
    const void* code = nullptr;
    const void* stack = nullptr;
};

/// Where the code stood that a signal interrupted; `context` is the handler's third argument.
CrashPlace PlaceOf(const void* context);

/// Writes to standard error what happened (`what`, to be read after the driver's name: "read from
/// address 0x10"), where, in which routine of which driver, in which context, how far the run had
/// come and how to repeat it, and the stack. Inside a machine. Safe in a signal handler; the first
/// thread that comes here is the one that reports, any other never returns.
void WriteCrashReport(std::string_view what, const CrashPlace& place);

/// Ends the process at once with kCrashStatus.
[[noreturn]] void EndCrashedProcess();

}  // namespace netsieve::host
