#include "tests/packet/generated_scenario.h"

#include <algorithm>
#include <set>

#include "host/ndis/busy_filter.h"

namespace netsieve::host {

namespace {

constexpr std::size_t kHooks = 3;
constexpr std::size_t kHeaderBytes = 3 + kHooks;
constexpr std::size_t kStepBytes = 4;
constexpr std::size_t kFlows = 3;
constexpr std::size_t kNumberAt = 14;  // in a frame

enum class Act : std::uint8_t {
    kNothing,
    kSend,
    kSendAndCancel,
    kIndicate,
    kIndicateResources,
    kComplete,
    kPause,
    kInject,
    kStopHook,
    kSwitchHook,
    kAdapter,
    kCount
};
const char* const kActNames[] = {
    "do nothing",    "send",          "send and cancel", "indicate",      "indicate with resources",
    "complete held", "pause,restart", "inject",          "stop the hook", "switch the hook",
    "come and go",
};

/// What a hook does with the frames that are its own.
enum class Way : std::uint8_t { kAbsent, kPass, kWithhold, kReinject, kDrop, kHold, kHoldAndDrop };
const char* const kWayNames[] = {"absent", "passes", "withholds",     "takes and lets go",
                                 "drops",  "holds",  "holds to drop", "absent"};

bool Takes(Way way) {
    return way >= Way::kReinject;
}
bool Holds(Way way) {
    return way == Way::kHold || way == Way::kHoldAndDrop;
}

}  // namespace

struct GeneratedScenario::Step {
    std::size_t flow;
    Act act;
    std::size_t which;  ///< adapter or hook
    int nbls;
};

struct GeneratedScenario::Plan {
    explicit Plan(ScenarioBytes bytes) {
        bytes.resize(std::max(bytes.size(), kHeaderBytes));
        adapters = 1 + bytes[0] % 2;
        busyAbove = (bytes[0] & 2) != 0;
        busyBelow = (bytes[0] & 4) != 0;
        mappingsFail = (bytes[1] & 1) != 0;
        memoryFails = (bytes[1] & 2) != 0;
        release = static_cast<ReleaseMode>(bytes[2] % 3);  // those that need nobody to release
        for (std::size_t hook = 0; hook < kHooks; ++hook) {
            const std::uint8_t byte = bytes[3 + hook];
            ways[hook] = static_cast<Way>(byte % 8 % 7);
            every[hook] = 1 + byte / 8 % 4;
            classes[hook] = byte / 32 % 4;
            says[hook] = byte < 128 ? HOOK_VERDICT_PENDING : HOOK_VERDICT_PASS;
        }
        for (std::size_t at = kHeaderBytes; at + kStepBytes <= bytes.size(); at += kStepBytes) {
            steps.push_back({bytes[at] % kFlows,
                             static_cast<Act>(bytes[at + 1] % static_cast<int>(Act::kCount)),
                             bytes[at + 2], 1 + bytes[at + 3] % 3});
        }
    }
    bool Has(Act act) const {
        return std::any_of(steps.begin(), steps.end(), [&](auto& step) { return step.act == act; });
    }
    bool FiltersLose() const { return busyAbove || busyBelow; }
    int Hooks() const {
        return static_cast<int>(std::count_if(std::begin(ways), std::end(ways),
                                              [](Way way) { return way != Way::kAbsent; }));
    }
    bool Fails() const { return mappingsFail || memoryFails; }
    /// Whether each hook is shown each frame. While records are held others find none, and pass.
    bool Steady() const {
        return !Has(Act::kStopHook) && !Has(Act::kSwitchHook) && !Fails() &&
               std::none_of(std::begin(ways), std::end(ways), Holds);
    }

    std::size_t adapters;
    bool busyAbove, busyBelow, mappingsFail, memoryFails;
    ReleaseMode release;
    Way ways[kHooks];
    unsigned every[kHooks];  ///< of so many frames, one is the hook's
    ULONG classes[kHooks];
    LONG says[kHooks];  ///< of a frame that it has taken; both are legal
    std::vector<Step> steps;
};

/// A frame, and all that was done with it.
struct GeneratedScenario::Sent {
    Frame bytes;
    bool send;
    std::size_t adapter;
    std::atomic<int> arrived = 0, shown = 0, withheld = 0, marked = 0, droppedMarks = 0;
    std::atomic<bool> mayBeLost = false;  ///< refused or cancelled
};

/// The machine's frames, and what the ends of its stacks see of them.
class GeneratedScenario::Site {
  public:
    Site(Machine& machine, const Plan& plan) : random_(machine.options().seed) {
        static const char16_t* const names[] = {u"\\DEVICE\\{A}", u"\\DEVICE\\{B}"};
        for (std::size_t i = 0; i < plan.adapters; ++i) {
            Stack& stack = machine.ndis().AddAdapter(
                {.deviceName = names[i], .mac = Mac(i), .ifIndex = static_cast<ULONG>(i + 1)});
            stacks.push_back(&stack);
            factories_.emplace_back(machine, stack.protocol().pool());
            factories_.emplace_back(machine, stack.adapter().pool());
            Connect(stack, i);
        }
        for (NblFactory& factory : factories_) {
            factory.DrawLayouts(random_.Next());
        }
    }

