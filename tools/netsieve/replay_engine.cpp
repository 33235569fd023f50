#include "tools/netsieve/replay_engine.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>

#include "driver/driver_entry.h"
#include "host/accounting.h"
#include "host/machine.h"
#include "host/ndis/frame_lists.h"
#include "host/ndis/ndis.h"
#include "host/ndis/stack.h"
#include "tools/netsieve/frame_tag.h"
#include "tools/netsieve/module_trace.h"

namespace netsieve::tool {
namespace {

constexpr const char* kDriverName = "NETSIEVE";
constexpr const char* kNative = "native";
constexpr host::Ticks kNanosecondsPerTick = 100;

/// Without the verifier and without a seed nothing but speed is wanted: real threads. Everything
/// else runs under the simulated scheduler, in the capture's time.
bool WantsPlainMachine(const ReplayOptions& options) {
    return !options.verify && !options.seed;
}

host::MachineOptions MachineOptionsFor(const ReplayOptions& options) {
    host::MachineOptions machine;
    machine.scheduler = WantsPlainMachine(options) ? host::SchedulerKind::kThreaded
                                                   : host::SchedulerKind::kSimulated;
    machine.seed = options.seed.value_or(machine.seed);
    machine.verify = options.verify;
    return machine;
}

std::string WithoutLineFeed(std::string text) {
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

/// The frame's length, or what its descriptors hold where a driver made it longer than that.
ULONG DescribedLength(PNET_BUFFER buffer) {
    ULONG left = buffer->DataLength;
    ULONG offset = buffer->CurrentMdlOffset;
    for (PMDL mdl = buffer->CurrentMdl; mdl != nullptr && left > 0; mdl = mdl->Next) {
        left -= std::min(left, mdl->ByteCount - offset);
        offset = 0;
    }
    return buffer->DataLength - left;
}

/// One of the two ways through the stack.
struct Way {
    Originator originator;
    host::ListPool* pool = nullptr;              ///< what the originator's lists are made from
    std::unique_ptr<host::FrameLists> frames{};  ///< the lists themselves
    DirectionCounts counts{};
};

/// One replay. Everything the run touches is a member, because a run that is abandoned drops its
/// threads where they stand.
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
          machine_(MachineOptionsFor(options)) {}

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
        if (!StartDriver() || !StartAdapter() || !OpenOutput()) {
            StopDriver();
            return;
        }
        report_.ran = true;
        PushFrames();
        CollectModuleTraces();
        machine_.ndis().RemoveAdapter(*stack_);
        StopDriver();
        machine_.ndis().ReportLostLists();
    }

    bool StartDriver() {
        host::DriverSource source{.name = kDriverName};
        if (options_.driver == kNative) {
            source.entry = &DriverEntry;
        } else {
            source.image = options_.driver;
        }
        const NTSTATUS status = machine_.LoadDriver(source);
        if (NT_SUCCESS(status)) {
            return true;
        }
        report_.driverFailure = fmt::format("the driver {} did not start, status 0x{:08X}",
                                            options_.driver, static_cast<std::uint32_t>(status));
        for (const std::string& line : machine_.DebugOutput()) {
            *report_.driverFailure += "; " + WithoutLineFeed(line);
        }
        return false;
    }

    bool StartAdapter() {
        stack_ = &machine_.ndis().AddAdapter({.mac = adapter_.address});
        host::Adapter& adapter = stack_->adapter();
        host::Protocol& protocol = stack_->protocol();
        const std::u16string& name = adapter.options().instanceName;
        adapter_.name.assign(name.begin(), name.end());
        sent_.pool = protocol.pool();
        sent_.frames = std::make_unique<host::FrameLists>(machine_, sent_.pool);
        received_.pool = adapter.pool();
        received_.frames = std::make_unique<host::FrameLists>(machine_, received_.pool);
        ConnectEnds(protocol, adapter);
        if (stack_->FindModule(machine_.FindDriver(kDriverName)) != nullptr && stack_->Running()) {
            return true;
        }
        report_.driverFailure =
            fmt::format("the driver {} did not bind to the adapter", options_.driver);
        return false;
    }

    void ConnectEnds(host::Protocol& protocol, host::Adapter& adapter) {
        adapter.onSend = [this](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG) {
            Deliver(chain, sent_);
        };
        protocol.onReceive = [this](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG, ULONG) {
            Deliver(chain, received_);
        };
        protocol.onSendComplete = [this](PNET_BUFFER_LIST chain, ULONG) { ComeHome(chain, sent_); };
        adapter.onReturned = [this](PNET_BUFFER_LIST chain, ULONG) { ComeHome(chain, received_); };
    }

