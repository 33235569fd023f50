// Copying the bytes of a frame out of its buffers.
#pragma once

#include "packet/nirp.h"

// Copies the frame of `buffer` into the record, whose buffer holds at least that much, and makes
// its length the record's DataLength. Returns the bytes copied: fewer when the chain of descriptors
// ends early or one of them cannot be mapped. The rest of DataLength is then zero, so that nobody
// is shown the bytes of an earlier frame. The caller has the record and the buffer alone.
// IRQL <= DISPATCH_LEVEL.
ULONG NTAPI CopyNetBufferToNirp(const NET_BUFFER* buffer, NIRP* nirp);
