// What the machine knows of one thread of execution.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/kernel.h"

namespace netsieve::host {

enum class ContextKind : std::uint8_t { kThread, kDpc, kWorker };

struct WatchedHook;

/// What a frame is to the hook that it is about.
enum class HookRoutine : std::uint8_t {
    kNone,
    kAttachNotify,
    kDetachNotify,
    kUnloadNotify,
    kPacketHandler,
    kDriverCall  ///< no callback: the driver works on behalf of the hook
};

/// A callback of a driver, or a call of a hook into its driver, that this context is inside of; the
/// innermost comes first.
struct CallFrame {
    CallFrame* outer = nullptr;
    const char* routine = "";  ///< handler name, for reports
    void* driver = nullptr;    ///< the LoadedDriver the callback belongs to
    void* module = nullptr;    ///< the FilterModule, when the callback is a module's
    KIRQL entryIrql = PASSIVE_LEVEL;
    bool dataPath = false;         ///< a module's send, send complete, receive or return handler
    bool countWasWrong = false;    ///< NumberOfNetBufferLists of the indication was wrong
    bool cancelForwarded = false;  ///< the cancel request was passed down
    std::size_t heldAtEntry = 0;
    // Where the stack stood, for the room that drivers take: when the callback was entered, and
    // when it last called the platform. `stackBefore` is what the callbacks around it have taken.
    std::uintptr_t stackAtEntry = 0;
    std::uintptr_t stackAtCall = 0;
    std::size_t stackBefore = 0;
    const WatchedHook* hook = nullptr;
    const char* hookName = nullptr;  ///< set in a callback of the hook
    const void* code = nullptr;      ///< of that callback
    HookRoutine hookRoutine = HookRoutine::kNone;
    const void* nirp = nullptr;  ///< that a packet handler was given
    unsigned marks = 0;          ///< that it has made on it

    bool IsHookCallback() const { return hookName != nullptr; }
};

/// The stack that a kernel thread has.
constexpr std::size_t kKernelStackSize = 24 * 1024;

/// A spin lock that this context holds.
struct HeldLock {
    PKSPIN_LOCK lock = nullptr;
    std::uint32_t record = 0;  ///< the verifier's record of it
    KIRQL savedIrql = PASSIVE_LEVEL;
    bool atDpc = false;
    unsigned again = 0;  ///< acquisitions by its owner that were reported and not made
    bool freed = false;  ///< its memory was freed: nothing may be written there
};

enum class TouchKind : std::uint8_t { kNone, kPaged, kUnmapped };

/// An access to memory that the context may not touch. Written by a signal handler.
struct MemoryTouch {
    TouchKind kind = TouchKind::kNone;
    KIRQL irql = PASSIVE_LEVEL;
    const void* address = nullptr;
    const void* code = nullptr;  ///< the instruction
};

/// One thread, DPC or system worker. Its processor is an attribute: at DISPATCH_LEVEL and above it
/// keeps the processor to itself.
struct Context {
    std::uint32_t id = 0;  ///< dense, in order of creation: the same for the same seed
    ContextKind kind = ContextKind::kThread;
    KIRQL irql = PASSIVE_LEVEL;
    unsigned processor = 0;
    std::string name;
    std::vector<HeldLock> held;
    CallFrame* frame = nullptr;
    std::uint64_t points = 0;      ///< scheduling points that it passed
    MemoryTouch touch;             ///< the first one that is not reported yet
    const void* caller = nullptr;  ///< code that made the latest call to the platform or the driver
    const void* timedOutOn = nullptr;  ///< object of the last wait, if it timed out
    unsigned timeouts = 0;             ///< such waits in a row on that object

    /// How the context is named in reports: "dpc 7 (adapter eth0) on processor 1".
    std::string Describe() const;
    /// The callbacks it is inside of, innermost first: ", in FilterPause"; empty outside of any.
    std::string DescribeCalls() const;
};

/// The context that is running on this OS thread; never null inside Scheduler::Run.
extern constinit thread_local Context* t_context;

inline Context& CurrentContext() {
    return *t_context;
}

}  // namespace netsieve::host
