#include "packet/outstanding.h"

void InitializeOutstandingLists(FILTER_MODULE* module) {
    InitializeDrainCount(&module->OutstandingLists);
}

VOID NTAPI CountOutstandingList(FILTER_MODULE* module, BOOLEAN atDispatch) {
    RaiseDrainCount(&module->OutstandingLists, atDispatch);
}

VOID NTAPI ReleaseOutstandingList(FILTER_MODULE* module, BOOLEAN atDispatch) {
    LowerDrainCount(&module->OutstandingLists, atDispatch);
}

void WaitForOutstandingLists(FILTER_MODULE* module) {
    WaitForDrain(&module->OutstandingLists);
}
