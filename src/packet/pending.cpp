// No hook can mark a request so far: none is ever pending, and a completion finds nothing.
#include "packet/pending.h"

#include "driver/trace_log.h"

VOID NTAPI NSVFSendPendingComplete(NIRP* nirp, ULONG) {
    TraceLog(nirp->Module, "NSVFSendPendingComplete", 2116, FALSE);
}

VOID NTAPI NSVFReceivePendingComplete(NIRP* nirp, ULONG) {
    TraceLog(nirp->Module, "NSVFReceivePendingComplete", 2199, FALSE);
}

void FlushPendingSends(FILTER_MODULE*) {}

void FlushPendingReceives(FILTER_MODULE*) {}
