#include "host/verifier/fault_signals.h"

#include <execinfo.h>
#include <signal.h>
#include <ucontext.h>

#include <atomic>
#include <cstdint>

#include "host/kernel/memory_faults.h"
#include "host/machine.h"
#include "host/sanitizers.h"
#include "host/signal_text.h"
#include "host/verifier/crash_report.h"

namespace netsieve::host {

namespace {

constexpr int kSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE};
struct sigaction g_before[NSIG];

// With nobody to hand it to, the access is made again when this returns, and ends the process.
void HandOn(int signal, siginfo_t* info, void* context) {
    const struct sigaction& before = g_before[signal];
    if ((before.sa_flags & SA_SIGINFO) != 0) {
        before.sa_sigaction(signal, info, context);
    } else if (before.sa_handler != SIG_DFL && before.sa_handler != SIG_IGN) {
        before.sa_handler(signal);
    } else {
        sigaction(signal, &before, nullptr);
    }
}

/// Code that used up its stack faults next to its stack pointer.
bool IsStackOverflow(const siginfo_t& info, const CrashPlace& place) {
    constexpr std::uintptr_t kBelow = 4096;
    constexpr std::uintptr_t kAbove = 64 * 1024;
    const auto address = reinterpret_cast<std::uintptr_t>(info.si_addr);
    const auto stack = reinterpret_cast<std::uintptr_t>(place.stack);
    return address + kBelow >= stack && address < stack + kAbove;
}

void AppendAccess(SignalText& what, const siginfo_t& info, const void* context) {
    // The processor's error code of a page fault.
    constexpr unsigned long kWrite = 1 << 1;
    constexpr unsigned long kFetch = 1 << 4;
    const auto error = static_cast<unsigned long>(
        static_cast<const ucontext_t*>(context)->uc_mcontext.gregs[REG_ERR]);
    if (info.si_code == SI_KERNEL) {
        what << "used a pointer that is no address";
        return;
    }
    const bool fetches = (error & kFetch) != 0;
    const bool writes = (error & kWrite) != 0;
    what << (fetches ? "jumped to address " : writes ? "wrote to address " : "read from address ");
    what.Hex(info.si_addr);
}

void AppendFault(SignalText& what,
                 int signal,
                 const siginfo_t& info,
                 const void* context,
                 const CrashPlace& place) {
    if (signal == SIGFPE) {
        what << "divided by zero, or with a quotient that is too large";
    } else if (signal == SIGILL) {
        what << "executed what is no instruction";
    } else if (IsStackOverflow(info, place)) {
        what << "used up its kernel stack of 24 KiB";
    } else {
        AppendAccess(what, info, context);
    }
}

void OnFault(int signal, siginfo_t* info, void* context) {
    const CrashPlace place = PlaceOf(context);
    if ((signal == SIGSEGV || signal == SIGBUS) && RecoverFromFault(info->si_addr, place.code)) {
        return;
    }
    if (t_context != nullptr && Machine::Exists()) {
        SignalText what;
        AppendFault(what, signal, *info, context, place);
        WriteCrashReport(what.View(), place);
        // A sanitizer has more to say than this report, and ends the process with its own status.
        if (!kSanitized) {
            EndCrashedProcess();
        }
    }
    HandOn(signal, info, context);
}

void Install() {
    // The first backtrace loads a library, which a signal handler must not.
    void* frame = nullptr;
    backtrace(&frame, 1);
    for (const int signal : kSignals) {
        struct sigaction action {};
        action.sa_sigaction = &OnFault;
        // The report may fault in its turn.
        action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
        sigaction(signal, &action, &g_before[signal]);
    }
}

}  // namespace

void InstallFaultSignals() {
    static std::atomic<bool> installed = false;
    if (!installed.exchange(true)) {
        Install();
    }
}

}  // namespace netsieve::host
