// What a module makes packets of: its pool of lists, and its free packet records.
//
// Records and lists of the driver are NTAPI in whatever touches every frame, although the routines
// never leave the driver: see module_reference.h.
#pragma once

#include "driver/filter_module.h"
#include "packet/nirp.h"
#include "platform/atomics.h"

constexpr ULONG NBL_POOL_TAG = 0x6C626E6E;                 // "nnbl"
constexpr ULONG NIRP_TAG = 0x70696E6E;                     // "nnip"
constexpr ULONG NIRP_BUFFER_TAG = 0x74626D6E;              // "nmbt"
constexpr ULONG NIRP_REALLOCATED_BUFFER_TAG = 0x7462726E;  // "nrbt"

constexpr ULONG LARGE_NIRP_CAPACITY = 65535;

// Makes the module's free and pending lists empty and their locks free, then creates the pool for
// the lists that the driver builds. STATUS_INSUFFICIENT_RESOURCES without a pool; the lists are set
// up all the same. Before every other routine of the pools. PASSIVE_LEVEL.
NTSTATUS InitializeNBLPool(FILTER_MODULE* module);

// Frees the pool, if there is one. Every list of it is back. PASSIVE_LEVEL.
void FreeNBLPool(FILTER_MODULE* module);

// Makes the packet records for frames of up to `mtu` bytes behind their Ethernet header, and a few
// for the longest; the machine's size says how many. STATUS_INSUFFICIENT_RESOURCES when there is
// not one, success when there are fewer than wanted. PASSIVE_LEVEL.
NTSTATUS InitializeNirpPool(FILTER_MODULE* module, ULONG mtu);

// Frees the records on the two free lists, and those that wait for marks which nobody will complete
// any more. PASSIVE_LEVEL.
void FreeNirpPool(FILTER_MODULE* module);

// Makes a record of the module with a buffer of `capacity` bytes, on no list. On failure nothing
// stays behind, `*nirp` is NULL, a trace line says what was missing and the status is the
// allocator's. IRQL <= DISPATCH_LEVEL.
NTSTATUS AllocateNirp(FILTER_MODULE* module, ULONG capacity, NIRP** nirp);

// Gives a record that the caller alone has another buffer: of the small capacity when `size` fits
// it, else of the large one. On failure the record has none, its capacity is 0, and a trace line
// says why. IRQL <= DISPATCH_LEVEL.
NTSTATUS NTAPI ReAllocateNirpBuffer(FILTER_MODULE* module, NIRP* nirp, ULONG size);

// Hands out an idle record whose buffer holds at least `size` bytes, or NULL: the pool is empty, no
// record is that large, or another buffer was needed and could not be had. The fields of the last
// use are still in it. `atDispatch` says that the caller runs at DISPATCH_LEVEL. Of the driver's
// locks only ModuleListLock may be held. IRQL <= DISPATCH_LEVEL.
NIRP* NTAPI GetNirp(FILTER_MODULE* module, ULONG size, BOOLEAN atDispatch);

// Takes a record back that nothing holds any more. Same terms as GetNirp.
VOID NTAPI ReturnNirp(FILTER_MODULE* module, NIRP* nirp, BOOLEAN atDispatch);

// Ends holds of a record, which goes back to the pool when it was the last. Ending the hold of a
// request finishes it. The caller must not touch the record any more. `atDispatch` as above; none
// of the driver's locks may be held. IRQL <= DISPATCH_LEVEL.
VOID NTAPI ReleaseNirpHolds(FILTER_MODULE* module, NIRP* nirp, ULONG holds, BOOLEAN atDispatch);

// Makes a record that nothing holds any more what GetNirp would hand out, for a caller that has
// further use for it. From here on nobody can mark it pending.
inline void MakeNirpIdle(NIRP* nirp) {
    WriteRelease(&nirp->State, NIRP_STATE_IDLE);
}

// Whether GetNirp would look for `size` bytes among the records of this one's capacity.
inline bool IsNirpForSize(const FILTER_MODULE* module, const NIRP* nirp, ULONG size) {
    ULONG small = module->SmallNirpCapacity;
    return size <= nirp->BufferCapacity && (size <= small) == (nirp->BufferCapacity <= small);
}
