// Copying the bytes of a frame out of its MDL chain.
#pragma once

#include "packet/nirp.h"

// Copies the NET_BUFFER's frame into the NIRP, whose buffer holds at least that much, and makes its
// length the NIRP's DataLength. Returns the bytes copied: fewer when the MDL chain ends early or an
// MDL cannot be mapped. The rest of DataLength is then zero, so that nobody is shown the bytes of
// an earlier frame. The caller has the NIRP and the NET_BUFFER to itself. IRQL <= DISPATCH_LEVEL.
ULONG FASTABI CopyNetBufferToNirp(const NET_BUFFER* netBuffer, NIRP* nirp);

// Copies the frame of `nirp` into `copy`, whose buffer holds at least that much, with its
// DataLength. Nobody else changes either meanwhile. IRQL <= DISPATCH_LEVEL.
void FASTABI CopyNirp(const NIRP* nirp, NIRP* copy);