    static MacAddress Mac(std::size_t adapter) {
        return {2, 0, 0, 0, 0, static_cast<std::uint8_t>(adapter + 1)};
    }

    /// Made beforehand, by one context.
    PNET_BUFFER_LIST Make(bool send, std::size_t adapter, int nbls) {
        PNET_BUFFER_LIST chain = nullptr;
        for (; nbls > 0; --nbls) {
            std::vector<std::span<const std::uint8_t>> inNbl;
            for (std::uint64_t count = 1 + random_.Below(2); count > 0; --count) {
                inNbl.emplace_back(Add(send, adapter).bytes);
            }
            PNET_BUFFER_LIST const nbl = factories_[2 * adapter + (send ? 0 : 1)].Make(inNbl);
            nbl->Next = chain;
            chain = nbl;
        }
        return chain;
    }

    /// From an address of the adapter, for hooks to inject.
    const Frame& MakeInjected(std::size_t adapter) {
        Sent& sent = Add(true, adapter);
        const MacAddress mac = Mac(adapter);
        std::copy(mac.begin(), mac.end(), sent.bytes.begin() + 6);
        sent.mayBeLost = true;
        return sent.bytes;
    }

    /// The frame with these bytes; null for one that was cut, or is a filter's own.
    Sent* Find(std::span<const std::uint8_t> bytes) {
        if (bytes.size() < kNumberAt + 2) {
            return nullptr;
        }
        const std::size_t number = bytes[kNumberAt] + 256u * bytes[kNumberAt + 1];
        return number < frames.size() && std::ranges::equal(frames[number].bytes, bytes)
                   ? &frames[number]
                   : nullptr;
    }

    /// They were refused, each frame.
    void LoseAll(PNET_BUFFER_LIST chain) {
        for (; chain != nullptr; chain = chain->Next) {
            Lose(chain);
        }
    }

    std::vector<Stack*> stacks;
    std::deque<Sent> frames;
    std::atomic<int> strangers = 0;  ///< frames at an end of a stack that nobody sent so

  private:
    Sent& Add(bool send, std::size_t adapter) {
        const std::size_t number = frames.size();
        Sent& sent = frames.emplace_back();
        sent.send = send;
        sent.adapter = adapter;
        sent.bytes.resize(20 + random_.Below(60), static_cast<std::uint8_t>(number * 37 + 1));
        std::fill_n(sent.bytes.begin(), 6, std::uint8_t{0xFF});
        sent.bytes[6] = 2;
        sent.bytes[kNumberAt] = static_cast<std::uint8_t>(number);
        sent.bytes[kNumberAt + 1] = static_cast<std::uint8_t>(number / 256);
        return sent;
    }

    void Connect(Stack& stack, std::size_t adapter) {
        stack.adapter().onSend = [=, this](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG) {
            Arrive(chain, true, adapter);
        };
        stack.protocol().onReceive = [=, this](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG,
                                               ULONG) { Arrive(chain, false, adapter); };
        stack.protocol().onSendComplete = [this](PNET_BUFFER_LIST chain, ULONG) {
            for (; chain != nullptr; chain = chain->Next) {
                if (chain->Status == NDIS_STATUS_PAUSED ||
                    chain->Status == NDIS_STATUS_SEND_ABORTED) {
                    Lose(chain);
                }
            }
        };
    }

    template <typename Visit>
    static void ForEachFrame(PNET_BUFFER_LIST nbl, Visit visit) {
        for (NET_BUFFER* at = nbl->FirstNetBuffer; at != nullptr; at = at->Next) {
            visit(NblFactory::BytesOf(*at));
        }
    }

    void Arrive(PNET_BUFFER_LIST chain, bool send, std::size_t adapter) {
        static const Frame filters(64, 0xB5);
        for (; chain != nullptr; chain = chain->Next) {
            ForEachFrame(chain, [&](const Frame& bytes) {
                Sent* const sent = Find(bytes);
                if (sent != nullptr && sent->send == send && sent->adapter == adapter) {
                    ++sent->arrived;
                } else if (bytes != filters) {
                    ++strangers;
                }
            });
        }
    }

