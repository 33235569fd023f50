#include "host/verifier/fault_signals.h"

#include <signal.h>
#include <ucontext.h>

#include <atomic>

#include "host/kernel/memory_faults.h"

namespace netsieve::host {

namespace {

constexpr int kSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE};
struct sigaction g_before[NSIG];

const void* CodeOf(const void* context) {
    const auto& registers = static_cast<const ucontext_t*>(context)->uc_mcontext.gregs;
    return reinterpret_cast<const void*>(registers[REG_RIP]);
}

// The access is made again when this returns, and then ends the process as it would have.
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

void OnFault(int signal, siginfo_t* info, void* context) {
    if ((signal == SIGSEGV || signal == SIGBUS) &&
        RecoverFromFault(info->si_addr, CodeOf(context))) {
        return;
    }
    HandOn(signal, info, context);
}

void Install() {
    for (const int signal : kSignals) {
        struct sigaction action {};
        action.sa_sigaction = &OnFault;
        action.sa_flags = SA_SIGINFO | SA_ONSTACK;
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
