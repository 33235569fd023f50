#include "module/trace_log.h"

#include "platform/runtime.h"

void InitializeTraceLog(FILTER_MODULE* module) {
    InitializeDriverSpinLock(&module->TraceLock);
    PVOID buffer = nullptr;
    if (NdisAllocateMemoryWithTag(&buffer, TRACE_BUFFER_SIZE, TRACE_BUFFER_TAG) ==
        NDIS_STATUS_SUCCESS) {
        module->TraceBuffer = static_cast<PUCHAR>(buffer);
    } else {
        DbgPrint("dbglog memory allocate failed\n");
    }
}

void FreeTraceLog(FILTER_MODULE* module) {
    if (module->TraceBuffer != nullptr) {
        NdisFreeMemory(module->TraceBuffer, 0, 0);
        module->TraceBuffer = nullptr;
    }
}

void FASTABI TraceLog(FILTER_MODULE* module, PCSTR label, ULONG site, bool atDispatch) {
    if (label == nullptr || module->TraceBuffer == nullptr) {
        return;
    }
    char line[256];
    RtlZeroMemory(line, sizeof(line));

    SpinLockGuard guard(&module->TraceLock, atDispatch);
    ULONG number = module->TraceSequence++;
    sprintf(line, "[%d %s->%d]\n", number, label, site);
    ULONG length = static_cast<ULONG>(CharStringLength(line)) + 1;
    if (TRACE_BUFFER_SIZE - module->TraceOffset < length) {
        module->TraceOffset = 0;
    }
    memcpy(module->TraceBuffer + module->TraceOffset, line, length);
    module->TraceOffset += length;
}
