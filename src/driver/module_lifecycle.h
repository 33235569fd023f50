// The life of a filter module: attach, restart, pause, detach. NDIS calls these at PASSIVE_LEVEL,
// one at a time for a module.
#pragma once

#include "platform/ndis.h"

// Builds the module of an Ethernet adapter, paused, links it into ModuleList and tells the hook
// filters. Fails with NDIS_STATUS_INVALID_PARAMETER for another driver's context or another medium,
// and with the status of the allocation or of the attributes that NDIS refused; nothing stays
// behind then. Pools that could not be made do not fail it.
NDIS_STATUS NTAPI NSVFilterAttach(NDIS_HANDLE NdisFilterHandle,
                                  NDIS_HANDLE FilterDriverContext,
                                  PNDIS_FILTER_ATTACH_PARAMETERS AttachParameters);

// Takes the module down and frees it. Does not return while a data-path call is inside it.
VOID NTAPI NSVFilterDetach(NDIS_HANDLE FilterModuleContext);

// Sets the module running. Always succeeds.
NDIS_STATUS NTAPI NSVFilterRestart(NDIS_HANDLE FilterModuleContext,
                                   PNDIS_FILTER_RESTART_PARAMETERS Parameters);

// Sets the module paused and drops every pending request. When it returns, nothing that the driver
// originated on this module is outstanding. Always succeeds; the parameters are not read.
NDIS_STATUS NTAPI NSVFilterPause(NDIS_HANDLE FilterModuleContext,
                                 PNDIS_FILTER_PAUSE_PARAMETERS Parameters);