    bool OpenOutput() {
        writer_ = job_.openOutput();
        return writer_ != nullptr || options_.output.empty();
    }

    void PushFrames() {
        CaptureFrame frame;
        ReadOutcome outcome = ReadOutcome::kEnd;
        while (!OutputFailed() && (outcome = job_.reader.Next(frame)) == ReadOutcome::kFrame) {
            report_.framesRead = job_.reader.FramesRead();
            report_.bytesRead += frame.capturedLength;
            WaitFor(frame.stamp);
            if (IsSent(frame)) {
                Send(frame);
            } else {
                Receive(frame);
            }
            job_.progress.Update(report_.framesRead, job_.reader.Source().Position());
        }
        if (outcome == ReadOutcome::kFailed) {
            report_.inputFailure = job_.reader.Failure();
        }
    }

    bool OutputFailed() const { return writer_ != nullptr && writer_->HasFailed(); }

    /// Lets the machine's clock reach the frame's time. It never goes back: frames whose stamps do
    /// follow at once. A plain machine has a real clock, which is not waited for.
    void WaitFor(const CaptureStamp& stamp) {
        if (!CaptureWriter::CanRepresent(stamp)) {
            return;
        }
        const host::Ticks captured = stamp.TotalNanoseconds() / kNanosecondsPerTick;
        const host::Ticks now = machine_.scheduler().Now();
        if (!clockOffset_ || WantsPlainMachine(options_)) {
            clockOffset_ = captured - now;
        }
        const host::Ticks due = captured - *clockOffset_;
        if (due > now) {
            machine_.scheduler().Sleep(due - now);
        }
    }

    /// The capture's time now.
    CaptureStamp CaptureTime() {
        const host::Ticks ticks = machine_.scheduler().Now() + clockOffset_.value_or(0);
        host::Ticks seconds = ticks / host::kTicksPerSecond;
        host::Ticks rest = ticks % host::kTicksPerSecond;
        if (rest < 0) {
            rest += host::kTicksPerSecond;
            --seconds;
        }
        return {seconds, static_cast<std::uint32_t>(rest * kNanosecondsPerTick)};
    }

    bool IsSent(const CaptureFrame& frame) const {
        switch (options_.direction) {
            case DirectionChoice::kSend:
                return true;
            case DirectionChoice::kReceive:
                return false;
            case DirectionChoice::kAuto:
                break;
        }
        return frame.capturedLength >= 2 * kMacLength &&
               std::memcmp(frame.bytes + kMacLength, adapter_.address.data(), kMacLength) == 0;
    }

    /// A list of `way` with the frame in it; null when none can be had.
    PNET_BUFFER_LIST Fill(Way& way, const CaptureFrame& frame) {
        const host::HostLock lock(mutex_);
        ++way.counts.frames;
        PNET_BUFFER_LIST const list = way.frames->Make({frame.bytes, frame.capturedLength});
        if (list != nullptr) {
            TagOf(*list->FirstNetBuffer, way.originator) = {
                frame.stamp.seconds, frame.stamp.nanoseconds, frame.originalLength,
                report_.framesRead, 0};
        }
        return list;
    }

    void Send(const CaptureFrame& frame) {
        PNET_BUFFER_LIST const list = Fill(sent_, frame);
        if (list != nullptr) {
            stack_->protocol().Send(list);
        }
    }

    void Receive(const CaptureFrame& frame) {
        PNET_BUFFER_LIST const list = Fill(received_, frame);
        if (list != nullptr && !stack_->adapter().Indicate(list)) {
            ComeHome(list, received_);
        }
    }

    /// Lists have come out at the end opposite to their originator, or to where the driver wants
    /// them to seem to come from.
    void Deliver(PNET_BUFFER_LIST chain, Way& way) {
        const host::HostLock lock(mutex_);
        for (PNET_BUFFER_LIST list = chain; list != nullptr; list = list->Next) {
            const bool tagged = list->NdisPoolHandle == way.pool;
            for (PNET_BUFFER buffer = list->FirstNetBuffer; buffer != nullptr;
                 buffer = buffer->Next) {
                if (tagged) {
                    DeliverTagged(buffer, TagOf(*buffer, way.originator), way.counts);
                } else {
                    ++way.counts.injected;
                    Write(buffer, CaptureTime(), buffer->DataLength, report_.framesRead);
                }
            }
        }
    }

