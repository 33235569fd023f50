// Small models of what the searches meet by chance, with one frame and one record: every schedule
// up to two preemptions.
#include <atomic>

#include "tests/driver/model.h"
#include "tests/packet/pending_rig.h"

namespace netsieve::host {
namespace {

/// What happens to one frame that a hook takes over.
struct Request {
    int marks = 1;
    bool receive = false;
    bool secondHook = false;  ///< marks while the first hook's mark is being completed
    bool restore = false;     ///< the frame's NBL comes back
    bool pause = false;
    bool markInside = false;  ///< the frame is on its way while the rest happens
};

std::string RunRequest(Machine& machine, ScheduleTree& tree, const Request& request) {
    Model model(machine, tree);
    FILTER_MODULE* const module = DriverModuleOf(machine, model.stack);
    const ULONG records = FreeRecordsOf(module);
    NblFactory sends(machine, model.stack.protocol().pool());
    NblFactory receives(machine, model.stack.adapter().pool());
    constexpr std::uint8_t kTaken = 1;
    std::atomic<int> arrived = 0;
    int marks = 0;                             // that succeeded
    std::atomic<int> completions = 0;          // that have begun
    std::atomic<int> completedAtArrival = -1;  // of the frame that is taken over
    const auto arrive = [&](PNET_BUFFER_LIST chain) {
        if (chain->FirstNetBuffer != nullptr) {
            ++arrived;
            const bool isTaken = NblFactory::BytesOf(*chain->FirstNetBuffer)[6] == kTaken;
            if (isTaken) {
                completedAtArrival = completions.load();
            }
        }
    };
    model.stack.adapter().onSend = [&](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG) {
        arrive(chain);
    };
    model.stack.protocol().onReceive = [&](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG, ULONG) {
        arrive(chain);
    };
    // Held, the NBL comes back when the model says; deferred, from a DPC or a worker that is
    // ready to run when the moment begins, and so do clones.
    NblQueue& queue =
        request.receive ? model.stack.protocol().queue() : model.stack.adapter().queue();
    queue.SetMode(!request.pause    ? ReleaseMode::kHold
                  : request.restore ? ReleaseMode::kDeferred
                                    : ReleaseMode::kInline);
    std::atomic<NIRP*> taken = nullptr;
    std::atomic<int> marked = 0;
    const auto mark = [&](NIRP* nirp) {
        taken = nirp;
        const bool isMarked = ITarnHKMarkPending(nirp) == STATUS_SUCCESS;
        marked += isMarked ? 1 : 0;
        marks += isMarked ? 1 : 0;
        return isMarked;
    };
    const auto completeNow = [&] {
        ++completions;
        ITarnHKCompleteRequest(taken, 0);
    };
    std::atomic<bool> paused = false;  // before a completion began
    const auto complete = [&](unsigned processor) {
        --marked;
        model.Start(ContextKind::kThread, processor, [&] {
            paused = paused || ReadAcquire(&module->State) == FILTER_STATE_PAUSED;
            completeNow();
        });
    };
    const auto takesOver = [](NIRP* nirp) { return ITarnHKGetBuffer(nirp)[6] == kTaken; };
    {
        TestHook first([&](NIRP* nirp) -> LONG {
            if (!takesOver(nirp)) {
                return HOOK_VERDICT_PASS;
            }
            LONG verdict = HOOK_VERDICT_WITHHOLD;
            for (int i = 0; i < request.marks; ++i) {
                verdict = mark(nirp) ? HOOK_VERDICT_PENDING : verdict;
            }
            if (request.secondHook) {
                complete(1);
            }
            return verdict;
        });
        std::optional<TestHook> second;
        if (request.secondHook) {
            second.emplace(
                [&](NIRP* nirp) -> LONG {
                    if (takesOver(nirp)) {
                        mark(nirp);
                    }
                    return HOOK_VERDICT_PASS;
                },
                u"second");
        }
        const Frame frames[] = {MakeFrame(kTaken), MakeFrame(2)};
        const std::span<const std::uint8_t> spans[] = {frames[0], frames[1]};
        PNET_BUFFER_LIST const nbl = request.receive ? receives.Make(spans) : sends.Make(spans);
        const auto pass = [&] {
            if (request.receive) {
                if (!model.stack.adapter().Indicate(nbl)) {
                    receives.Free(nbl);
                }
            } else {
                model.stack.protocol().Send(nbl);
            }
        };
        if (!request.markInside) {
            pass();
        }
        model.Explore([&] {
            if (request.pause) {
                model.Start(ContextKind::kThread, 2, [&] { model.stack.Pause(); });
            }
            if (request.restore && !request.pause) {
                model.Start(ContextKind::kThread, 2, [&] { queue.ReleaseAll(); });
            }
            if (request.markInside) {
                pass();
            } else {
                for (int i = 0; i < request.marks; ++i) {
                    complete(static_cast<unsigned>(i));
                }
            }
        });
        for (; marked > 0; --marked) {
            completeNow();
        }
        queue.SetMode(ReleaseMode::kInline);
        queue.ReleaseAll();
        if (FreeRecordsOf(module) != records || module->FreeNirpCount != records) {
            model.wrong =
                fmt::format("{} of {} records are in the pool", FreeRecordsOf(module), records);
        }
    }
    machine.UnloadDriver("NETSIEVE");
    // The frame that nobody takes over, and the other one unless a pause drops it.
    if (arrived > (paused ? 1 : 2) || (arrived < 2 && !request.pause)) {
        model.wrong += fmt::format("{} of 2 frames arrived", arrived.load());
    }
    if (completedAtArrival >= 0 && completedAtArrival != marks) {
        model.wrong += fmt::format("the frame left after {} of {} completions",
                                   completedAtArrival.load(), marks);
    }
    return model.wrong;
}

/// Says when a frame arrived another number of times than once.
std::string EachOnce(const std::vector<Frame>& arrived, std::span<const Frame> frames) {
    std::string wrong;
    for (const Frame& frame : frames) {
        const auto times = std::count(arrived.begin(), arrived.end(), frame);
        wrong += times == 1 ? "" : fmt::format("frame {} arrived {} times. ", frame[6], times);
    }
    return wrong;
}

/// A mark from outside the handler, while the NIRP goes on from its frame to the next one: it takes
/// over the one or the other whole, or is refused. `refused`: it always is, since there is no NBL
/// to be had for the clone.
std::string RunLateMark(Machine& machine, ScheduleTree& tree, bool refused) {
    Model model(machine, tree);
    Scene scene(machine, model.stack);
    const Frame frames[] = {MakeFrame(1), MakeFrame(2, 200)};
    {
        TestHook hook([&](NIRP* nirp) -> LONG {
            if (ITarnHKGetBuffer(nirp)[6] == 1) {
                model.Start(ContextKind::kThread, 1, [nirp] {
                    if (ITarnHKMarkPending(nirp) == STATUS_SUCCESS) {
                        ITarnHKCompleteRequest(nirp, 0);
                    }
                });
            } else {
                model.JoinAll();
            }
            return HOOK_VERDICT_PASS;
        });
        if (refused) {
            machine.faults().Arm({.kind = FaultKind::kNbl, .nth = 1, .persistent = true});
        }
        model.Explore([&] { scene.Pass(true, {frames[0], frames[1]}); });
        machine.faults().Disarm();
    }
    machine.UnloadDriver("NETSIEVE");
    return EachOnce(scene.wire, frames);
}

/// A request is completed once more than it was marked, while its NIRP carries a frame in the other
/// direction that is pending too. Every other NIRP is kept by frames that are withheld. `waits`:
/// the second frame stays pending until the completions have ended.
std::string RunSecondCompletion(Machine& machine, ScheduleTree& tree, bool waits) {
    Model model(machine, tree);
    Scene scene(machine, model.stack);
    constexpr std::uint8_t kSent = 1, kReceived = 2, kWithheld = 3, kPassed = 4;
    NIRP* taken = nullptr;
    {
        TestHook hook([&](NIRP* nirp) -> LONG {
            switch (ITarnHKGetBuffer(nirp)[6]) {
                case kSent:
                    taken = nirp;
                    return ITarnHKMarkPending(nirp) == STATUS_SUCCESS ? HOOK_VERDICT_PENDING
                                                                      : HOOK_VERDICT_WITHHOLD;
                case kReceived:
                    if (ITarnHKMarkPending(nirp) != STATUS_SUCCESS) {
                        return HOOK_VERDICT_PASS;  // no NIRP is left for the clone
                    }
                    if (waits) {
                        model.JoinAll();
                    }
                    ITarnHKCompleteRequest(nirp, 0);
                    return HOOK_VERDICT_PENDING;
                case kWithheld:
                    return HOOK_VERDICT_WITHHOLD;
                default:
                    return HOOK_VERDICT_PASS;
            }
        });
        // Two NIRPs are left: the request's, and its clone's.
        model.stack.adapter().queue().SetMode(ReleaseMode::kHold);
        std::vector<Frame> others(scene.records - 2, MakeFrame(kWithheld));
        others.push_back(MakeFrame(kPassed));
        scene.Pass(true, others);
        model.stack.adapter().queue().SetMode(ReleaseMode::kInline);
        scene.Pass(true, {MakeFrame(kSent)});
        model.Explore([&] {
            model.Start(ContextKind::kThread, 1, [&] { ITarnHKCompleteRequest(taken, 0); });
            ITarnHKCompleteRequest(taken, 0);
            scene.Pass(false, {MakeFrame(kReceived)});
        });
        model.stack.adapter().queue().ReleaseAll();
    }
    machine.UnloadDriver("NETSIEVE");
    const Frame down[] = {MakeFrame(kSent), MakeFrame(kPassed)};
    const Frame up[] = {MakeFrame(kReceived)};
    const bool elsewhere = scene.wire.size() > 2 || scene.up.size() > 1;
    return EachOnce(scene.wire, down) + EachOnce(scene.up, up) + (elsewhere ? "wrong way" : "");
}

enum class Against { kPause, kDetach, kUnload };

/// A frame is injected while the adapter is paused, detached or the driver unloaded, or has been
/// left to a worker by then.
std::string RunInjection(Machine& machine, ScheduleTree& tree, Against against, ContextKind kind) {
    Model model(machine, tree);
    model.stack.adapter().queue().SetMode(ReleaseMode::kDeferred);
    int sent = 0;
    model.stack.adapter().onSend = [&](PNET_BUFFER_LIST, NDIS_PORT_NUMBER, ULONG) { ++sent; };
    const auto inject = [] { Inject(FromAdapter(1)); };
    const bool worker = kind == ContextKind::kWorker;
    if (worker) {
        model.Start(ContextKind::kDpc, 1, inject);
        model.JoinAll();
    }
    model.Explore([&] {
        if (!worker) {
            model.Start(kind, 1, inject);
        }
        switch (against) {
            case Against::kPause:
                model.stack.Pause();
                break;
            case Against::kDetach:
                model.stack.Detach(model.Filter());
                break;
            case Against::kUnload:
                machine.UnloadDriver("NETSIEVE");
                break;
        }
    });
    machine.UnloadDriver("NETSIEVE");
    return sent > 1 ? "the frame was sent twice" : "";
}

/// `run` with `settings` behind the machine and the tree.
template <typename Run, typename... Settings>
auto With(Run run, Settings... settings) {
    return [=](Machine& machine, ScheduleTree& tree) { return run(machine, tree, settings...); };
}

// Five contexts that meet all at once have too many schedules of two preemptions.
constexpr bool kUnwatched = false;  // the hook breaks its rules on purpose
const ModelCase kModels[] = {
    {"completion against restore", 2, With(RunRequest, Request{.restore = true})},
    {"receive completion against restore", 2,
     With(RunRequest, Request{.receive = true, .restore = true})},
    {"completion against flush", 2, With(RunRequest, Request{.pause = true})},
    {"receive completion against flush", 2,
     With(RunRequest, Request{.receive = true, .pause = true})},
    {"completion against restore and flush", 1,
     With(RunRequest, Request{.restore = true, .pause = true})},
    {"two completions against restore", 2, With(RunRequest, Request{.marks = 2, .restore = true})},
    {"second mark against first completion", 2,
     With(RunRequest, Request{.secondHook = true, .markInside = true})},
    {"mark against pause", 2, With(RunRequest, Request{.pause = true, .markInside = true})},
    {"late mark against the next frame", 2, With(RunLateMark, false), kUnwatched},
    {"late mark that is refused", 3, With(RunLateMark, true), kUnwatched},
    {"second completion against the other direction", 2, With(RunSecondCompletion, false),
     kUnwatched},
    {"second completion against a pending frame", 2, With(RunSecondCompletion, true), kUnwatched},
    {"injection against pause", 2, With(RunInjection, Against::kPause, ContextKind::kThread)},
    {"injection against detach", 2, With(RunInjection, Against::kDetach, ContextKind::kThread)},
#if !defined(NETSIEVE_TEST_IMAGE)  // there is no export to call once the image has gone
    {"injection raised against unload", 2, With(RunInjection, Against::kUnload, ContextKind::kDpc)},
#endif
    {"work item against pause", 2, With(RunInjection, Against::kPause, ContextKind::kWorker)},
    {"work item against detach", 2, With(RunInjection, Against::kDetach, ContextKind::kWorker)},
    {"work item against unload", 2, With(RunInjection, Against::kUnload, ContextKind::kWorker)},
};

class PendingModels : public testing::TestWithParam<ModelCase> {};

TEST_P(PendingModels, EveryScheduleIsGood) {
    RunCase(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Models, PendingModels, testing::ValuesIn(kModels));

}  // namespace
}  // namespace netsieve::host
