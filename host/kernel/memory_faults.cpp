#include "host/kernel/memory_faults.h"

#include <fmt/format.h>

#include "host/image/code_place.h"
#include "host/kernel/paged_memory.h"
#include "host/kernel/unmapped_memory.h"
#include "host/machine.h"

namespace netsieve::host {

namespace {

void NoteTouch(TouchKind kind, const void* address, const void* code) {
    Context* const context = t_context;
    if (context != nullptr && context->touch.kind == TouchKind::kNone) {
        context->touch = {kind, context->irql, address, code};
    }
}

}  // namespace

bool RecoverFromFault(const void* address, const void* code) {
    if (PagedMemory::Contains(address)) {
        const bool raised = t_context != nullptr && t_context->irql >= DISPATCH_LEVEL;
        if (raised && !PagedMemory::HostAccess::Active()) {
            NoteTouch(TouchKind::kPaged, address, code);
        }
        PagedMemory::Release();
        return true;
    }
    if (UnmappedMemory::Contains(address)) {
        NoteTouch(TouchKind::kUnmapped, address, code);
        return UnmappedMemory::Open();
    }
    return false;
}

void CollectTouchSlowly(Machine& machine) {
    const MemoryTouch touch = CurrentContext().touch;
    CurrentContext().touch = {};
    if (touch.kind == TouchKind::kPaged) {
        machine.verifier().Report(
            Rule::kPagedPoolTouched,
            fmt::format("{} was touched at IRQL {} by {}", machine.Describe(touch.address),
                        touch.irql, CodePlace(touch.code)));
    } else {
        UnmappedMemory::Close();
        machine.verifier().Report(
            Rule::kMdlUnmapped,
            fmt::format("{} bytes from the StartVa of an MDL without a mapping, at IRQL {} by {}",
                        UnmappedMemory::Offset(touch.address), touch.irql, CodePlace(touch.code)));
    }
}

}  // namespace netsieve::host