    void Lose(PNET_BUFFER_LIST nbl) {
        ForEachFrame(nbl, [&](const Frame& bytes) {
            if (Sent* const sent = Find(bytes)) {
                sent->mayBeLost = true;
            }
        });
    }

    Random random_;
    std::deque<NblFactory> factories_;
};

/// Does with a frame what the plan says, and notes it there.
class GeneratedScenario::Hook {
  public:
    Hook(Site& site, const Plan& plan, std::size_t at)
        : site_(site),
          way_(plan.ways[at]),
          every_(plan.every[at]),
          says_(plan.says[at]),
          client_(u"hook" + std::u16string(1, static_cast<char16_t>(u'a' + at)), plan.classes[at]) {
        client_.handler = [this](NIRP* nirp) { return Judge(nirp); };
        client_.detach = false;
        client_.Start();
    }
    ~Hook() { Stop(); }

    void Stop() {
        if (client_.hook != nullptr) {
            client_.Stop();
        }
    }
    void Switch() {
        if (client_.hook != nullptr) {
            ITarnHKFlowControl(client_.hook, HOOK_STATE_STOPPED);
            ITarnHKFlowControl(client_.hook, HOOK_STATE_ACTIVE);
        }
    }
    bool holds() const { return Holds(way_); }
    /// Completes a mark that it holds; false when there is none.
    bool CompleteOne() {
        HostLock lock(mutex_);
        if (held_.empty()) {
            return false;
        }
        const Mark mark = held_.front();
        held_.pop_front();
        lock.unlock();
        Complete(mark);
        return true;
    }

  private:
    struct Mark {
        NIRP* nirp;
        Sent* frame;
    };

    LONG Judge(NIRP* nirp) {
        Sent* const frame = site_.Find({ITarnHKGetBuffer(nirp), ITarnHKGetBufferLength(nirp)});
        if (frame == nullptr) {
            return HOOK_VERDICT_PASS;
        }
        ++frame->shown;
        if (frame->bytes[kNumberAt] % every_ != 0) {
            return HOOK_VERDICT_PASS;
        }
        if (way_ == Way::kWithhold) {
            ++frame->withheld;
            return HOOK_VERDICT_WITHHOLD;
        }
        return Takes(way_) ? Take({nirp, frame}) : HOOK_VERDICT_PASS;
    }

    LONG Take(const Mark& mark) {
        if (ITarnHKMarkPending(mark.nirp) != STATUS_SUCCESS) {
            return HOOK_VERDICT_PASS;
        }
        ++mark.frame->marked;
        if (holds()) {
            HostLock lock(mutex_);
            held_.push_back(mark);
        } else {
            Complete(mark);
        }
        return says_;
    }

    void Complete(const Mark& mark) {
        const bool drop = way_ == Way::kDrop || way_ == Way::kHoldAndDrop;
        mark.frame->droppedMarks += drop ? 1 : 0;
        ITarnHKCompleteRequest(mark.nirp, drop ? 1 : 0);
    }

    Site& site_;
    Way way_;
    unsigned every_;
    LONG says_;
    Client client_;
    HostMutex mutex_;
    std::deque<Mark> held_;
};

/// One run: the hooks, and what each flow does.
class GeneratedScenario::Cast {
  public:
    Cast(Machine& machine, const Plan& plan, Site& site)
        : machine_(machine), plan_(plan), site_(site) {
        for (std::size_t i = 0; i < kHooks; ++i) {
            if (plan.ways[i] != Way::kAbsent) {
                hooks_.emplace_back(site, plan, i);
            }
        }
        for (const Step& step : plan.steps) {
            if (auto act = Prepare(step)) {
                flows_[step.flow].push_back(std::move(act));
            }
        }
    }

    void RunFlows() {
        if (plan_.Fails()) {
            machine_.faults().Arm(
                {.kind = plan_.mappingsFail ? FaultKind::kMapping : FaultKind::kPool,
                 .probability = 0.1,
                 .seed = machine_.options().seed});
        }
        Scheduler& scheduler = machine_.scheduler();
        std::vector<std::uint32_t> contexts;
        for (std::size_t i = 0; i < kFlows; ++i) {
            contexts.push_back(
                scheduler.Start({.name = "flow",
                                 .kind = i == kDpcFlow ? ContextKind::kDpc : ContextKind::kThread,
                                 .processor = static_cast<unsigned>(i + 1)},
                                [&flow = flows_[i]] {
                                    for (const auto& act : flow) {
                                        act();
                                    }
                                }));
        }
        scheduler.JoinAll(contexts);
        machine_.faults().Disarm();
    }

