#include "hook/hook_table.h"

#include "driver/filter_module.h"

void InitializeHookTable(FILTER_MODULE* module) {
    InitializeDriverSpinLock(&module->HookLock);
}
