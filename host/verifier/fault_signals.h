// The signals by which the processor says that code went wrong.
#pragma once

namespace netsieve::host {

/// Takes over SIGSEGV, SIGBUS, SIGILL and SIGFPE for the process, once. A fault that
/// RecoverFromFault knows goes on; of any other inside a machine a crash report is written, and the
/// process ends. What was installed before gets the rest, and under a sanitizer all of them after
/// the report.
void InstallFaultSignals();

}  // namespace netsieve::host
