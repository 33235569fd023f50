// The rules of the platform that the verifier checks, by name.
#pragma once

#include <cstdint>

namespace netsieve::host {

// Name, and what the platform demands. The names appear in reports and in tests.
#define NETSIEVE_RULES(X)                                                                  \
    X(PassiveLevelRequired, "may be called at PASSIVE_LEVEL only")                         \
    X(DispatchLevelExceeded, "may be called up to DISPATCH_LEVEL only")                    \
    X(CallbackIrql, "a callback returns at the IRQL it was entered at")                    \
    X(CallbackHoldsLock, "a callback returns with no spin lock held")                      \
    X(DispatchFlag, "a DISPATCH_LEVEL flag is set only by a caller that is there")         \
    X(NblWritten, "an NBL and its data are written by the driver that holds it")           \
    X(NblRead, "an NBL is read by the driver that holds it")                               \
    X(SourceHandle, "an NBL's SourceHandle is the handle of its originator")               \
    X(OriginatedNblPassedOn, "a filter frees its own NBLs and does not pass them on")      \
    X(NblNotOwned, "an NBL is passed on by the driver that holds it, and once")            \
    X(NblDirection, "a sent NBL is completed, an indicated one returned")                  \
    X(NblNetBuffers, "an NBL goes back with its NET_BUFFERs in their order")               \
    X(NblData, "an NBL goes back with its data unchanged")                                 \
    X(NblDataLocation, "a NET_BUFFER goes back with its offset, length and MDLs")          \
    X(NblOutOfBand, "an NBL keeps its out-of-band data; a completer answers")              \
    X(NblFlags, "an NBL keeps its flags, its parent and its child count")                  \
    X(NblStatus, "an NBL's Status is set by whoever completes it")                         \
    X(NblReserved, "reserved fields belong to the layer they are named after")             \
    X(MdlInUse, "an MDL is freed when no outstanding NBL has it")                          \
    X(NblLost, "every NBL is completed or returned to its owner")                          \
    X(ResourcesNblKept, "an NBL indicated with the resources flag is not kept")            \
    X(ResourcesChain, "a chain indicated with the resources flag is left complete")        \
    X(ResourcesNblReturned, "an NBL indicated with the resources flag is not returned")    \
    X(ResourcesFlagDropped, "the resources flag is passed on with the NBLs")               \
    X(NblCount, "NumberOfNetBufferLists is the length of the chain")                       \
    X(NblChainEmpty, "a chain that is handed on has at least one NBL")                     \
    X(PauseOutstanding, "a paused filter has no NBL outstanding and keeps none")           \
    X(PauseFailed, "pause does not fail")                                                  \
    X(PauseTooLong, "pause and restart end within 10 seconds")                             \
    X(PnpCompletion, "a pause or restart is completed once, when it is pending")           \
    X(OriginatedWhilePaused, "a paused filter originates nothing")                         \
    X(AttachAttributes, "a filter that attaches sets its attributes, reserved ones to 0")  \
    X(AttachLeftBehind, "a failed attach leaves nothing behind")                           \
    X(DeregisteredElsewhere, "a filter driver is deregistered from its unload routine")    \
    X(CancelNotForwarded, "a cancel request is passed down")                               \
    X(ContextSize, "an NBL context's size is a multiple of MEMORY_ALLOCATION_ALIGNMENT")   \
    X(ContextLeft, "an NBL goes back without contexts of others on it")                    \
    X(ContextNotOnTop, "only the context on top is freed, with its own size")              \
    X(NblPoolParameters, "an NBL pool is described by its header and a pool tag")          \
    X(ContextOverrun, "nothing is written outside a context area")                         \
    X(NblBounds, "a NET_BUFFER frame lies in the MDL chain that it is made from")          \
    X(NblPoolInUse, "an NBL pool is freed when all its NBLs are freed")                    \
    X(FreedNblUsed, "a freed NBL is not used")                                             \
    X(WorkItemQueued, "a work item is not freed while it is queued, nor queued twice")     \
    X(TimerUninitialised, "a timer is initialised before it is set or cancelled")          \
    X(TimerReinitialised, "a timer is not initialised while it is armed")                  \
    X(TimerInFreedMemory, "a timer is not armed in memory that is freed")                  \
    X(PoolZeroSize, "no allocation has size zero")                                         \
    X(PagedPoolLevel, "paged pool is used below DISPATCH_LEVEL only")                      \
    X(PagedPoolTouched, "paged pool is not touched at DISPATCH_LEVEL")                     \
    X(MdlPagedMemory, "NdisAllocateMdl describes memory that is not paged")                \
    X(MdlUnmapped, "an MDL is read where it is mapped, not at its StartVa")                \
    X(PoolOverrun, "nothing is written outside a block")                                   \
    X(PoolDoubleFree, "a block is freed once")                                             \
    X(PoolInvalidPointer, "only what was allocated is freed, by its first byte")           \
    X(PoolWrongTag, "a block is freed with the tag it was allocated with")                 \
    X(PoolUseAfterFree, "a freed block is not written")                                    \
    X(PoolLeak, "every block is freed before the driver is gone")                          \
    X(HandleNotOpen, "a handle is used while it is open, and closed once")                 \
    X(ObjectLeak, "every object is given back before the driver is gone")                  \
    X(LockForm, "the at-DPC lock forms are used in pairs, at DISPATCH_LEVEL")              \
    X(LockRecursion, "a spin lock is not acquired again by its owner")                     \
    X(LockOwner, "a spin lock is released by its owner")                                   \
    X(LockUninitialised, "a spin lock is initialised before it is used")                   \
    X(LockReinitialised, "a spin lock is not initialised while it is held")                \
    X(LockOverwritten, "nobody writes a spin lock's word while it is held")                \
    X(LockInFreedMemory, "memory with a held spin lock in it is not freed")                \
    X(LockOrder, "spin locks are acquired in one order throughout")                        \
    X(WaitLevel, "a wait that may block runs below DISPATCH_LEVEL with no spin lock held") \
    X(EventWaitLevel, "KeSetEvent with Wait runs below DISPATCH_LEVEL")                    \
    X(EventUninitialised, "an event is initialised before it is used")                     \
    X(KernelStack, "the drivers' calls on a thread use at most 24 KiB of stack")           \
    X(ModuleFreedInUse, "a module's context lives until no call is inside")                \
    X(RoutineOutlivesDriver, "no routine of a driver runs or is queued when it is gone")   \
    X(HookMarkCompleted, "a hook completes each of its marks once, and nothing else")      \
    X(HookMarkLeft, "a hook completes its marks before it detaches itself or is gone")     \
    X(HookMarkVoid, "a hook completes no mark once its DetachNotify has returned")         \
    X(HookPendingUnmarked, "a handler answers PENDING for a frame that it has marked")     \
    X(HookNirpUse, "a NIRP is used while its handler runs or a mark on it is open")        \
    X(HookNotification, "a notification makes only the calls that are allowed in it")      \
    X(HookHandlerDeregisters, "a handler does not deregister its own hook")                \
    X(HookLeft, "a hook is deregistered before its driver or NETSIEVE is gone")            \
    X(HookFramePaged, "a frame to be sent is resident memory")                             \
    X(Hang, "a wait makes progress")                                                       \
    X(Deadlock, "the machine can always go on")

enum class Rule : std::uint8_t {
#define NETSIEVE_RULE_ENUM(name, text) k##name,
    NETSIEVE_RULES(NETSIEVE_RULE_ENUM)
#undef NETSIEVE_RULE_ENUM
        kCount
};

/// The rule's name as reports print it: "LockOrder".
const char* RuleName(Rule rule);
/// What the platform demands.
const char* RuleText(Rule rule);

}  // namespace netsieve::host
