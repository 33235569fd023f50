#include <utility>

#include "host/ndis/other_filter.h"
#include "tests/verifier/breakers.h"

namespace netsieve::host {

namespace {

constexpr ULONG kResources = NDIS_RECEIVE_FLAGS_RESOURCES;

UCHAR& FirstByte(PNET_BUFFER_LIST nbl) {
    const NET_BUFFER& buffer = *nbl->FirstNetBuffer;
    return static_cast<UCHAR*>(buffer.CurrentMdl->MappedSystemVa)[buffer.CurrentMdlOffset];
}

void SendOn(Scene& scene, PNET_BUFFER_LIST chain, ULONG flags = 0) {
    NdisFSendNetBufferLists(scene.filter.handle, chain, 0, flags);
}

void CompleteOn(Scene& scene, PNET_BUFFER_LIST chain) {
    NdisFSendNetBufferListsComplete(scene.filter.handle, chain, 0);
}

void IndicateOn(Scene& scene, PNET_BUFFER_LIST chain, ULONG count, ULONG flags) {
    NdisFIndicateReceiveNetBufferLists(scene.filter.handle, chain, 0, count, flags);
}

/// What breaks a rule when the filter meets an NBL that is sent, in place of passing it on.
std::function<void(Scene&)> OnSend(std::function<void(Scene&, PNET_BUFFER_LIST)> handler) {
    return [handler = std::move(handler)](Scene& scene) {
        scene.filter.send = [&](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG) {
            handler(scene, chain);
        };
        scene.Start();
        scene.Send();
    };
}

std::function<void(Scene&)> OnSendComplete(std::function<void(Scene&, PNET_BUFFER_LIST)> handler) {
    return [handler = std::move(handler)](Scene& scene) {
        scene.filter.sendComplete = [&](PNET_BUFFER_LIST chain, ULONG) { handler(scene, chain); };
        scene.Start();
        scene.Send();
    };
}

/// The same for two NBLs that are indicated with the resources flag.
std::function<void(Scene&)> OnResourcesReceive(
    std::function<void(Scene&, PNET_BUFFER_LIST)> handler) {
    return [handler = std::move(handler)](Scene& scene) {
        scene.filter.receive = [&](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG, ULONG) {
            handler(scene, chain);
        };
        scene.Start();
        scene.Receive(kResources, 2);
    };
}

/// Starts with an NBL of the filter's own, which its send-complete handler keeps to itself.
void StartWithOwn(Scene& scene) {
    scene.filter.sendComplete = [](PNET_BUFFER_LIST, ULONG) {};
    scene.Start();
    scene.MakeOwn();
}

void WriteWhileGivenAway(Scene& scene) {
    scene.filter.sendComplete = [&](PNET_BUFFER_LIST chain, ULONG) {
        FirstByte(chain) ^= 1;
        CompleteOn(scene, chain);
    };
    scene.Start();
    scene.stack->adapter().queue().SetMode(ReleaseMode::kHold);
    scene.stack->adapter().onSend = [&](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG) {
        scene.kept = chain;
    };
    scene.Send();
    FirstByte(scene.kept) ^= 1;
    scene.stack->adapter().queue().ReleaseAll();
}

void ReturnWithDispatchFlag(Scene& scene) {
    scene.filter.returned = [&](PNET_BUFFER_LIST chain, ULONG) {
        NdisFReturnNetBufferLists(scene.filter.handle, chain, NDIS_RETURN_FLAGS_DISPATCH_LEVEL);
    };
    scene.Start();
    scene.Receive();
}

/// What the adapter completes does not come back to the filter.
void HideCompletions(Scene& scene) {
    scene.filter.describe = [](NDIS_FILTER_DRIVER_CHARACTERISTICS& handlers) {
        handlers.SendNetBufferListsCompleteHandler = nullptr;
    };
}

/// Another NBL from the pool of the filter's own.
PNET_BUFFER_LIST OneMore(Scene& scene, USHORT contextSize = 0) {
    return NdisAllocateNetBufferAndNetBufferList(scene.own->NdisPoolHandle, contextSize, 0, nullptr,
                                                 0, 0);
}

/// The filter passes on another filter's context with other bytes in it.
void ChangeContextOfOther(Scene& scene) {
    scene.filter.sendComplete = [&](PNET_BUFFER_LIST chain, ULONG) {
        constexpr std::size_t kNblOfMark = 16;
        NET_BUFFER_LIST_CONTEXT* const block = chain->Context;
        reinterpret_cast<UCHAR*>(block + 1)[block->Offset + kNblOfMark] ^= 1;
        CompleteOn(scene, chain);
    };
    scene.Start();
    scene.machine.LoadDriver(OtherFilter(true));
    scene.Send();
    scene.machine.UnloadDriver("OTHERUP");
}

void FreeContextOfOther(Scene& scene) {
    scene.filter.sendComplete = [&](PNET_BUFFER_LIST chain, ULONG) {
        NdisFreeNetBufferListContext(chain, 32);
        CompleteOn(scene, chain);
    };
    scene.Start();
    scene.machine.LoadDriver(OtherFilter(true));
    scene.Send();
    scene.machine.UnloadDriver("OTHERUP");
}

/// The protocol still has what was indicated to it when the filter's own call returns.
void IndicateFromAnotherThread(Scene& scene) {
    static KEVENT inside;
    static KEVENT go;
    KeInitializeEvent(&inside, NotificationEvent, FALSE);
    KeInitializeEvent(&go, NotificationEvent, FALSE);
    const auto wait = [](KEVENT& event) {
        KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
    };
    Scheduler& scheduler = scene.machine.scheduler();
    std::uint32_t other = 0;
    scene.filter.receive = [&](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG count, ULONG) {
        other = scheduler.Start({.name = "other", .processor = 1},
                                [&, chain, count] { IndicateOn(scene, chain, count, kResources); });
        wait(inside);
    };
    scene.Start();
    scene.stack->protocol().onReceive = [&](PNET_BUFFER_LIST, NDIS_PORT_NUMBER, ULONG, ULONG) {
        KeSetEvent(&inside, 0, FALSE);
        wait(go);
    };
    scene.Receive(kResources);
    KeSetEvent(&go, 0, FALSE);
    scheduler.Join(other);
}

/// The tracker is told of a driver between two stacks that takes, and ends, what is not its own.
void TakeWhatIsNotHeld(Scene& scene) {
    StartWithOwn(scene);
    NblTracker& tracker = scene.machine.ndis().nblPools().tracker();
    Component& adapter = scene.stack->adapter().component();
    tracker.TakeOwnership(scene.own, adapter, adapter);
    tracker.RestoreOwnership(scene.own);
}

void RestoreWhatIsOut(Scene& scene) {
    scene.stack = &scene.machine.ndis().AddAdapter();
    NblFactory nbls(scene.machine, scene.stack->protocol().pool());
    NblTracker& tracker = scene.machine.ndis().nblPools().tracker();
    Component& protocol = scene.stack->protocol().component();
    const std::uint8_t frame[60] = {};
    PNET_BUFFER_LIST const nbl = nbls.Make(frame);
    tracker.TakeOwnership(nbl, protocol, protocol);
    scene.stack->adapter().onSend = [&](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG) {
        tracker.RestoreOwnership(chain);
    };
    scene.stack->protocol().Send(nbl);
    nbls.Free(nbl);
}

void SwapBuffers(PNET_BUFFER_LIST nbl) {
    PNET_BUFFER const first = nbl->FirstNetBuffer;
    nbl->FirstNetBuffer = std::exchange(first->Next, nullptr);
    nbl->FirstNetBuffer->Next = first;
}

void KeepResourcesNbls(Scene& scene) {
    OnResourcesReceive([](Scene& inside, PNET_BUFFER_LIST chain) { inside.kept = chain; })(scene);
    IndicateOn(scene, scene.kept, 2, 0);
}

void DetachUnderCall(Scene& scene) {
    scene.Start();
    scene.stack->adapter().onSend = [&](PNET_BUFFER_LIST, NDIS_PORT_NUMBER, ULONG) {
        scene.stack->DetachUnderCalls(*scene.stack->modules().front());
    };
    scene.Send();
}

void LeaveBlockBehindFailedAttach(Scene& scene) {
    static PVOID block = nullptr;
    scene.filter.attach = [] {
        NdisAllocateMemoryWithTag(&block, 16, SmallFilter::kTag);
        return NDIS_STATUS_FAILURE;
    };
    scene.filter.unload = [] { NdisFreeMemory(block, 0, 0); };
    scene.Start();
}

void LeaveMdlBehindFailedAttach(Scene& scene) {
    static UCHAR bytes[16];
    static PMDL mdl = nullptr;
    scene.filter.attach = [&scene] {
        mdl = NdisAllocateMdl(scene.filter.handle, bytes, sizeof(bytes));
        return NDIS_STATUS_FAILURE;
    };
    scene.filter.unload = [] { NdisFreeMdl(mdl); };
    scene.Start();
}

void LeaveTimerBehindFailedAttach(Scene& scene) {
    static NDIS_TIMER timer;
    scene.filter.attach = [] {
        NdisInitializeTimer(
            &timer, [](PVOID, PVOID, PVOID, PVOID) NTAPI {}, nullptr);
        NdisSetTimer(&timer, 1000);
        return NDIS_STATUS_FAILURE;
    };
    scene.filter.unload = [] {
        BOOLEAN cancelled = FALSE;
        NdisCancelTimer(&timer, &cancelled);
    };
    scene.Start();
}

void LeavePoolBehindFailedAttach(Scene& scene) {
    static NDIS_HANDLE pool = nullptr;
    scene.filter.attach = [&scene] {
        NET_BUFFER_LIST_POOL_PARAMETERS parameters = PoolParameters();
        pool = NdisAllocateNetBufferListPool(scene.filter.handle, &parameters);
        return NDIS_STATUS_FAILURE;
    };
    scene.filter.unload = [] { NdisFreeNetBufferListPool(pool); };
    scene.Start();
}

NDIS_STATUS WaitElevenSeconds() {
    KEVENT never;
    KeInitializeEvent(&never, NotificationEvent, FALSE);
    LARGE_INTEGER due;
    due.QuadPart = -11 * kTicksPerSecond;
    KeWaitForSingleObject(&never, Executive, KernelMode, FALSE, &due);
    return NDIS_STATUS_SUCCESS;
}

/// A filter that completes a large send, asked for with `request`, and answers wrongly.
Breaker WrongAnswer(const char* how, ULONG request, ULONG answer) {
    const auto value = [](ULONG word) { return reinterpret_cast<PVOID>(std::uintptr_t{word}); };
    return {Rule::kNblOutOfBand, how, [=](Scene& scene) {
                scene.largeSend = value(request);
                OnSend([=](Scene& inside, PNET_BUFFER_LIST chain) {
                    NET_BUFFER_LIST_INFO(chain, TcpLargeSendNetBufferListInfo) = value(answer);
                    CompleteOn(inside, chain);
                })(scene);
            }};
}

std::vector<Breaker> HandOverBreakers() {
    return {
        {Rule::kDispatchFlag, "flag set at PASSIVE_LEVEL",
         OnSend([](Scene& scene, PNET_BUFFER_LIST chain) {
             SendOn(scene, chain, NDIS_SEND_FLAGS_DISPATCH_LEVEL);
         }),
         false, 0, "send by SMALL on adapter 1 with the flag set"},
        {Rule::kDispatchFlag, "a completion with the flag set at PASSIVE_LEVEL",
         OnSend([](Scene& scene, PNET_BUFFER_LIST chain) {
             NdisFSendNetBufferListsComplete(scene.filter.handle, chain,
                                             NDIS_SEND_COMPLETE_FLAGS_DISPATCH_LEVEL);
         })},
        {Rule::kDispatchFlag, "an indication with the flag set at PASSIVE_LEVEL",
         OnResourcesReceive([](Scene& scene, PNET_BUFFER_LIST chain) {
             IndicateOn(scene, chain, 2, kResources | NDIS_RECEIVE_FLAGS_DISPATCH_LEVEL);
         })},
        {Rule::kDispatchFlag, "a return with the flag set at PASSIVE_LEVEL",
         &ReturnWithDispatchFlag},
        {Rule::kNblWritten, "written after it was sent on", &WriteWhileGivenAway, true},
        {Rule::kNblWritten, "written while the adapter has it",
         [](Scene& scene) {
             scene.Start();
             scene.stack->adapter().onSend = [](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG) {
                 FirstByte(chain) ^= 1;
             };
             scene.Send();
         }},
        {Rule::kNblData, "changed by a filter that does not see its completion",
         [](Scene& scene) {
             HideCompletions(scene);
             OnSend([](Scene& inside, PNET_BUFFER_LIST chain) {
                 FirstByte(chain) ^= 1;
                 SendOn(inside, chain);
             })(scene);
         }},
        {Rule::kFreedNblUsed, "the information of a freed NBL is copied",
         [](Scene& scene) {
             StartWithOwn(scene);
             PNET_BUFFER_LIST const own = scene.own;
             PNET_BUFFER_LIST const freed = OneMore(scene);
             NdisFreeNetBufferList(freed);
             NdisCopySendNetBufferListInfo(own, freed);
         },
         true},
        {Rule::kNblRead, "its information is copied after it was sent on",
         OnSend([](Scene& scene, PNET_BUFFER_LIST chain) {
             PNET_BUFFER_LIST const own = scene.MakeOwn();
             scene.stack->adapter().queue().SetMode(ReleaseMode::kHold);
             SendOn(scene, chain);
             NdisCopySendNetBufferListInfo(own, chain);
             scene.FreeOwn();
         }),
         true},
        {Rule::kSourceHandle, "an NBL of another's with the filter's handle",
         OnSend([](Scene& scene, PNET_BUFFER_LIST chain) {
             chain->SourceHandle = scene.filter.handle;
             SendOn(scene, chain);
         })},
        {Rule::kSourceHandle, "an own NBL without it",
         [](Scene& scene) {
             StartWithOwn(scene);
             scene.own->SourceHandle = nullptr;
             SendOn(scene, scene.own);
         }},
        {Rule::kOriginatedNblPassedOn, "an own NBL is completed to the drivers above",
         [](Scene& scene) {
             scene.Start();
             SendOn(scene, scene.MakeOwn());
         }},
        {Rule::kOriginatedNblPassedOn, "an own NBL's completion passes the filter by",
         [](Scene& scene) {
             HideCompletions(scene);
             scene.Start();
             SendOn(scene, scene.MakeOwn());
         }},
        {Rule::kNblNotOwned, "completed twice",
         OnSendComplete([](Scene& scene, PNET_BUFFER_LIST chain) {
             CompleteOn(scene, chain);
             CompleteOn(scene, chain);
         })},
        {Rule::kNblNotOwned, "freed while the adapter has it",
         [](Scene& scene) {
             StartWithOwn(scene);
             scene.stack->adapter().queue().SetMode(ReleaseMode::kHold);
             SendOn(scene, scene.own);
             NdisFreeNetBufferList(scene.own);
             scene.stack->adapter().queue().ReleaseAll();
         }},
        {Rule::kNblNotOwned, "taken over by a driver that does not hold it", &TakeWhatIsNotHeld},
        {Rule::kNblNotOwned, "given back by the driver between two stacks while it is out",
         &RestoreWhatIsOut, false, 2},
        {Rule::kNblDirection, "a sent NBL is returned",
         OnSend([](Scene& scene, PNET_BUFFER_LIST chain) {
             NdisFReturnNetBufferLists(scene.filter.handle, chain, 0);
             SendOn(scene, chain);
         })},
        WrongAnswer("no large send was asked for", 0, 1),
        WrongAnswer("a large send of the other version", 1 << 30 | 1460, 1460),
        WrongAnswer("the request is left in a large send", 1 << 30 | 1460, 1 << 30 | 1461),
        {Rule::kMdlInUse, "the MDL of an NBL is freed while it is out",
         [](Scene& scene) {
             StartWithOwn(scene);
             scene.stack->adapter().queue().SetMode(ReleaseMode::kHold);
             SendOn(scene, scene.own);
             scene.FreeOwnMdl();
             scene.stack->adapter().queue().ReleaseAll();
         }},
        {Rule::kNblLost, "a completion that comes after the pause ends here",
         [](Scene& scene) {
             scene.filter.sendComplete = [](PNET_BUFFER_LIST, ULONG) {};
             scene.Start();
             scene.stack->adapter().queue().SetMode(ReleaseMode::kHold);
             scene.Send();
         },
         false, 3},
        {Rule::kNblPoolParameters, "a pool is asked for without a header",
         [](Scene& scene) {
             scene.Start();
             NET_BUFFER_LIST_POOL_PARAMETERS parameters = PoolParameters();
             parameters.Header = {};
             NdisAllocateNetBufferListPool(scene.filter.handle, &parameters);
         }},
        {Rule::kNblPoolParameters, "a pool is asked for with half a header",
         [](Scene& scene) {
             scene.Start();
             NET_BUFFER_LIST_POOL_PARAMETERS parameters = PoolParameters();
             parameters.Header.Size = sizeof(parameters.Header);
             NdisAllocateNetBufferListPool(scene.filter.handle, &parameters);
         }},
        {Rule::kNblPoolParameters, "a pool is asked for without a tag",
         [](Scene& scene) {
             scene.Start();
             NET_BUFFER_LIST_POOL_PARAMETERS parameters = PoolParameters();
             parameters.PoolTag = 0;
             NdisAllocateNetBufferListPool(scene.filter.handle, &parameters);
         }},
        {Rule::kNblBounds, "an NBL for more bytes than its MDL has",
         [](Scene& scene) {
             scene.Start();
             NET_BUFFER_LIST_POOL_PARAMETERS parameters = PoolParameters();
             NDIS_HANDLE const pool =
                 NdisAllocateNetBufferListPool(scene.filter.handle, &parameters);
             static UCHAR bytes[16];
             PMDL const mdl = NdisAllocateMdl(scene.filter.handle, bytes, sizeof(bytes));
             NdisAllocateNetBufferAndNetBufferList(pool, 0, 0, mdl, 8, 9);
             NdisFreeMdl(mdl);
             NdisFreeNetBufferListPool(pool);
         }},
        {Rule::kNblChainEmpty, "an empty chain is sent",
         [](Scene& scene) {
             scene.Start();
             SendOn(scene, nullptr);
         }},
        {Rule::kNblChainEmpty, "an empty chain is completed",
         [](Scene& scene) {
             scene.Start();
             CompleteOn(scene, nullptr);
         }},
        {Rule::kNblChainEmpty, "an empty chain is indicated",
         [](Scene& scene) {
             scene.Start();
             IndicateOn(scene, nullptr, 0, 0);
         }},
        {Rule::kNblChainEmpty, "an empty chain is returned",
         [](Scene& scene) {
             scene.Start();
             NdisFReturnNetBufferLists(scene.filter.handle, nullptr, 0);
         }},
        {Rule::kNblCount, "one NBL too many",
         OnResourcesReceive([](Scene& scene, PNET_BUFFER_LIST chain) {
             IndicateOn(scene, chain, 3, kResources);
         })},
        {Rule::kResourcesNblKept, "indicated after the call", &KeepResourcesNbls},
        {Rule::kResourcesNblKept, "with the protocol when the call returns",
         &IndicateFromAnotherThread},
        {Rule::kResourcesChain, "the second NBL is gone from the chain",
         OnResourcesReceive([](Scene&, PNET_BUFFER_LIST chain) { chain->Next = nullptr; })},
        {Rule::kResourcesNblReturned, "returned during the call",
         OnResourcesReceive([](Scene& scene, PNET_BUFFER_LIST chain) {
             NdisFReturnNetBufferLists(scene.filter.handle, chain, 0);
         })},
        {Rule::kResourcesFlagDropped, "passed up without the flag",
         OnResourcesReceive(
             [](Scene& scene, PNET_BUFFER_LIST chain) { IndicateOn(scene, chain, 2, 0); })},
    };
}

std::vector<Breaker> ModuleBreakers() {
    return {
        {Rule::kCallbackIrql, "a handler returns at DISPATCH_LEVEL",
         OnSend([](Scene& scene, PNET_BUFFER_LIST chain) {
             SendOn(scene, chain);
             scene.machine.scheduler().SetIrql(DISPATCH_LEVEL);
         })},
        {Rule::kCallbackHoldsLock, "a handler returns with a lock",
         OnSend([](Scene& scene, PNET_BUFFER_LIST chain) {
             static KSPIN_LOCK lock;
             SendOn(scene, chain);
             KeInitializeSpinLock(&lock);
             KeAcquireSpinLockRaiseToDpc(&lock);
         })},
        {Rule::kPauseOutstanding, "an own NBL is outstanding when pause returns",
         [](Scene& scene) {
             StartWithOwn(scene);
             scene.stack->adapter().queue().SetMode(ReleaseMode::kHold);
             SendOn(scene, scene.own);
             scene.stack->Pause();
         }},
        {Rule::kPauseFailed, "pause fails",
         [](Scene& scene) {
             scene.filter.pause = [] { return NDIS_STATUS_FAILURE; };
             scene.Start();
         }},
        {Rule::kPauseTooLong, "pause takes 11 s",
         [](Scene& scene) {
             scene.filter.pause = &WaitElevenSeconds;
             scene.Start();
         }},
        {Rule::kPauseTooLong, "a pending pause is not completed",
         [](Scene& scene) {
             scene.filter.pause = [] { return NDIS_STATUS_PENDING; };
             scene.Start();
         }},
        {Rule::kPauseTooLong, "a pending restart is not completed",
         [](Scene& scene) {
             scene.filter.restart = [] { return NDIS_STATUS_PENDING; };
             scene.Start();
         }},
        {Rule::kPnpCompletion, "a pause is completed and succeeds",
         [](Scene& scene) {
             scene.filter.pause = [&scene] {
                 NdisFPauseComplete(scene.filter.handle);
                 return NDIS_STATUS_SUCCESS;
             };
             scene.Start();
         }},
        {Rule::kPnpCompletion, "a restart is completed that nobody waits for",
         [](Scene& scene) {
             scene.Start();
             NdisFRestartComplete(scene.filter.handle, NDIS_STATUS_SUCCESS);
         }},
        {Rule::kAttachAttributes, "attaches without attributes",
         [](Scene& scene) {
             scene.filter.setsAttributes = false;
             scene.Start();
         }},
        {Rule::kAttachAttributes, "attributes with a reserved flag",
         [](Scene& scene) {
             scene.filter.attributeFlags = 0x80;
             scene.Start();
         }},
        {Rule::kOriginatedWhilePaused, "sends an NBL of its own when paused",
         [](Scene& scene) {
             StartWithOwn(scene);
             scene.stack->Pause();
             SendOn(scene, scene.own);
         }},
        {Rule::kAttachLeftBehind, "a failed attach leaves a block", &LeaveBlockBehindFailedAttach},
        {Rule::kAttachLeftBehind, "a failed attach leaves an MDL", &LeaveMdlBehindFailedAttach},
        {Rule::kAttachLeftBehind, "a failed attach leaves a timer armed",
         &LeaveTimerBehindFailedAttach},
        {Rule::kPauseOutstanding, "a send is queued past the pause",
         [](Scene& scene) {
             scene.filter.send = [&](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG) {
                 scene.kept = chain;
             };
             scene.Start();
             scene.Send();
             scene.machine.scheduler().Start({.name = "late"}, [&] {
                 scene.machine.scheduler().Sleep(kTicksPerSecond);
                 CompleteOn(scene, scene.kept);
             });
             scene.stack->Pause();
         }},
        {Rule::kDeregisteredElsewhere, "outside the unload routine",
         [](Scene& scene) {
             scene.filter.deregisters = false;
             scene.Start();
             NdisFDeregisterFilterDriver(scene.filter.registration);
         }},
        {Rule::kCancelNotForwarded, "a cancel request ends here",
         [](Scene& scene) {
             scene.filter.cancel = [](PVOID) {};
             scene.Start();
             scene.stack->protocol().CancelSend(&scene);
         }},
        {Rule::kAttachLeftBehind, "a failed attach leaves an NBL pool",
         &LeavePoolBehindFailedAttach},
        {Rule::kModuleFreedInUse, "detached under a call", &DetachUnderCall},
        {Rule::kModuleFreedInUse, "a call with the handle of a module that is gone",
         [](Scene& scene) {
             scene.Start();
             scene.stack->Detach(*scene.stack->modules().front());
             NdisFIndicateStatus(scene.filter.handle, nullptr);
         }},
    };
}

UCHAR* PushContext(PNET_BUFFER_LIST nbl, USHORT backFill) {
    NdisAllocateNetBufferListContext(nbl, 32, backFill, SmallFilter::kTag);
    return reinterpret_cast<UCHAR*>(nbl->Context + 1) + nbl->Context->Offset;
}

/// A filter that writes the byte at `at` of the upper of its two contexts of 32 bytes. They share a
/// block when the lower one was allocated with enough `backFill`.
Breaker ContextOverrun(const char* how, USHORT backFill, int at) {
    const bool inHead = backFill == 0 && at == -1;
    return {Rule::kContextOverrun, how, OnSend([=](Scene& scene, PNET_BUFFER_LIST chain) {
                PushContext(chain, backFill);
                PushContext(chain, 0)[at] ^= 1;
                NdisFreeNetBufferListContext(chain, 32);
                NdisFreeNetBufferListContext(chain, 32);
                SendOn(scene, chain);
            }),
            !inHead};
}

std::vector<Breaker> ContextAndPoolBreakers() {
    return {
        {Rule::kContextSize, "24 bytes", OnSend([](Scene& scene, PNET_BUFFER_LIST chain) {
             NdisAllocateNetBufferListContext(chain, 24, 0, SmallFilter::kTag);
             NdisFreeNetBufferListContext(chain, 24);
             SendOn(scene, chain);
         })},
        {Rule::kContextLeft, "completed with the filter's context",
         OnSend([](Scene& scene, PNET_BUFFER_LIST chain) {
             NdisAllocateNetBufferListContext(chain, 32, 0, SmallFilter::kTag);
             SendOn(scene, chain);
         }),
         false, 0, "the context on top is not its owner's"},
        {Rule::kContextNotOnTop, "freed with another size",
         OnSend([](Scene& scene, PNET_BUFFER_LIST chain) {
             NdisAllocateNetBufferListContext(chain, 32, 0, SmallFilter::kTag);
             NdisFreeNetBufferListContext(chain, 16);
             NdisFreeNetBufferListContext(chain, 32);
             SendOn(scene, chain);
         })},
        {Rule::kContextNotOnTop, "freed where there is none",
         OnSend([](Scene& scene, PNET_BUFFER_LIST chain) {
             NdisFreeNetBufferListContext(chain, 32);
             SendOn(scene, chain);
         })},
        {Rule::kContextNotOnTop, "another filter's is freed", &FreeContextOfOther},
        {Rule::kContextNotOnTop, "another filter's is changed", &ChangeContextOfOther},
        {Rule::kContextLeft, "freed with a context",
         [](Scene& scene) {
             StartWithOwn(scene);
             PushContext(scene.own, 0);
         }},
        {Rule::kContextOverrun, "behind the context that an NBL was allocated with",
         [](Scene& scene) {
             StartWithOwn(scene);
             PNET_BUFFER_LIST const nbl = OneMore(scene, 32);
             reinterpret_cast<UCHAR*>(nbl->Context + 1)[nbl->Context->Offset + 32] ^= 1;
             NdisFreeNetBufferList(nbl);
         },
         true},
        ContextOverrun("behind a context", 0, 32),
        ContextOverrun("between two contexts of one block", 80, 32),
        ContextOverrun("in the head of a block", 0, -1),
        ContextOverrun("in the unused space of a block", 80, -1),
        ContextOverrun("before the head of a block", 0, -17),
        {Rule::kFreedNblUsed, "a context is written after it was freed",
         OnSend([](Scene& scene, PNET_BUFFER_LIST chain) {
             UCHAR* const context = PushContext(chain, 0);
             NdisFreeNetBufferListContext(chain, 32);
             context[0] = 0;
             SendOn(scene, chain);
         }),
         true},
        {Rule::kNblPoolInUse, "freed with an NBL allocated",
         [](Scene& scene) {
             StartWithOwn(scene);
             NdisFreeNetBufferListPool(scene.own->NdisPoolHandle);
             scene.own->NdisPoolHandle = nullptr;
         }},
        {Rule::kHandleNotOpen, "an NBL from no pool",
         [](Scene&) { NdisAllocateNetBufferAndNetBufferList(nullptr, 0, 0, nullptr, 0, 0); }},
        {Rule::kFreedNblUsed, "freed twice",
         [](Scene& scene) {
             StartWithOwn(scene);
             PNET_BUFFER_LIST const nbl = scene.own;
             scene.FreeOwn();
             NdisFreeNetBufferList(nbl);
         }},
        {Rule::kFreedNblUsed, "a freed NBL is indicated",
         [](Scene& scene) {
             StartWithOwn(scene);
             PNET_BUFFER_LIST const nbl = scene.own;
             scene.FreeOwn();
             IndicateOn(scene, nbl, 1, 0);
         }},
        {Rule::kFreedNblUsed, "written after it was freed",
         [](Scene& scene) {
             StartWithOwn(scene);
             PNET_BUFFER_LIST const nbl = scene.own;
             scene.FreeOwn();
             nbl->Status = NDIS_STATUS_FAILURE;
         },
         true},
    };
}

/// A filter that makes the change when it completes an NBL.
std::vector<Breaker> ChangeBreakers() {
    std::vector<Breaker> all;
    for (const NblChange& change : NblChanges()) {
        all.push_back({change.rule, change.field,
                       OnSendComplete([make = change.make](Scene& scene, PNET_BUFFER_LIST chain) {
                           make(chain);
                           CompleteOn(scene, chain);
                       })});
    }
    return all;
}

}  // namespace

NET_BUFFER_LIST_POOL_PARAMETERS PoolParameters() {
    NET_BUFFER_LIST_POOL_PARAMETERS parameters{};
    parameters.Header = {NDIS_OBJECT_TYPE_DEFAULT, 1, sizeof(parameters)};
    parameters.fAllocateNetBuffer = TRUE;
    parameters.PoolTag = 0x74736574;
    return parameters;
}

std::vector<NblChange> NblChanges() {
    using Nbl = PNET_BUFFER_LIST;
    return {
        {Rule::kNblOutOfBand, "NetBufferListInfo",
         [](Nbl nbl) { NET_BUFFER_LIST_INFO(nbl, NetBufferListCancelId) = nullptr; }},
        {Rule::kNblOutOfBand, "NetBufferListInfo",
         [](Nbl nbl) { nbl->NetBufferListInfo[kNblInfoCount - 1] = nbl; }},
        {Rule::kNblFlags, "NblFlags", [](Nbl nbl) { nbl->NblFlags = 0; }},
        {Rule::kNblFlags, "Flags", [](Nbl nbl) { nbl->Flags = 0; }},
        {Rule::kNblFlags, "ParentNetBufferList", [](Nbl nbl) { nbl->ParentNetBufferList = nbl; }},
        {Rule::kNblFlags, "ChildRefCount", [](Nbl nbl) { ++nbl->ChildRefCount; }},
        {Rule::kNblStatus, "Status", [](Nbl nbl) { nbl->Status ^= 1; }},
        {Rule::kNblReserved, "NdisPoolHandle", [](Nbl nbl) { nbl->NdisPoolHandle = nullptr; }},
        {Rule::kNblReserved, "NdisReserved", [](Nbl nbl) { nbl->NdisReserved[1] = nullptr; }},
        {Rule::kNblReserved, "ProtocolReserved",
         [](Nbl nbl) { nbl->ProtocolReserved[3] = nullptr; }},
        {Rule::kNblReserved, "MiniportReserved",
         [](Nbl nbl) { nbl->MiniportReserved[1] = nullptr; }},
        {Rule::kNblNetBuffers, "the chain of NET_BUFFERs", &SwapBuffers},
        {Rule::kNblNetBuffers, "the chain of NET_BUFFERs",
         [](Nbl nbl) { nbl->FirstNetBuffer->Next = nullptr; }},
        {Rule::kNblNetBuffers, "the chain of NET_BUFFERs",
         [](Nbl nbl) {
             static NET_BUFFER extra;
             extra = *nbl->FirstNetBuffer->Next;
             nbl->FirstNetBuffer->Next->Next = &extra;
         }},
        {Rule::kNblDataLocation, "DataOffset", [](Nbl nbl) { ++nbl->FirstNetBuffer->DataOffset; }},
        {Rule::kNblDataLocation, "DataLength", [](Nbl nbl) { --nbl->FirstNetBuffer->DataLength; }},
        {Rule::kNblDataLocation, "CurrentMdl",
         [](Nbl nbl) { nbl->FirstNetBuffer->CurrentMdl = nullptr; }},
        {Rule::kNblDataLocation, "CurrentMdlOffset",
         [](Nbl nbl) { nbl->FirstNetBuffer->CurrentMdlOffset ^= 1; }},
        {Rule::kNblDataLocation, "MdlChain",
         [](Nbl nbl) { nbl->FirstNetBuffer->MdlChain = nullptr; }},
        {Rule::kNblDataLocation, "ChecksumBias",
         [](Nbl nbl) { ++nbl->FirstNetBuffer->ChecksumBias; }},
        {Rule::kNblDataLocation, "Next",
         [](Nbl nbl) {
             nbl->FirstNetBuffer->MdlChain->Next = nbl->FirstNetBuffer->Next->MdlChain;
         }},
        {Rule::kNblDataLocation, "ByteCount",
         [](Nbl nbl) { --nbl->FirstNetBuffer->MdlChain->ByteCount; }},
        {Rule::kNblReserved, "MiniportReserved",
         [](Nbl nbl) { nbl->FirstNetBuffer->MiniportReserved[3] = nbl; }},
        {Rule::kNblReserved, "ProtocolReserved",
         [](Nbl nbl) { nbl->FirstNetBuffer->Next->ProtocolReserved[5] = nbl; }},
        {Rule::kNblData, "bytes", [](Nbl nbl) { FirstByte(nbl) ^= 1; }},
    };
}

std::vector<Breaker> NblBreakers() {
    std::vector<Breaker> all = ChangeBreakers();
    for (const auto& part : {HandOverBreakers(), ModuleBreakers(), ContextAndPoolBreakers()}) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

void Scene::Start() {
    stack = &machine.ndis().AddAdapter();
    machine.LoadDriver(SmallFilter::Source());
    protocolNbls_ = std::make_unique<NblFactory>(machine, stack->protocol().pool());
    adapterNbls_ = std::make_unique<NblFactory>(machine, stack->adapter().pool());
    const auto collect = [](std::vector<PNET_BUFFER_LIST>& back) {
        return [&back](PNET_BUFFER_LIST chain, ULONG) {
            for (; chain != nullptr; chain = chain->Next) {
                back.push_back(chain);
            }
        };
    };
    stack->protocol().onSendComplete = collect(completed_);
    stack->adapter().onReturned = collect(returned_);
}

namespace {

PNET_BUFFER_LIST MakeChain(NblFactory& nbls, int count) {
    static constexpr std::uint8_t kFrame[60] = {1, 2, 3, 4};
    static constexpr std::span<const std::uint8_t> kFrames[] = {kFrame, kFrame};
    PNET_BUFFER_LIST chain = nullptr;
    for (int i = 0; i < count; ++i) {
        PNET_BUFFER_LIST const nbl = nbls.Make(kFrames);
        nbl->Next = chain;
        chain = nbl;
    }
    return chain;
}

}  // namespace

void Scene::Send(int count) {
    PNET_BUFFER_LIST const chain = MakeChain(*protocolNbls_, count);
    NET_BUFFER_LIST_INFO(chain, TcpLargeSendNetBufferListInfo) = largeSend;
    stack->protocol().Send(chain);
}

void Scene::Receive(ULONG flags, int count) {
    PNET_BUFFER_LIST const chain = MakeChain(*adapterNbls_, count);
    stack->adapter().Indicate(chain, 0, flags);
    for (PNET_BUFFER_LIST nbl = chain; (flags & kResources) != 0 && nbl != nullptr;
         nbl = nbl->Next) {
        returned_.push_back(nbl);
    }
}

void Scene::Finish() {
    if (own != nullptr) {
        FreeOwn();
    }
    machine.UnloadDriver("SMALL");
    for (PNET_BUFFER_LIST nbl : std::exchange(completed_, {})) {
        protocolNbls_->Free(nbl);
    }
    for (PNET_BUFFER_LIST nbl : std::exchange(returned_, {})) {
        adapterNbls_->Free(nbl);
    }
}

PNET_BUFFER_LIST Scene::MakeOwn() {
    NET_BUFFER_LIST_POOL_PARAMETERS parameters = PoolParameters();
    ownPool_ = NdisAllocateNetBufferListPool(filter.handle, &parameters);
    ownMdl_ = NdisAllocateMdl(filter.handle, ownFrame_, sizeof(ownFrame_));
    own = NdisAllocateNetBufferAndNetBufferList(ownPool_, 0, 0, ownMdl_, 0, sizeof(ownFrame_));
    own->SourceHandle = filter.handle;
    return own;
}

void Scene::FreeOwnMdl() {
    if (ownMdl_ != nullptr) {
        NdisFreeMdl(std::exchange(ownMdl_, nullptr));
    }
}

void Scene::FreeOwn() {
    const bool poolIsFreed = own->NdisPoolHandle == nullptr;
    NdisFreeNetBufferList(std::exchange(own, nullptr));
    FreeOwnMdl();
    if (!poolIsFreed) {
        NdisFreeNetBufferListPool(ownPool_);
    }
}

}  // namespace netsieve::host
