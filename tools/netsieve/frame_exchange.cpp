#include "tools/netsieve/frame_exchange.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <utility>

#include "host/kernel/mdls.h"
#include "host/ndis/data_path.h"
#include "tools/netsieve/records/driver_structures.h"

namespace netsieve::tool {
namespace {

constexpr std::uint32_t kLargestOffered = 65535;

/// One NBL in a call by default; with more of them the driver's cost of a call is shared.
constexpr std::uint32_t kDefaultNblsPerCall = 1;
constexpr std::uint32_t kFastNblsPerCall = 32;

/// The frame's length, or the length of its MDL chain if that is less.
ULONG DescribedLength(PNET_BUFFER buffer) {
    ULONG left = buffer->DataLength;
    ULONG offset = buffer->CurrentMdlOffset;
    for (PMDL mdl = buffer->CurrentMdl; mdl != nullptr && left > 0; mdl = mdl->Next) {
        left -= std::min(left, mdl->ByteCount - offset);
        offset = 0;
    }
    return buffer->DataLength - left;
}

bool IsAddressedTo(const CaptureFrame& frame, const host::MacAddress& address) {
    static constexpr std::uint8_t kBroadcast[kMacLength] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    return frame.capturedLength >= kMacLength &&
           (std::memcmp(frame.bytes, address.data(), kMacLength) == 0 ||
            std::memcmp(frame.bytes, kBroadcast, kMacLength) == 0);
}

/// Whether frames of one direction may wait for those of the other: not if the user sees the order,
/// as with log lines, held or injected frames, or has said which calls are to be made.
bool MayMergeDirections(const ReplayOptions& options) {
    const auto onlyDropsOrCounts = [](const HookOption& hook) {
        return hook.kind == HookKind::kDrop || hook.kind == HookKind::kCount;
    };
    return std::all_of(options.hooks.begin(), options.hooks.end(), onlyDropsOrCounts) &&
           options.inject.empty() && !options.pauseAt && !options.nblsPerCall &&
           options.framesPerNbl == 1;
}

}  // namespace

void FrameExchange::Connect(host::Machine& machine, host::Stack& stack, ReplayClock& clock) {
    stack_ = &stack;
    clock_ = &clock;
    nblsPerCall_ = options_.nblsPerCall.value_or(
        machine.scheduler().simulated() ? kDefaultNblsPerCall : kFastNblsPerCall);
    mergesDirections_ = !machine.scheduler().simulated() && MayMergeDirections(options_);
    host::Adapter& adapter = stack.adapter();
    host::Protocol& protocol = stack.protocol();
    Path& sent = PathOf(Direction::kSent);
    Path& received = PathOf(Direction::kReceived);
    sent.pool = protocol.pool();
    received.pool = adapter.pool();
    for (Path& path : paths_) {
        path.frames = std::make_unique<host::NblFactory>(machine, path.pool);
    }
    adapter.onSend = [&](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG) { Deliver(chain, sent); };
    protocol.onReceive = [&](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG, ULONG) {
        Deliver(chain, received);
    };
    protocol.onSendComplete = [&](PNET_BUFFER_LIST chain, ULONG) { TakeBack(chain, sent); };
    adapter.onReturned = [&](PNET_BUFFER_LIST chain, ULONG) { TakeBack(chain, received); };
}

void FrameExchange::SetDirection(Direction direction) {
    if (direction != direction_ && !mergesDirections_) {
        Flush();
    }
    direction_ = direction;
}

void FrameExchange::Push(Direction direction, const CaptureFrame& frame, std::uint64_t number) {
    Path& path = PathOf(direction);
    latestIn_ = number;
    ++path.counts.frames;
    if (!options_.hooks.empty()) {
        CountFacts(path, frame);
    }
    const FrameTag tag{frame.stamp.seconds, frame.stamp.nanoseconds, frame.originalLength, number};
    std::span<const std::uint8_t> bytes(frame.bytes, frame.capturedLength);
    host::OffloadInfo info;
    host::FrameBytes offloaded;
    if (options_.offload) {
        offloaded.assign(bytes.begin(), bytes.end());
        info = direction == Direction::kSent ? host::LeaveToAdapter(offloaded)
                                             : host::OffloadReceive(offloaded);
        bytes = offloaded;
    }
    if (options_.framesPerNbl == 1) {
        AddNbl({&bytes, 1}, {&tag, 1}, info);
    } else {
        Gather(bytes, tag, info);
    }
    if (path.nbls >= nblsPerCall_) {
        Flush();
    }
}

/// The frames of an NBL share its out-of-band data: one that has other data begins an NBL.
void FrameExchange::Gather(std::span<const std::uint8_t> frame,
                           const FrameTag& tag,
                           const host::OffloadInfo& info) {
    if (info != gathered_.info) {
        CloseNbl();
    }
    gathered_.info = info;
    gathered_.bytes.insert(gathered_.bytes.end(), frame.begin(), frame.end());
    gathered_.lengths.push_back(static_cast<std::uint32_t>(frame.size()));
    gathered_.tags.push_back(tag);
    if (gathered_.tags.size() == options_.framesPerNbl) {
        CloseNbl();
    }
}

void FrameExchange::CountFacts(Path& path, const CaptureFrame& frame) const {
    UninspectedCounts& counts = path.counts.uninspected;
    if (frame.capturedLength > kLargestOffered) {
        ++counts.tooLarge;
    } else if (frame.capturedLength == 0) {
        ++counts.copyFailed;
    } else if (path.direction == Direction::kReceived &&
               !IsAddressedTo(frame, stack_->adapter().options().mac)) {
        ++counts.notAddressed;
    }
}

void FrameExchange::CloseNbl() {
    if (gathered_.tags.empty()) {
        return;
    }
    std::vector<std::span<const std::uint8_t>> frames;
    frames.reserve(gathered_.lengths.size());
    const std::uint8_t* at = gathered_.bytes.data();
    for (const std::uint32_t length : gathered_.lengths) {
        frames.emplace_back(at, length);
        at += length;
    }
    AddNbl(frames, gathered_.tags, gathered_.info);
    gathered_.bytes.clear();
    gathered_.lengths.clear();
    gathered_.tags.clear();
}

void FrameExchange::AddNbl(std::span<const std::span<const std::uint8_t>> frames,
                           std::span<const FrameTag> tags,
                           const host::OffloadInfo& info) {
    Path& path = PathOf(direction_);
    const std::lock_guard<ExchangeLock> guard(lock_);
    PNET_BUFFER_LIST const nbl = path.frames->Make(frames);
    if (nbl == nullptr) {
        return;
    }
    host::SetOffloadInfo(*nbl, info);
    PNET_BUFFER buffer = nbl->FirstNetBuffer;
    for (const FrameTag& tag : tags) {
        TagOf(*buffer, path.originator) = tag;
        ArrivalsOf(*buffer, path.originator) = 0;
        buffer = buffer->Next;
    }
    (path.head == nullptr ? path.head : path.tail->Next) = nbl;
    path.tail = nbl;
    ++path.nbls;
}

void FrameExchange::Flush() {
    CloseNbl();
    for (Path& path : paths_) {
        Submit(path);
    }
    if (mergesDirections_ && writer_ != nullptr) {
        const std::lock_guard<ExchangeLock> guard(lock_);
        merge_.WriteTo(*writer_);
    }
}

void FrameExchange::Submit(Path& path) {
    PNET_BUFFER_LIST const chain = std::exchange(path.head, nullptr);
    path.nbls = 0;
    if (chain == nullptr) {
        return;
    }
    variation_.Make([&] {
        if (path.direction == Direction::kSent) {
            stack_->protocol().Send(chain);
        } else {
            Indicate(chain);
        }
    });
}

void FrameExchange::Indicate(PNET_BUFFER_LIST chain) {
    const ULONG flags = options_.resourcesFlag ? NDIS_RECEIVE_FLAGS_RESOURCES : 0;
    const bool taken = stack_->adapter().Indicate(chain, 0, flags);
    if (!taken || options_.resourcesFlag) {
        TakeBack(chain, PathOf(Direction::kReceived));
    }
}

/// NBLs have arrived at the other end of the stack.
void FrameExchange::Deliver(PNET_BUFFER_LIST chain, Path& path) {
    const std::lock_guard<ExchangeLock> guard(lock_);
    for (PNET_BUFFER_LIST nbl = chain; nbl != nullptr; nbl = nbl->Next) {
        if (nbl->NdisPoolHandle != path.pool) {
            DeliverDriverNbl(nbl, path);
            continue;
        }
        for (PNET_BUFFER buffer = nbl->FirstNetBuffer; buffer != nullptr; buffer = buffer->Next) {
            DeliverTagged(nbl, buffer, path);
        }
    }
}

/// An NBL that a driver originated: each frame is injected, unless it is the clone of a pending
/// one.
void FrameExchange::DeliverDriverNbl(PNET_BUFFER_LIST nbl, Path& path) {
    const auto own = ReadDriverNbl(nbl);
    const bool expected = own && release_ != nullptr && own->nirp == release_->clone;
    const bool again = expected && release_->deliveries++ != 0;
    for (PNET_BUFFER buffer = nbl->FirstNetBuffer; buffer != nullptr; buffer = buffer->Next) {
        const bool held = own && own->clone && !again;
        ++(held ? path.counts.reinjected : path.counts.injected);
        injectedNow_ += !held && injector_ == host::CurrentContext().id ? 1 : 0;
        Write(nbl, buffer,
              {path.direction, clock_->Now(),
               expected ? std::optional(release_->originalLength) : std::nullopt,
               expected ? release_->number : latestIn_});
    }
}

void FrameExchange::Expect(Release* release) {
    const std::lock_guard<ExchangeLock> guard(lock_);
    release_ = release;
}

bool FrameExchange::Inject(const HookExports& exports, const CaptureFrame& frame) {
    const auto begin = [&](std::optional<std::uint32_t> context) {
        const std::lock_guard<ExchangeLock> guard(lock_);
        injector_ = context;
        return std::exchange(injectedNow_, 0);
    };
    variation_.Make([&] {
        begin(host::CurrentContext().id);
        exports.sendPacket(nullptr, frame.bytes, frame.capturedLength);
    });
    return begin(std::nullopt) != 0;
}

void FrameExchange::DeliverTagged(PNET_BUFFER_LIST nbl, PNET_BUFFER buffer, Path& path) {
    const FrameTag& tag = TagOf(*buffer, path.originator);
    // A frame that arrives again counts as injected.
    ++(++ArrivalsOf(*buffer, path.originator) == 1 ? path.counts.passed : path.counts.injected);
    std::uint64_t& latest = mergesDirections_ ? path.latestOut : latestOut_;
    path.counts.reordered += tag.number < latest ? 1 : 0;
    latest = std::max(latest, tag.number);
    Write(nbl, buffer, {path.direction, tag.Stamp(), tag.originalLength, tag.number});
}

void FrameExchange::TakeBack(PNET_BUFFER_LIST chain, Path& path) {
    const std::lock_guard<ExchangeLock> guard(lock_);
    for (PNET_BUFFER_LIST nbl = chain; nbl != nullptr; nbl = nbl->Next) {
        for (PNET_BUFFER buffer = nbl->FirstNetBuffer; buffer != nullptr; buffer = buffer->Next) {
            path.counts.cameBack += ArrivalsOf(*buffer, path.originator) == 0 ? 1 : 0;
        }
    }
    path.frames->FreeChain(chain);
}

void FrameExchange::Write(PNET_BUFFER_LIST nbl, PNET_BUFFER buffer, const Arrival& arrival) {
    if (writer_ == nullptr) {
        return;
    }
    if (!CaptureWriter::CanRepresent(arrival.stamp)) {
        if (report_.notRepresentable++ == 0) {
            report_.firstNotRepresentable = arrival.number;
        }
        return;
    }
    options_.offload ? WriteFinished(nbl, buffer, arrival) : WriteMdls(buffer, arrival);
}

void FrameExchange::WriteMdls(PNET_BUFFER buffer, const Arrival& arrival) {
    ULONG left = DescribedLength(buffer);
    BeginFrame(arrival, left);
    ULONG offset = buffer->CurrentMdlOffset;
    for (PMDL mdl = buffer->CurrentMdl; left > 0; mdl = mdl->Next) {
        const ULONG take = std::min(left, mdl->ByteCount - offset);
        const auto* bytes = static_cast<const std::uint8_t*>(host::DescribedBuffer(*mdl));
        AppendBytes(bytes + offset, take);
        left -= take;
        offset = 0;
    }
}

/// As the adapter sends it, or as it received it.
void FrameExchange::WriteFinished(PNET_BUFFER_LIST nbl,
                                  PNET_BUFFER buffer,
                                  const Arrival& arrival) {
    const host::OffloadInfo info = host::OffloadInfoOf(*nbl);
    host::FrameBytes frame = host::NblFactory::BytesOf(*buffer);
    const host::FrameBytes whole = arrival.direction == Direction::kSent
                                       ? host::WireFrames(std::move(frame), info).front()
                                       : host::AsReceived(std::move(frame), info);
    BeginFrame(arrival, whole.size());
    AppendBytes(whole.data(), whole.size());
}

void FrameExchange::BeginFrame(const Arrival& arrival, std::size_t length) {
    const auto captured = static_cast<std::uint32_t>(length);
    const std::uint32_t original = arrival.originalLength.value_or(captured);
    mergesDirections_
        ? merge_.Begin(arrival.direction, arrival.number, arrival.stamp, captured, original)
        : writer_->Begin(arrival.stamp, captured, original);
}

void FrameExchange::AppendBytes(const std::uint8_t* bytes, std::size_t size) {
    mergesDirections_ ? merge_.Append(bytes, size) : writer_->Append(bytes, size);
}

DirectionCounts FrameExchange::Counts(Direction direction, const OfferCounts* offers) const {
    DirectionCounts counts = paths_[static_cast<std::size_t>(direction)].counts;
    if (offers != nullptr) {
        counts.keptByHooks = offers->Withheld(direction);
        // The frames that could have been offered and were not: the driver had no NIRP for them.
        const std::uint64_t accounted = offers->Offered(direction) + counts.uninspected.Total();
        counts.uninspected.poolEmpty = counts.frames - std::min(counts.frames, accounted);
    }
    return counts;
}

int FrameExchange::NblsOutstanding() const {
    int away = 0;
    for (const Path& path : paths_) {
        away += path.pool->live;
    }
    return away;
}

}  // namespace netsieve::tool
