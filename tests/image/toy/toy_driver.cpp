// Uses what a loader has to get right: imports from both modules (one variadic), pointers in data
// and read-only data that need relocation, zero-initialised data, exports, and an unload routine.
#include "platform/kernel.h"
#include "platform/ndis.h"

namespace {

using Step = ULONG(NTAPI*)(ULONG);

ULONG NTAPI AddThree(ULONG value) {
    return value + 3;
}

ULONG NTAPI Double(ULONG value) {
    return value * 2;
}

const Step kSteps[] = {AddThree, Double};
const Step* gNextStep = kSteps;
KSPIN_LOCK gLock;
ULONG gLoads;

VOID NTAPI Unload(PDRIVER_OBJECT) {
    DbgPrint("toy unloaded\n");
}

}  // namespace

extern "C" ULONG NTAPI ToySum(ULONG value) {
    for (gNextStep = kSteps; gNextStep != kSteps + 2; ++gNextStep) {
        value = (*gNextStep)(value);
    }
    return value;
}

extern "C" ULONG NTAPI ToyLoads() {
    return gLoads;
}

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&gLock);
    ++gLoads;
    KeReleaseSpinLock(&gLock, irql);
    driver->DriverUnload = Unload;
    DbgPrint("toy %s %u %p %d\n", "loaded", NdisGetVersion(), driver, -7);
    return STATUS_SUCCESS;
}