    void DeliverTagged(PNET_BUFFER buffer, FrameTag& tag, DirectionCounts& counts) {
        // The same frame once more is one that nobody handed in.
        ++(++tag.deliveries == 1 ? counts.passed : counts.injected);
        counts.reordered += tag.number < latestOut_ ? 1 : 0;
        latestOut_ = std::max(latestOut_, tag.number);
        Write(buffer, tag.Stamp(), tag.originalLength, tag.number);
    }

    void ComeHome(PNET_BUFFER_LIST chain, Way& way) {
        const host::HostLock lock(mutex_);
        for (PNET_BUFFER_LIST list = chain; list != nullptr; list = list->Next) {
            for (PNET_BUFFER buffer = list->FirstNetBuffer; buffer != nullptr;
                 buffer = buffer->Next) {
                way.counts.withheld += TagOf(*buffer, way.originator).deliveries == 0 ? 1 : 0;
            }
        }
        way.frames->FreeChain(chain);
    }

    void Write(PNET_BUFFER buffer,
               const CaptureStamp& stamp,
               std::uint32_t originalLength,
               std::uint64_t number) {
        if (writer_ == nullptr) {
            return;
        }
        if (!CaptureWriter::CanRepresent(stamp)) {
            if (report_.notRepresentable++ == 0) {
                report_.firstNotRepresentable = number;
            }
            return;
        }
        ULONG left = DescribedLength(buffer);
        writer_->Begin(stamp, left, originalLength);
        ULONG offset = buffer->CurrentMdlOffset;
        for (PMDL mdl = buffer->CurrentMdl; left > 0; mdl = mdl->Next) {
            const ULONG take = std::min(left, mdl->ByteCount - offset);
            const auto* bytes = static_cast<const std::uint8_t*>(mdl->StartVa) + mdl->ByteOffset;
            writer_->Append(bytes + offset, take);
            left -= take;
            offset = 0;
        }
    }

    void StopDriver() {
        machine_.UnloadDriver(kDriverName);
        machine_.scheduler().WaitUntilIdle();
    }

    /// While the modules are attached, because each takes its trace with it.
    void CollectModuleTraces() {
        if (traceCollected_ || !report_.ran) {
            return;
        }
        traceCollected_ = true;
        for (const host::FilterModule* module : stack_->modules()) {
            for (std::string& line : ReadModuleTrace(*module)) {
                report_.trace.push_back(std::move(line));
            }
        }
    }

    void CollectAccounts() {
        for (const host::Violation& violation : machine_.verifier().Violations()) {
            report_.findings.push_back(
                {host::RuleName(violation.rule), WithoutLineFeed(violation.Describe())});
        }
        if (!report_.ran) {
            return;
        }
        for (const std::string& text : machine_.DebugOutput()) {
            report_.trace.push_back(WithoutLineFeed(text));
        }
        adapter_.sent = sent_.counts;
        adapter_.received = received_.counts;
        report_.adapters = {adapter_};
        host::Accounting stock = host::TakeStock(machine_);
        // Without the verifier nobody follows the lists; the ends' own are known all the same.
        const int away = sent_.pool->live + received_.pool->live;
        stock.listsAway = std::max(stock.listsAway, static_cast<std::uint64_t>(away));
        if (!stock.Balanced()) {
            report_.leftover = stock.Describe();
        }
    }

    const ReplayOptions& options_;
    const ReplayJob& job_;
    ReplayReport& report_;
    AdapterReport adapter_;
    host::Machine machine_;
    host::Stack* stack_ = nullptr;
    /// Guards the lists, the counts and the output: a driver may let go of a frame in any thread.
    host::HostMutex mutex_;
    Way sent_{.originator = Originator::kProtocol};
    Way received_{.originator = Originator::kAdapter};
    CaptureWriter* writer_ = nullptr;
    std::optional<host::Ticks> clockOffset_;
    std::uint64_t latestOut_ = 0;
    bool traceCollected_ = false;
};

}  // namespace

void Replay(const ReplayOptions& options,
            const AdapterReport& adapter,
            const ReplayJob& job,
            ReplayReport& report) {
    ReplayRun(options, adapter, job, report).Run();
}

}  // namespace netsieve::tool
