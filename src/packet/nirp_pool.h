// The pools of a filter module: its NBL pool, and its free NIRPs. What a NIRP is used for is no
// concern of the pool; see nirp_life.h.
#pragma once

#include "module/filter_module.h"
#include "packet/nirp.h"
#include "platform/atomics.h"

constexpr ULONG NBL_POOL_TAG = 0x6C626E6E;                 // "nnbl"
constexpr ULONG NIRP_TAG = 0x70696E6E;                     // "nnip"
constexpr ULONG NIRP_BUFFER_TAG = 0x74626D6E;              // "nmbt"
constexpr ULONG NIRP_REALLOCATED_BUFFER_TAG = 0x7462726E;  // "nrbt"

constexpr ULONG LARGE_NIRP_CAPACITY = 65535;

// Makes the module's free lists empty and their locks free, then creates the pool for the NBLs that
// the driver originates. STATUS_INSUFFICIENT_RESOURCES without a pool; the free lists are set up
// all the same. Before every other routine of the pools. PASSIVE_LEVEL.
NTSTATUS InitializeNBLPool(FILTER_MODULE* module);

// Frees the pool, if there is one. Every NBL of it is back. PASSIVE_LEVEL.
void FreeNBLPool(FILTER_MODULE* module);

// Makes the NIRPs for frames of up to `mtu` bytes behind their Ethernet header, and a few
// for the longest; the machine's size says how many. STATUS_INSUFFICIENT_RESOURCES when there is
// not one, success when there are fewer than wanted. PASSIVE_LEVEL.
NTSTATUS InitializeNirpPool(FILTER_MODULE* module, ULONG mtu);

// Frees the NIRPs on the two free lists. PASSIVE_LEVEL.
void FreeNirpPool(FILTER_MODULE* module);

// Frees a NIRP that is on no list, with its buffer. IRQL <= DISPATCH_LEVEL.
void FreeNirp(NIRP* nirp);

// Makes a NIRP of the module with a buffer of `capacity` bytes, on no list. On failure nothing
// stays behind, `*nirp` is NULL, a trace line says what was missing and the status is the
// allocator's. IRQL <= DISPATCH_LEVEL.
NTSTATUS FASTABI AllocateNirp(FILTER_MODULE* module, ULONG capacity, NIRP** nirp);

// Gives a NIRP that the caller has to itself another buffer: of the small capacity when `size` fits
// it, else of the large one. On failure the NIRP has none, its capacity is 0, and a trace line
// says why. IRQL <= DISPATCH_LEVEL.
NTSTATUS FASTABI ReAllocateNirpBuffer(FILTER_MODULE* module, NIRP* nirp, ULONG size);

// Hands out a NIRP whose buffer holds at least `size` bytes, or NULL: the pool is empty, no
// NIRP is that large, or another buffer was needed and could not be had. The fields of the last
// use are still in it, and the NIRP that was returned first is handed out first. `atDispatch` says
// that the caller runs at DISPATCH_LEVEL. Of the driver's locks only ModuleListLock may be held.
// IRQL <= DISPATCH_LEVEL.
NIRP* FASTABI GetNirp(FILTER_MODULE* module, ULONG size, bool atDispatch);

// Takes back a NIRP without holds. Same terms as GetNirp.
void FASTABI ReturnNirp(FILTER_MODULE* module, NIRP* nirp, bool atDispatch);

// Whether GetNirp would look for `size` bytes among the NIRPs of this one's capacity.
inline bool IsNirpForSize(const FILTER_MODULE* module, const NIRP* nirp, ULONG size) {
    ULONG small = module->SmallNirpCapacity;
    return size <= nirp->BufferCapacity && (size <= small) == (nirp->BufferCapacity <= small);
}
