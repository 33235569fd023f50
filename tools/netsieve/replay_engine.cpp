#include "tools/netsieve/replay_engine.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <limits>

#include "host/accounting.h"
#include "host/machine.h"
#include "host/ndis/ndis.h"
#include "host/ndis/stack.h"
#include "host/verifier/run_notes.h"
#include "platform/atomics.h"
#include "tools/netsieve/driver_exports.h"
#include "tools/netsieve/frame_exchange.h"
#include "tools/netsieve/other_adapter.h"
#include "tools/netsieve/records/driver_structures.h"
#include "tools/netsieve/records/module_trace.h"
#include "tools/netsieve/replay_clock.h"
#include "tools/netsieve/replay_faults.h"
#include "tools/netsieve/replay_hooks.h"
#include "tools/netsieve/replay_variation.h"

namespace netsieve::tool {
namespace {

/// Without the verifier, a seed and faults the machine has real threads, for speed. Otherwise it
/// runs under the simulated scheduler, in the capture's time.
bool WantsPlainMachine(const ReplayOptions& options) {
    return !options.verify && !options.seed && !options.faults;
}

host::MachineOptions MachineOptionsFor(const ReplayOptions& options) {
    host::MachineOptions machine;
    machine.scheduler = WantsPlainMachine(options) ? host::SchedulerKind::kThreaded
                                                   : host::SchedulerKind::kSimulated;
    machine.seed = options.seed.value_or(machine.seed);
    machine.verify = options.verify;
    machine.systemSize = MmLargeSystem;  // the most records that the driver makes
    return machine;
}

std::string WithoutLineFeed(std::string text) {
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

/// One replay. Everything the run uses is a member, because an abandoned run drops its threads
/// without unwinding them.
class ReplayRun {
  public:
    ReplayRun(const ReplayOptions& options,
              const AdapterReport& adapter,
              const ReplayJob& job,
              ReplayReport& report)
        : options_(options),
          job_(job),
          report_(report),
          adapter_(adapter),
          faults_(options.faults, options.seed.value_or(host::MachineOptions().seed)),
          variation_(options.seed),
          hooks_(options.hooks, clock_, faults_, job.log),
          exchange_(options, report, variation_),
          machine_(MachineOptionsFor(options)),
          clock_(machine_.scheduler(), !WantsPlainMachine(options)) {}

    void Run() {
        report_.verified = options_.verify;
        report_.seed = machine_.options().seed;
        const host::RunResult result = machine_.Run([this] { Body(); });
        job_.progress.Clear();
        if (!result.completed) {
            report_.abandoned = result.abandonReason;
        }
        CollectModuleTraces();
        CollectAccounts();
    }

  private:
    void Body() {
        faults_.TurnOn();
        if (StartDriver() && StartAdapter() && StartHooks() && OpenOutput()) {
            report_.ran = true;
            PushFrames();
            CollectModuleTraces();
        }
        machine_.scheduler().FastForward();
        // A second adapter may outlive the hooks or go before them.
        if (variation_.Either()) {
            otherAdapter_.Go(machine_);
        }
        StopHooks();
        if (stack_ != nullptr) {
            machine_.ndis().RemoveAdapter(*stack_);
        }
        otherAdapter_.Go(machine_);
        machine_.UnloadDriver(kDriverName);
        faults_.TurnOff();
        machine_.scheduler().WaitUntilIdle();
        if (report_.ran) {
            machine_.ndis().ReportLostNbls();
        }
    }

    bool StartDriver() {
        NTSTATUS status = machine_.LoadDriver(SourceOf(options_.driver));
        if (!NT_SUCCESS(status) && faults_.Failed() > 0) {
            NoteEffect(fmt::format("the driver did not start at first, status 0x{:08X}",
                                   static_cast<std::uint32_t>(status)));
            const WithoutFaults guard(faults_);
            status = machine_.LoadDriver(SourceOf(options_.driver));
        }
        if (NT_SUCCESS(status)) {
            driver_ = machine_.FindDriver(kDriverName);
            return true;
        }
        report_.driverFailure = fmt::format("the driver {} did not start, status 0x{:08X}",
                                            options_.driver, static_cast<std::uint32_t>(status));
        for (const std::string& line : machine_.debugOutput()) {
            *report_.driverFailure += "; " + WithoutLineFeed(line);
        }
        return false;
    }

    bool StartAdapter() {
        AddAdapter();
        if (!DriverIsBound() && faults_.Failed() > 0) {
            NoteEffect("the driver did not bind to the adapter at first");
            const WithoutFaults guard(faults_);
            machine_.ndis().RemoveAdapter(*stack_);
            AddAdapter();
        }
        const std::u16string& name = stack_->adapter().options().instanceName;
        adapter_.name.assign(name.begin(), name.end());
        if (DriverIsBound()) {
            if (variation_.Either()) {
                AddOtherAdapter();
            }
            return true;
        }
        report_.driverFailure =
            fmt::format("the driver {} did not bind to the adapter", options_.driver);
        return false;
    }

    void AddAdapter() {
        stack_ = &machine_.ndis().AddAdapter({.mac = adapter_.address});
        variation_.ChooseReleases(*stack_);
        exchange_.Connect(machine_, *stack_, clock_);
        FILTER_MODULE* const module = DriverModule();
        nirpCapacity_ = module != nullptr ? ReadAcquire(&module->FreeNirpCount) : 0;
    }

    bool DriverIsBound() { return stack_->FindModule(driver_) != nullptr && stack_->running(); }

    /// The driver's module on the adapter; null when it is not bound or is no driver that we know.
    FILTER_MODULE* DriverModule() {
        const host::FilterModule* const module = stack_->FindModule(driver_);
        return module != nullptr ? DriverModuleOf(*module) : nullptr;
    }

    void NoteEffect(std::string effect) { effects_.push_back(std::move(effect)); }

    bool StartHooks() {
        if (hooks_.Any() || job_.feed != nullptr) {
            report_.driverFailure =
                hooks_.Start(machine_, *driver_, *stack_->FindModule(driver_), effects_);
        }
        return !report_.driverFailure;
    }

    void StopHooks() {
        if (hooks_.Any() && driver_ != nullptr) {
            hooks_.Stop(machine_);
        }
    }

    bool OpenOutput() {
        writer_ = job_.openOutput();
        exchange_.SetWriter(writer_);
        return writer_ != nullptr || options_.output.empty();
    }

    void PushFrames() {
        CaptureFrame frame;
        ReadOutcome outcome = ReadOutcome::kEnd;
        while (!OutputFailed() && (outcome = job_.reader.Next(frame)) == ReadOutcome::kFrame) {
            report_.framesRead = job_.reader.framesRead();
            report_.bytesRead += frame.capturedLength;
            host::NoteStep("frame", report_.framesRead);
            CatchUpTo(frame.stamp);
            PlayInterlude(variation_.Before(report_.framesRead));
            LetNirpsReturn();
            const Direction direction = DirectionOf(frame);
            exchange_.SetDirection(direction);
            clock_.Reach(frame.stamp);
            exchange_.Push(direction, frame, report_.framesRead);
            if (report_.framesRead == options_.pauseAt) {
                PauseAdapter();
            }
            job_.progress.Update(report_.framesRead, job_.reader.source().position());
        }
        exchange_.Flush();
        CatchUpTo(std::nullopt);
        ReleaseHeldFrames();
        if (outcome == ReadOutcome::kFailed) {
            report_.inputFailure = job_.reader.failure();
        }
    }

    /// Makes the completions and injections that are due by a time of the capture, or all of them.
    void CatchUpTo(const std::optional<CaptureStamp>& limit) {
        constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();
        const auto when = [](const std::optional<CaptureStamp>& stamp) {
            return stamp ? stamp->TotalNanoseconds() : kNever;
        };
        for (;;) {
            const auto release = hooks_.held().NextDue();
            const auto injection = job_.feed == nullptr ? std::nullopt : job_.feed->NextDue();
            const bool releasesFirst = when(release) <= when(injection);
            const auto& next = releasesFirst ? release : injection;
            if (!next || (limit && when(next) > when(limit))) {
                return;
            }
            // Frames before it are sent and indicated first.
            exchange_.Flush();
            clock_.Reach(*next);
            LetNirpsReturn();
            if (releasesFirst) {
                ReleaseNextHeld();
            } else {
                InjectNext();
            }
        }
    }

    void InjectNext() {
        const bool sent = exchange_.Inject(hooks_.exports(), job_.feed->Next());
        job_.feed->Advance(adapter_.address, sent);
    }

    void ReleaseHeldFrames() {
        while (hooks_.held().Any()) {
            LetNirpsReturn();
            ReleaseNextHeld();
        }
    }

    void ReleaseNextHeld() {
        variation_.Make([this] { hooks_.held().ReleaseNext(hooks_.exports(), exchange_); });
    }

    /// A NIRP that is still on its way when the next frame comes would be missing for that frame,
    /// which then fares otherwise.
    void LetNirpsReturn() {
        if (!variation_.varied()) {
            return;
        }
        variation_.LetRunUntil([this] {
            FILTER_MODULE* const module = DriverModule();
            return module == nullptr || NirpsInTransit(*module, nirpCapacity_) == 0;
        });
    }

    void PlayInterlude(Interlude interlude) {
        switch (interlude) {
            case Interlude::kNone:
                return;
            case Interlude::kAdapterReturns:
                ReplaceAdapter();
                return;
            case Interlude::kOtherTraffic:
                if (otherAdapter_.stack() != nullptr) {
                    variation_.Make([this] { otherAdapter_.Receive(); });
                    return;
                }
                [[fallthrough]];
            case Interlude::kOtherAdapter:
                if (otherAdapter_.stack() != nullptr) {
                    otherAdapter_.Go(machine_);
                } else {
                    AddOtherAdapter();
                }
                return;
        }
    }

    void AddOtherAdapter() {
        ++variation_.counts().otherAdapters;
        otherAdapter_.Come(machine_, variation_.Draw());
        variation_.ChooseReleases(*otherAdapter_.stack());
    }

    /// The adapter goes and comes back, unless a pending frame would be flushed, or frames sent
    /// before their call is full: at another time a hook may delay them otherwise.
    void ReplaceAdapter() {
        FILTER_MODULE* const before = DriverModule();
        if (exchange_.Waits() || (before != nullptr && HoldsFrames(*before))) {
            return;
        }
        const LONG hooksBefore = before != nullptr ? ReadAcquire(&before->HookCount) : 0;
        ++variation_.counts().adapterReturns;
        AppendModuleTraces();
        machine_.ndis().RemoveAdapter(*stack_);
        AddAdapter();
        NoteReturn(hooksBefore);
    }

    void NoteReturn(LONG hooksBefore) {
        const FILTER_MODULE* const module = DriverModule();
        if (!DriverIsBound()) {
            NoteEffect(
                fmt::format("the driver did not bind to the adapter that was back before "
                            "frame {}: frames pass without it",
                            report_.framesRead));
        } else if (module != nullptr) {
            const LONG missing = hooksBefore - ReadAcquire(&module->HookCount);
            if (missing > 0) {
                NoteEffect(
                    fmt::format("{} of {} hooks did not attach to the adapter that was back "
                                "before frame {}",
                                missing, hooksBefore, report_.framesRead));
            }
            hooks_.NoteAdapterBack(*module);
        }
    }

    static bool HoldsFrames(FILTER_MODULE& module) {
        std::uint64_t held = 0;
        for (const Direction direction : {Direction::kSent, Direction::kReceived}) {
            held += PendingRequests(module, direction) + UnpaidRequests(module, direction);
        }
        return held != 0;
    }

    void PauseAdapter() {
        exchange_.Flush();
        stack_->Pause();
        FILTER_MODULE* const module = DriverModule();
        report_.flushedByPause = module != nullptr ? hooks_.held().NotePause(*module) : 0;
        stack_->Restart();
    }

    bool OutputFailed() const { return writer_ != nullptr && writer_->HasFailed(); }

    Direction DirectionOf(const CaptureFrame& frame) const {
        switch (options_.direction) {
            case DirectionChoice::kSend:
                return Direction::kSent;
            case DirectionChoice::kReceive:
                return Direction::kReceived;
            case DirectionChoice::kAuto:
                break;
        }
        const bool ours =
            frame.capturedLength >= 2 * kMacLength &&
            std::memcmp(frame.bytes + kMacLength, adapter_.address.data(), kMacLength) == 0;
        return ours ? Direction::kSent : Direction::kReceived;
    }

    /// While the modules are attached, because a trace is freed with its module.
    void CollectModuleTraces() {
        if (traceCollected_ || !report_.ran) {
            return;
        }
        traceCollected_ = true;
        AppendModuleTraces();
    }

    void AppendModuleTraces() {
        for (const host::FilterModule* module : stack_->modules()) {
            for (std::string& line : ReadModuleTrace(*module)) {
                report_.trace.push_back(std::move(line));
            }
        }
    }

    void CollectAccounts() {
        for (const host::Violation& violation : machine_.verifier().violations()) {
            report_.findings.push_back(
                {host::RuleName(violation.rule), WithoutLineFeed(violation.Describe())});
        }
        if (!report_.ran) {
            return;
        }
        for (const std::string& text : machine_.debugOutput()) {
            report_.trace.push_back(WithoutLineFeed(text));
        }
        const OfferCounts* const offers = hooks_.Any() ? &hooks_.offers() : nullptr;
        adapter_.sent = CountsOf(Direction::kSent, offers);
        adapter_.received = CountsOf(Direction::kReceived, offers);
        report_.adapters = {adapter_};
        if (variation_.varied()) {
            report_.variation = variation_.counts();
        }
        if (faults_.wanted()) {
            report_.faults = {faults_.oneIn(), faults_.Failed(), effects_};
        }
        report_.hooks = hooks_.Report();
        if (job_.feed != nullptr) {
            report_.injection = job_.feed->counts();
            report_.injectFailure = job_.feed->failure();
        }
        host::Accounting stock = host::TakeStock(machine_);
        // Without the verifier no NBL is tracked, but those of the protocol and the adapter are
        // known.
        stock.nblsOutstanding = std::max(stock.nblsOutstanding,
                                         static_cast<std::uint64_t>(exchange_.NblsOutstanding()));
        if (!stock.Balanced()) {
            report_.leftover = stock.Describe();
        }
    }

    DirectionCounts CountsOf(Direction direction, const OfferCounts* offers) const {
        DirectionCounts counts = exchange_.Counts(direction, offers);
        const RequestCounts& requests = hooks_.held().Counts(direction);
        counts.dropped = requests.dropped;
        counts.flushed = requests.flushed;
        counts.missing = requests.missing;
        // What hook drivers complete with success is known only by the frames that arrive.
        counts.reinjectedByHooks = hooks_.AllKnown() ? requests.reinjected : counts.reinjected;
        return counts;
    }

    const ReplayOptions& options_;
    const ReplayJob& job_;
    ReplayReport& report_;
    AdapterReport adapter_;
    // Drivers call these and hold their NBLs until the machine is destroyed.
    ReplayFaults faults_;
    ReplayVariation variation_;
    ReplayHooks hooks_;
    FrameExchange exchange_;
    OtherAdapter otherAdapter_;
    host::Machine machine_;
    ReplayClock clock_;
    host::LoadedDriver* driver_ = nullptr;
    host::Stack* stack_ = nullptr;
    CaptureWriter* writer_ = nullptr;
    bool traceCollected_ = false;
    ULONG nirpCapacity_ = 0;            ///< free NIRPs of the driver's module before any traffic
    std::vector<std::string> effects_;  ///< of calls made to fail
};

}  // namespace

void Replay(const ReplayOptions& options,
            const AdapterReport& adapter,
            const ReplayJob& job,
            ReplayReport& report) {
    ReplayRun(options, adapter, job, report).Run();
}

}  // namespace netsieve::tool