    void CompleteAll() {
        while (CompleteOne()) {
        }
        machine_.scheduler().WaitUntilIdle();
    }

  private:
    bool CompleteOne() {
        return std::any_of(hooks_.begin(), hooks_.end(),
                           [](Hook& hook) { return hook.CompleteOne(); });
    }

    /// What the step does, with its NBLs made; empty when it has no place in its flow.
    std::function<void()> Prepare(const Step& step) {
        switch (step.act) {
            case Act::kSend:
            case Act::kSendAndCancel:
            case Act::kIndicate:
            case Act::kIndicateResources:
                return PrepareTraffic(step);
            case Act::kComplete:
                return [this] { CompleteOne(); };
            case Act::kInject:
                return [&frame = site_.MakeInjected(step.which % plan_.adapters)] {
                    ITarnHKSendPacket(nullptr, frame.data(), static_cast<ULONG>(frame.size()));
                };
            case Act::kStopHook:
            case Act::kSwitchHook:
                return PrepareHookChange(step);
            case Act::kPause:
            case Act::kAdapter:
                // What waits has its place in a thread.
                return step.flow == kDpcFlow ? nullptr : PreparePnp(step);
            default:
                return nullptr;
        }
    }

    std::function<void()> PrepareTraffic(const Step& step) {
        const bool send = step.act == Act::kSend || step.act == Act::kSendAndCancel;
        const std::size_t adapter = step.which % plan_.adapters;
        Stack& stack = *site_.stacks[adapter];
        PNET_BUFFER_LIST const chain = site_.Make(send, adapter, step.nbls);
        if (!send) {
            const ULONG flags = step.act == Act::kIndicate ? 0 : NDIS_RECEIVE_FLAGS_RESOURCES;
            return [this, &stack, flags, chain] {
                if (!stack.adapter().Indicate(chain, 0, flags)) {
                    site_.LoseAll(chain);
                }
            };
        }
        return [&stack, chain, cancels = step.act == Act::kSendAndCancel] {
            PVOID const id = NET_BUFFER_LIST_INFO(chain, NetBufferListCancelId);
            stack.protocol().Send(chain);
            if (cancels) {
                stack.protocol().CancelSend(id);
            }
        };
    }

    // By one flow alone, which has the handles. A hook that holds frames stays to complete them.
    std::function<void()> PrepareHookChange(const Step& step) {
        if (step.flow != 0 || hooks_.empty()) {
            return nullptr;
        }
        Hook& hook = hooks_[step.which % hooks_.size()];
        if (step.act == Act::kSwitchHook) {
            return [&hook] { hook.Switch(); };
        }
        return hook.holds() ? std::function<void()>() : [&hook] { hook.Stop(); };
    }

    std::function<void()> PreparePnp(const Step& step) {
        if (step.act == Act::kPause) {
            return [&stack = *site_.stacks[step.which % plan_.adapters]] {
                stack.Pause();
                stack.Restart();
            };
        }
        return [this, first = step.flow == 0] {
            const std::uint8_t number = first ? 3 : 4;
            Stack& guest = machine_.ndis().AddAdapter(
                {.deviceName = first ? u"\\DEVICE\\{C}" : u"\\DEVICE\\{D}",
                 .mac = {2, 0, 0, 0, 0, number},
                 .ifIndex = number});
            machine_.ndis().RemoveAdapter(guest);
        };
    }

    static constexpr std::size_t kDpcFlow = 1;

