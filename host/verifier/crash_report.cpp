#include "host/verifier/crash_report.h"

#include <execinfo.h>
#include <sys/uio.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>

#include "host/image/code_place.h"
#include "host/machine.h"
#include "host/signal_text.h"
#include "host/verifier/run_notes.h"

namespace netsieve::host {

namespace {

constexpr int kOut = STDERR_FILENO;

void AppendPlace(SignalText& text, const void* address) {
    const CodeLocation place = LocateCode(address);
    if (place.name == nullptr) {
        text.Hex(address);
        return;
    }
    text << place.name << "+";
    text.Hex(place.offset);
    if (place.symbol != nullptr) {
        text << " (" << place.symbol << "+";
        text.Hex(place.symbolOffset) << ")";
    }
}

void AppendContext(SignalText& text, const Context& context) {
    static constexpr const char* kKinds[] = {"thread", "dpc", "worker"};
    text << "    by:     " << kKinds[static_cast<int>(context.kind)] << " "
         << std::uint64_t{context.id} << " (" << context.name << ") on processor "
         << std::uint64_t{context.processor} << " at IRQL " << std::uint64_t{context.irql};
    for (const CallFrame* frame = context.frame; frame != nullptr; frame = frame->outer) {
        text << ", in " << frame->routine;
        if (frame->driver != nullptr) {
            text << " of " << static_cast<const LoadedDriver*>(frame->driver)->name();
        }
    }
    text << "\n";
    for (const HeldLock& held : context.held) {
        text << "    holds:  the lock in ";
        AppendPlace(text, held.lock);
        text << "\n";
    }
}

void AppendRun(SignalText& text, const MachineOptions& options) {
    AppendRunNotes(text);
    if (options.tree != nullptr) {
        text << "    choices ";
        options.tree->AppendName(text);
    } else if (options.scheduler == SchedulerKind::kSimulated) {
        text << "    seed:   " << options.seed;
    } else {
        text << "    seed:   none, the machine runs on real threads";
    }
    text << "\n";
}

void WriteFrame(SignalText& text, const void* code) {
    text << "            ";
    AppendPlace(text, code);
    text << "\n";
    text.Write(kOut);
}

/// Addresses on the stack that lie in code, for where the unwinder cannot follow: in driver images,
/// and from where there is no code. Some of them are where calls return to.
void WriteCodeOnStack(SignalText& text, const void* stack) {
    std::array<const void*, 1024> words{};
    const iovec here{words.data(), sizeof(words)};
    const iovec there{const_cast<void*>(stack), sizeof(words)};
    // Stops at memory that is not there instead of faulting.
    const ssize_t bytes = process_vm_readv(getpid(), &here, 1, &there, 1, 0);
    const std::size_t count = bytes <= 0 ? 0 : static_cast<std::size_t>(bytes) / sizeof(void*);
    for (std::size_t i = 0, shown = 0; i < count && shown < 24; ++i) {
        if (LocateCode(words[i]).name != nullptr) {
            WriteFrame(text, words[i]);
            ++shown;
        }
    }
}

void WriteStack(SignalText& text, const CrashPlace& place) {
    text << "    stack:  ";
    AppendPlace(text, place.code);
    text << "\n";
    text.Write(kOut);
    if (LiesInImage(place.code) || LocateCode(place.code).name == nullptr) {
        WriteCodeOnStack(text, place.stack);
        return;
    }
    std::array<void*, 64> frames{};
    const auto count = static_cast<std::size_t>(backtrace(frames.data(), frames.size()));
    const auto end = frames.begin() + static_cast<std::ptrdiff_t>(count);
    // Above the place stands what reports it.
    const auto first = std::find(frames.begin(), end, place.code);
    for (auto at = first; at != end && at + 1 != end; ++at) {
        WriteFrame(text, at[1]);
    }
}

/// Whose code it was: of the driver that lies there, or, in a library, of the one that called. The
/// drivers that are part of this program are told apart by the callback that is entered.
std::string_view GuiltyDriver(const Context& context, const CrashPlace& place) {
    const CodeLocation there = LocateCode(place.code);
    if (there.driver != nullptr) {
        return there.driver;
    }
    std::array<void*, 32> frames{};
    std::size_t count = 0;
    if (there.name != nullptr && !LiesInProgram(place.code)) {
        count = static_cast<std::size_t>(backtrace(frames.data(), frames.size()));
    }
    const auto end = frames.begin() + static_cast<std::ptrdiff_t>(count);
    for (auto at = std::find(frames.begin(), end, place.code); at != end && !LiesInProgram(*at);
         ++at) {
        if (const char* const caller = LocateCode(*at).driver) {
            return caller;
        }
    }
    const LoadedDriver* const driver = LoadedDriver::Innermost(context);
    return driver == nullptr ? std::string_view("no driver") : std::string_view(driver->name());
}

// Another thread may crash before the process has ended, and so may the report itself, for which
// what is written by then has to do.
void ReportOnce() {
    static std::atomic<pid_t> reporter = 0;
    pid_t none = 0;
    if (!reporter.compare_exchange_strong(none, gettid())) {
        if (none == gettid()) {
            EndCrashedProcess();
        }
        for (;;) {
            pause();
        }
    }
}

}  // namespace

CrashPlace PlaceOf(const void* context) {
    const auto& registers = static_cast<const ucontext_t*>(context)->uc_mcontext.gregs;
    return {.code = reinterpret_cast<const void*>(registers[REG_RIP]),
            .stack = reinterpret_cast<const void*>(registers[REG_RSP])};
}

void WriteCrashReport(std::string_view what, const CrashPlace& place) {
    ReportOnce();
    const Context& context = CurrentContext();
    SignalText text;
    text << "\n" << GuiltyDriver(context, place) << " " << what << "\n    code:   ";
    AppendPlace(text, place.code);
    text << "\n";
    AppendContext(text, context);
    AppendRun(text, Machine::Current().options());
    text.Write(kOut);
    WriteStack(text, place);
}

void EndCrashedProcess() {
    _exit(kCrashStatus);
}

}  // namespace netsieve::host
