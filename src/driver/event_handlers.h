// The NDIS events that pass through the module unchanged. They take no reference and test no state.
#pragma once

#include "platform/ndis.h"

// IRQL <= DISPATCH_LEVEL.
VOID NTAPI NSVFilterCancelSendNetBufferLists(NDIS_HANDLE FilterModuleContext, PVOID CancelId);

// PASSIVE_LEVEL.
VOID NTAPI NSVFilterDevicePnPEventNotify(NDIS_HANDLE FilterModuleContext,
                                         PNET_DEVICE_PNP_EVENT NetDevicePnPEvent);

// Returns what the drivers above answered. PASSIVE_LEVEL.
NDIS_STATUS NTAPI NSVFilterNetPnPEvent(NDIS_HANDLE FilterModuleContext,
                                       PNET_PNP_EVENT_NOTIFICATION Event);

// IRQL <= DISPATCH_LEVEL.
VOID NTAPI NSVFilterStatus(NDIS_HANDLE FilterModuleContext,
                           PNDIS_STATUS_INDICATION StatusIndication);
