#include "host/kernel/callback.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/kernel/memory_faults.h"
#include "host/machine.h"
#include "host/sched/happens_before.h"

namespace netsieve::host {

namespace {

/// What the callbacks that are entered have taken of the stack when another begins at `stack`. What
/// the host takes in between does not count: the kernel's own calls are small.
std::size_t StackTaken(const CallFrame* outer, std::uintptr_t stack) {
    if (outer == nullptr) {
        return 0;
    }
    const std::uintptr_t end = std::max(outer->stackAtCall, stack);
    return outer->stackBefore + (outer->stackAtEntry > end ? outer->stackAtEntry - end : 0);
}

}  // namespace

CallbackScope::CallbackScope(const char* routine, LoadedDriver* driver, void* module) {
    Context& context = CurrentContext();
    frame_.outer = context.frame;
    frame_.routine = routine;
    frame_.driver = driver;
    frame_.module = module;
    frame_.entryIrql = context.irql;
    frame_.heldAtEntry = context.held.size();
    frame_.stackAtEntry = reinterpret_cast<std::uintptr_t>(this);
    frame_.stackBefore = StackTaken(context.frame, frame_.stackAtEntry);
    caller_ = std::exchange(context.caller, nullptr);
    context.frame = &frame_;
    Machine::Current().scheduler().NoteProgress();
}

CallbackScope::~CallbackScope() {
    Context& context = CurrentContext();
    Machine& machine = Machine::Current();
    CollectTouch(machine);
    if (machine.verifier().enabled()) {
        if (context.held.size() > frame_.heldAtEntry) {
            machine.verifier().Report(
                Rule::kCallbackHoldsLock,
                fmt::format("{} returned with {} spin lock(s) more than it was entered with",
                            frame_.routine, context.held.size() - frame_.heldAtEntry));
        } else if (context.irql != frame_.entryIrql) {
            machine.verifier().Report(Rule::kCallbackIrql,
                                      fmt::format("{} was entered at IRQL {} and returned at {}",
                                                  frame_.routine, frame_.entryIrql, context.irql));
        }
    }
    while (context.held.size() > frame_.heldAtEntry) {
        NoteRelease(context.held.back().lock);
        machine.scheduler().ReleaseSpin(context.held.back().lock);
        context.held.pop_back();
    }
    if (context.irql != frame_.entryIrql) {
        machine.scheduler().SetIrql(frame_.entryIrql);
    }
    context.frame = frame_.outer;
    machine.scheduler().NoteProgress();
    context.caller = caller_;
}

void* CallingModule() {
    const CallFrame* frame = CurrentContext().frame;
    while (frame != nullptr && frame->module == nullptr && !frame->IsHookCallback()) {
        frame = frame->outer;
    }
    return frame == nullptr || frame->IsHookCallback() ? nullptr : frame->module;
}

}  // namespace netsieve::host
