#include "hook/protocol_table.h"

#include "driver/filter_module.h"
#include "platform/atomics.h"

void InitializeProtocolTable(FILTER_MODULE* module) {
    InitializeDriverSpinLock(&module->ProtocolLock);
}

void FreeProtocolTable(FILTER_MODULE* module) {
    ULONG count = ReadAcquire(&module->ProtocolCount);
    for (ULONG i = 0; i < count; ++i) {
        if (module->ProtocolNames[i].Buffer != nullptr) {
            NdisFreeMemory(module->ProtocolNames[i].Buffer, 0, 0);
        }
    }
}
