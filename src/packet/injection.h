// Frames that a hook makes itself.
#pragma once

#include "platform/ndis.h"

// Sends a copy of the frame out of every running module whose address is the frame's source
// address: within the call from PASSIVE_LEVEL, from a work item above it. The hooks are not shown
// it. A frame that is missing, or too short for a source address, goes nowhere. Returns
// STATUS_SUCCESS whatever becomes of it. IRQL <= DISPATCH_LEVEL, none of the driver's locks held.
NTSTATUS NSVFSendPacket(const UCHAR* frame, ULONG length);
