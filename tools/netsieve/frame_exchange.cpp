#include "tools/netsieve/frame_exchange.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <utility>

#include "host/ndis/data_path.h"
#include "tools/netsieve/driver_structures.h"

namespace netsieve::tool {
namespace {

constexpr std::uint32_t kLargestOffered = 65535;

/// One frame after the other shows each of them alone; together they share the driver's cost per
/// call.
constexpr std::uint32_t kCarefulNblsPerCall = 1;
constexpr std::uint32_t kFastNblsPerCall = 32;

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

bool IsAddressedTo(const CaptureFrame& frame, const host::MacAddress& address) {
    static constexpr std::uint8_t kBroadcast[kMacLength] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    return frame.capturedLength >= kMacLength &&
           (std::memcmp(frame.bytes, address.data(), kMacLength) == 0 ||
            std::memcmp(frame.bytes, kBroadcast, kMacLength) == 0);
}

/// Only what nobody can tell from frames that were handed in one by one: no line is printed for a
/// frame, none is held or sent, and the user has not said which calls are to be made.
bool MayMix(const ReplayOptions& options) {
    const auto staysSilent = [](const HookOption& hook) {
        return hook.kind == HookKind::kDrop || hook.kind == HookKind::kCount;
    };
    return std::all_of(options.hooks.begin(), options.hooks.end(), staysSilent) &&
           options.inject.empty() && !options.pauseAt && !options.nblsPerCall &&
           options.framesPerNbl == 1;
}

}  // namespace

void FrameExchange::Connect(host::Machine& machine, host::Stack& stack, ReplayClock& clock) {
    stack_ = &stack;
    clock_ = &clock;
    nblsPerCall_ = options_.nblsPerCall.value_or(
        machine.scheduler().simulated() ? kCarefulNblsPerCall : kFastNblsPerCall);
    mixes_ = !machine.scheduler().simulated() && MayMix(options_);
    host::Adapter& adapter = stack.adapter();
    host::Protocol& protocol = stack.protocol();
    Way& sent = Of(Direction::kSent);
    Way& received = Of(Direction::kReceived);
    sent.pool = protocol.pool();
    received.pool = adapter.pool();
    for (Way& way : ways_) {
        way.frames = std::make_unique<host::NblFactory>(machine, way.pool);
    }
    adapter.onSend = [&](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG) { Deliver(chain, sent); };
    protocol.onReceive = [&](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG, ULONG) {
        Deliver(chain, received);
    };
    protocol.onSendComplete = [&](PNET_BUFFER_LIST chain, ULONG) { TakeBack(chain, sent); };
    adapter.onReturned = [&](PNET_BUFFER_LIST chain, ULONG) { TakeBack(chain, received); };
}

void FrameExchange::Turn(Direction way) {
    if (way != turn_ && !mixes_) {
        Flush();
    }
    turn_ = way;
}

void FrameExchange::Push(Direction direction, const CaptureFrame& frame, std::uint64_t number) {
    Way& way = Of(direction);
    latestIn_ = number;
    ++way.counts.frames;
    if (!options_.hooks.empty()) {
        CountFacts(way, frame);
    }
    const FrameTag tag{frame.stamp.seconds, frame.stamp.nanoseconds, frame.originalLength, number,
                       0};
    if (options_.framesPerNbl == 1) {
        const std::span<const std::uint8_t> bytes(frame.bytes, frame.capturedLength);
        AddNbl({&bytes, 1}, {&tag, 1});
    } else {
        gathered_.bytes.insert(gathered_.bytes.end(), frame.bytes,
                               frame.bytes + frame.capturedLength);
        gathered_.lengths.push_back(frame.capturedLength);
        gathered_.tags.push_back(tag);
        if (gathered_.tags.size() == options_.framesPerNbl) {
            CloseNbl();
        }
    }
    if (way.nbls >= nblsPerCall_) {
        Flush();
    }
}

void FrameExchange::CountFacts(Way& way, const CaptureFrame& frame) const {
    UninspectedCounts& counts = way.counts.uninspected;
    if (frame.capturedLength > kLargestOffered) {
        ++counts.tooLarge;
    } else if (frame.capturedLength == 0) {
        ++counts.copyFailed;
    } else if (way.direction == Direction::kReceived &&
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
    AddNbl(frames, gathered_.tags);
    gathered_.bytes.clear();
    gathered_.lengths.clear();
    gathered_.tags.clear();
}

void FrameExchange::AddNbl(std::span<const std::span<const std::uint8_t>> frames,
                           std::span<const FrameTag> tags) {
    Way& way = Of(turn_);
    const std::lock_guard<ExchangeLock> guard(lock_);
    PNET_BUFFER_LIST const nbl = way.frames->Make(frames);
    if (nbl == nullptr) {
        return;
    }
    PNET_BUFFER buffer = nbl->FirstNetBuffer;
    for (const FrameTag& tag : tags) {
        TagOf(*buffer, way.originator) = tag;
        buffer = buffer->Next;
    }
    (way.head == nullptr ? way.head : way.tail->Next) = nbl;
    way.tail = nbl;
    ++way.nbls;
}

void FrameExchange::Flush() {
    CloseNbl();
    for (Way& way : ways_) {
        HandIn(way);
    }
    if (mixes_ && writer_ != nullptr) {
        const std::lock_guard<ExchangeLock> guard(lock_);
        merge_.WriteTo(*writer_);
    }
}

void FrameExchange::HandIn(Way& way) {
    PNET_BUFFER_LIST const chain = std::exchange(way.head, nullptr);
    way.nbls = 0;
    if (chain == nullptr) {
        return;
    }
    if (way.direction == Direction::kSent) {
        stack_->protocol().Send(chain);
    } else {
        Indicate(chain);
    }
}

void FrameExchange::Indicate(PNET_BUFFER_LIST chain) {
    const ULONG flags = options_.resourcesFlag ? NDIS_RECEIVE_FLAGS_RESOURCES : 0;
    const bool taken = stack_->adapter().Indicate(chain, 0, flags);
    if (!taken || options_.resourcesFlag) {
        TakeBack(chain, Of(Direction::kReceived));
    }
}

/// NBLs have come out at the end opposite to their originator, or to where the driver wants them
/// to seem to come from.
void FrameExchange::Deliver(PNET_BUFFER_LIST chain, Way& way) {
    const std::lock_guard<ExchangeLock> guard(lock_);
    for (PNET_BUFFER_LIST nbl = chain; nbl != nullptr; nbl = nbl->Next) {
        if (nbl->NdisPoolHandle != way.pool) {
            DeliverDriverNbl(nbl, way);
            continue;
        }
        for (PNET_BUFFER buffer = nbl->FirstNetBuffer; buffer != nullptr; buffer = buffer->Next) {
            DeliverTagged(buffer, TagOf(*buffer, way.originator), way);
        }
    }
}

/// An NBL that a driver built. Every buffer of it is a frame that nobody handed in, but for the
/// copy of one that a hook had taken over.
void FrameExchange::DeliverDriverNbl(PNET_BUFFER_LIST nbl, Way& way) {
    const auto own = ReadDriverNbl(nbl);
    const bool expected = own && release_ != nullptr && own->record == release_->clone;
    const bool again = expected && release_->deliveries++ != 0;
    for (PNET_BUFFER buffer = nbl->FirstNetBuffer; buffer != nullptr; buffer = buffer->Next) {
        const bool held = own && own->clone && !again;
        ++(held ? way.counts.reinjected : way.counts.injected);
        injectedNow_ += !held && injector_ == host::CurrentContext().id ? 1 : 0;
        Write(buffer, way.direction, clock_->Now(),
              expected ? release_->originalLength : buffer->DataLength,
              expected ? release_->number : latestIn_);
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
    begin(host::CurrentContext().id);
    exports.sendPacket(nullptr, frame.bytes, frame.capturedLength);
    return begin(std::nullopt) != 0;
}

void FrameExchange::DeliverTagged(PNET_BUFFER buffer, FrameTag& tag, Way& way) {
    // The same frame once more is one that nobody handed in.
    ++(++tag.deliveries == 1 ? way.counts.passed : way.counts.injected);
    std::uint64_t& latest = mixes_ ? way.latestOut : latestOut_;
    way.counts.reordered += tag.number < latest ? 1 : 0;
    latest = std::max(latest, tag.number);
    Write(buffer, way.direction, tag.Stamp(), tag.originalLength, tag.number);
}

void FrameExchange::TakeBack(PNET_BUFFER_LIST chain, Way& way) {
    const std::lock_guard<ExchangeLock> guard(lock_);
    for (PNET_BUFFER_LIST nbl = chain; nbl != nullptr; nbl = nbl->Next) {
        for (PNET_BUFFER buffer = nbl->FirstNetBuffer; buffer != nullptr; buffer = buffer->Next) {
            way.counts.cameBack += TagOf(*buffer, way.originator).deliveries == 0 ? 1 : 0;
        }
    }
    way.frames->FreeChain(chain);
}

void FrameExchange::Write(PNET_BUFFER buffer,
                          Direction way,
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
    mixes_ ? merge_.Begin(way, number, stamp, left, originalLength)
           : writer_->Begin(stamp, left, originalLength);
    ULONG offset = buffer->CurrentMdlOffset;
    for (PMDL mdl = buffer->CurrentMdl; left > 0; mdl = mdl->Next) {
        const ULONG take = std::min(left, mdl->ByteCount - offset);
        const auto* bytes = static_cast<const std::uint8_t*>(mdl->StartVa) + mdl->ByteOffset;
        mixes_ ? merge_.Append(bytes + offset, take) : writer_->Append(bytes + offset, take);
        left -= take;
        offset = 0;
    }
}

DirectionCounts FrameExchange::Counts(Direction direction, const OfferCounts* offers) const {
    DirectionCounts counts = ways_[static_cast<std::size_t>(direction)].counts;
    if (offers != nullptr) {
        counts.keptByHooks = offers->Withheld(direction);
        // What could have been shown and was not: the driver had nothing left to show it in.
        const std::uint64_t accounted = offers->Offered(direction) + counts.uninspected.Total();
        counts.uninspected.poolEmpty = counts.frames - std::min(counts.frames, accounted);
    }
    return counts;
}

int FrameExchange::NblsOutstanding() const {
    int away = 0;
    for (const Way& way : ways_) {
        away += way.pool->live;
    }
    return away;
}

}  // namespace netsieve::tool