    Machine& machine_;
    const Plan& plan_;
    Site& site_;
    std::deque<Hook> hooks_;
    std::vector<std::function<void()>> flows_[kFlows];
};

GeneratedScenario::GeneratedScenario(ScenarioBytes bytes)
    : plan_(std::make_shared<Plan>(std::move(bytes))) {}

void GeneratedScenario::Run(Machine& machine) {
    verdict_.clear();
    const Plan& plan = *plan_;
    Site site(machine, plan);
    Demand((!plan.busyAbove || machine.LoadDriver(BusyFilter(true)) == STATUS_SUCCESS) &&
               machine.LoadDriver(DriverUnderTest()) == STATUS_SUCCESS &&
               (!plan.busyBelow || machine.LoadDriver(BusyFilter(false)) == STATUS_SUCCESS),
           "not loaded");
    for (Stack* stack : site.stacks) {
        SetRelease(*stack, plan.release);
    }
    {
        Cast cast(machine, plan, site);
        cast.RunFlows();
        cast.CompleteAll();
        for (Stack* stack : site.stacks) {
            stack->Pause();  // waits until no NBL is outstanding
        }
        cast.CompleteAll();  // what busy filters have kept until the pause
    }
    for (const char* const driver : {"BUSYUP", "NETSIEVE", "BUSYLO"}) {
        if (machine.FindDriver(driver) != nullptr) {
            machine.UnloadDriver(driver);
        }
    }
    Demand(site.strangers == 0, "a frame arrived that nobody sent so");
    for (const Sent& frame : site.frames) {
        JudgeFrame(frame);
    }
}

void GeneratedScenario::JudgeFrame(const Sent& frame) {
    const Plan& plan = *plan_;
    const bool taken = frame.marked != 0;
    const bool stopped = taken ? frame.droppedMarks != 0 : frame.withheld != 0;
    const bool losable = frame.mayBeLost || plan.FiltersLose() || plan.memoryFails ||
                         (taken && plan.Has(Act::kPause));
    const int least = stopped || losable ? 0 : 1;
    const int most = stopped ? 0 : 1;
    const int present = plan.Hooks();
    const bool shown = losable || !plan.Steady() || plan.Has(Act::kPause) || frame.shown == present;
    Demand(
        frame.arrived >= least && frame.arrived <= most && shown,
        fmt::format("frame {}, {} adapter {}: arrived {} times of {} to {}; shown to {} of {} "
                    "hooks, withheld by {}, {} marks, {} of them to drop it",
                    frame.bytes[kNumberAt], frame.send ? "sent to" : "received from", frame.adapter,
                    frame.arrived.load(), least, most, frame.shown.load(), present,
                    frame.withheld.load(), frame.marked.load(), frame.droppedMarks.load()));
}

ScenarioBytes DrawScenario(std::uint64_t seed) {
    Random random(seed);
    ScenarioBytes bytes(kHeaderBytes + kStepBytes * (2 + random.Below(9)));
    for (std::uint8_t& byte : bytes) {
        byte = static_cast<std::uint8_t>(random.Next());
    }
    // Half of them with nothing that may lose a frame or fail, which says most about each frame.
    if (random.OneIn(2)) {
        bytes[0] &= 1;
        bytes[1] = 0;
    }
    return bytes;
}

std::string DescribeScenario(const ScenarioBytes& bytes) {
    const GeneratedScenario::Plan plan(bytes);
    std::string text =
        fmt::format("{} adapters{}{}{}{}, release mode {}\n", plan.adapters,
                    plan.busyAbove ? ", a busy filter above" : "",
                    plan.busyBelow ? ", one below" : "", plan.mappingsFail ? ", mappings fail" : "",
                    plan.memoryFails ? ", memory fails" : "", static_cast<int>(plan.release));
    for (std::size_t i = 0; i < kHooks; ++i) {
        text += plan.ways[i] == Way::kAbsent
                    ? ""
                    : fmt::format("hook {} in class {} {}{} each frame whose number {} divides\n",
                                  static_cast<char>('a' + i), plan.classes[i],
                                  kWayNames[static_cast<int>(plan.ways[i])],
                                  Takes(plan.ways[i]) && plan.says[i] == HOOK_VERDICT_PASS
                                      ? ", saying pass,"
                                      : "",
                                  plan.every[i]);
    }
    for (const auto& step : plan.steps) {
        text += fmt::format("flow {}: {}, on {}, {} NBLs\n", step.flow,
                            kActNames[static_cast<int>(step.act)], step.which, step.nbls);
    }
    return text;
}

ScenarioBytes ShrinkScenario(ScenarioBytes bytes,
                             const std::function<bool(const ScenarioBytes&)>& fails) {
    for (bool smaller = true; smaller;) {
        smaller = false;
        for (std::size_t end = bytes.size(); end >= kHeaderBytes + kStepBytes; end -= kStepBytes) {
            ScenarioBytes fewer = bytes;
            fewer.erase(fewer.begin() + static_cast<std::ptrdiff_t>(end - kStepBytes),
                        fewer.begin() + static_cast<std::ptrdiff_t>(end));
            if (fails(fewer)) {
                bytes = std::move(fewer);
                smaller = true;
            }
        }
        for (std::size_t at = 0; at < bytes.size(); ++at) {
            for (const int less : {0, bytes[at] / 2}) {
                ScenarioBytes lower = bytes;
                lower[at] = static_cast<std::uint8_t>(less);
                if (lower != bytes && fails(lower)) {
                    bytes = std::move(lower);
                    smaller = true;
                    break;
                }
            }
        }
    }
    return bytes;
}

}  // namespace netsieve::host
