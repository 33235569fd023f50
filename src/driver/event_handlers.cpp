#include "driver/event_handlers.h"

#include "module/filter_module.h"

namespace {

NDIS_HANDLE HandleOf(NDIS_HANDLE filterModuleContext) {
    return static_cast<FILTER_MODULE*>(filterModuleContext)->FilterHandle;
}

}  // namespace

VOID NTAPI NSVFilterCancelSendNetBufferLists(NDIS_HANDLE FilterModuleContext, PVOID CancelId) {
    NdisFCancelSendNetBufferLists(HandleOf(FilterModuleContext), CancelId);
}

VOID NTAPI NSVFilterDevicePnPEventNotify(NDIS_HANDLE FilterModuleContext,
                                         PNET_DEVICE_PNP_EVENT NetDevicePnPEvent) {
    NdisFDevicePnPEventNotify(HandleOf(FilterModuleContext), NetDevicePnPEvent);
}

NDIS_STATUS NTAPI NSVFilterNetPnPEvent(NDIS_HANDLE FilterModuleContext,
                                       PNET_PNP_EVENT_NOTIFICATION Event) {
    return NdisFNetPnPEvent(HandleOf(FilterModuleContext), Event);
}

VOID NTAPI NSVFilterStatus(NDIS_HANDLE FilterModuleContext,
                           PNDIS_STATUS_INDICATION StatusIndication) {
    NdisFIndicateStatus(HandleOf(FilterModuleContext), StatusIndication);
}
