#include "host/verifier/lock_tracker.h"

#include <fmt/format.h>

#include <algorithm>

namespace netsieve::host {

namespace {

// A lock's word: 16 bits that say the verifier knows it, the record's index, and the held bit.
constexpr KSPIN_LOCK kMark = 0x5A5Eull << 48;
constexpr KSPIN_LOCK kMarkMask = 0xFFFFull << 48;

KSPIN_LOCK FreeWord(std::uint32_t record) {
    return kMark | static_cast<KSPIN_LOCK>(record) << 1;
}

KSPIN_LOCK LoadWord(PKSPIN_LOCK lock) {
    return __atomic_load_n(lock, __ATOMIC_RELAXED);
}

}  // namespace

LockTracker::LockTracker(Verifier& verifier, std::function<std::string(const void*)> describe)
    : verifier_(verifier), describe_(std::move(describe)) {}

std::uint32_t LockTracker::Register(PKSPIN_LOCK lock) {
    std::uint32_t index = 0;
    if (free_.empty()) {
        index = static_cast<std::uint32_t>(records_.size());
        records_.emplace_back();
    } else {
        index = free_.back();
        free_.pop_back();
    }
    records_[index] = {.lock = lock};
    byAddress_[reinterpret_cast<std::uintptr_t>(lock)] = index;
    __atomic_store_n(lock, FreeWord(index), __ATOMIC_RELEASE);
    return index;
}

std::uint32_t LockTracker::Resolve(PKSPIN_LOCK lock) {
    const KSPIN_LOCK word = LoadWord(lock);
    const std::uint64_t index = (word & ~kMarkMask) >> 1;
    if ((word & kMarkMask) == kMark && index < records_.size() && records_[index].lock == lock) {
        return static_cast<std::uint32_t>(index);
    }
    const auto known = byAddress_.find(reinterpret_cast<std::uintptr_t>(lock));
    if (known != byAddress_.end() && records_[known->second].held) {
        CheckHeldWord(known->second);
        return known->second;
    }
    if (word != 0 || !acceptZero_) {
        verifier_.Report(Rule::kLockUninitialised,
                         fmt::format("lock in {} holds {:#x}, which no initialisation wrote",
                                     describe_(lock), word));
    }
    return Register(lock);
}

void LockTracker::CheckHeldWord(std::uint32_t record, CheckSite site) {
    PKSPIN_LOCK const lock = records_[record].lock;
    const KSPIN_LOCK expected = FreeWord(record) | 1;
    if (const KSPIN_LOCK word = LoadWord(lock); word != expected) {
        verifier_.Report(
            Rule::kLockOverwritten,
            fmt::format("the word of the lock in {}, which is held, is {:#x} and was {:#x}",
                        describe_(lock), word, expected),
            site);
        __atomic_store_n(lock, expected, __ATOMIC_RELEASE);
    }
}

std::string LockTracker::Name(std::uint32_t record) const {
    return describe_(records_[record].lock);
}

void LockTracker::Initialise(PKSPIN_LOCK lock) {
    HostLock guard(mutex_);
    const auto known = byAddress_.find(reinterpret_cast<std::uintptr_t>(lock));
    if (known == byAddress_.end()) {
        Register(lock);
        return;
    }
    if (records_[known->second].held) {
        verifier_.Report(Rule::kLockReinitialised,
                         fmt::format("lock in {} is initialised while held", describe_(lock)));
        return;
    }
    __atomic_store_n(lock, FreeWord(known->second), __ATOMIC_RELEASE);
}

bool LockTracker::BeforeAcquire(PKSPIN_LOCK lock, bool atDpc) {
    Context& context = CurrentContext();
    HostLock guard(mutex_);
    const std::uint32_t record = Resolve(lock);
    if (atDpc && context.irql != DISPATCH_LEVEL) {
        verifier_.Report(Rule::kLockForm, fmt::format("at-DPC acquire of lock in {} at IRQL {}",
                                                      Name(record), context.irql));
    }
    if (!atDpc && context.irql > DISPATCH_LEVEL) {
        verifier_.Report(
            Rule::kDispatchLevelExceeded,
            fmt::format("acquire of lock in {} at IRQL {}", Name(record), context.irql));
    }
    for (HeldLock& held : context.held) {
        if (held.lock == lock) {
            ++held.again;
            verifier_.Report(Rule::kLockRecursion,
                             fmt::format("lock in {} acquired again by its owner", Name(record)));
            return false;
        }
    }
    NoteOrder(record);
    return true;
}

void LockTracker::NoteOrder(std::uint32_t record) {
    for (const HeldLock& held : CurrentContext().held) {
        std::vector<std::uint32_t>& after = records_[held.record].after;
        if (std::find(after.begin(), after.end(), record) != after.end()) {
            continue;
        }
        if (Reaches(record, held.record)) {
            verifier_.Report(Rule::kLockOrder,
                             fmt::format("lock in {} acquired while lock in {} is held; the other "
                                         "order was seen before",
                                         Name(record), Name(held.record)));
        }
        after.push_back(record);
    }
}

bool LockTracker::Reaches(std::uint32_t from, std::uint32_t to) const {
    std::vector<std::uint32_t> open{from};
    std::vector<bool> seen(records_.size());
    while (!open.empty()) {
        const std::uint32_t next = open.back();
        open.pop_back();
        if (next == to) {
            return true;
        }
        if (!seen[next]) {
            seen[next] = true;
            open.insert(open.end(), records_[next].after.begin(), records_[next].after.end());
        }
    }
    return false;
}

void LockTracker::AfterAcquire(PKSPIN_LOCK lock, bool atDpc, KIRQL savedIrql) {
    HostLock guard(mutex_);
    const std::uint32_t record = Resolve(lock);
    records_[record].held = true;
    CurrentContext().held.push_back({lock, record, savedIrql, atDpc});
}

bool LockTracker::BeforeRelease(PKSPIN_LOCK lock, bool atDpc, KIRQL newIrql) {
    Context& context = CurrentContext();
    const auto held = std::find_if(context.held.begin(), context.held.end(),
                                   [&](const HeldLock& entry) { return entry.lock == lock; });
    if (held == context.held.end()) {
        verifier_.Report(
            Rule::kLockOwner,
            fmt::format("lock in {} released by a context that does not hold it", describe_(lock)));
        return false;
    }
    if (held->again > 0) {
        --held->again;
        return false;
    }
    if (held->atDpc != atDpc) {
        verifier_.Report(Rule::kLockForm,
                         fmt::format("lock in {} acquired {} and released {}", describe_(lock),
                                     held->atDpc ? "at DPC level" : "raising",
                                     atDpc ? "at DPC level" : "lowering"));
    } else if (!atDpc && held->savedIrql != newIrql) {
        verifier_.Report(Rule::kLockForm,
                         fmt::format("lock in {} released to IRQL {}, but {} was saved",
                                     describe_(lock), newIrql, held->savedIrql));
    } else if (context.irql != DISPATCH_LEVEL) {
        verifier_.Report(Rule::kLockForm, fmt::format("lock in {} released at IRQL {}",
                                                      describe_(lock), context.irql));
    }
    const bool freed = held->freed;
    if (!freed) {
        HostLock guard(mutex_);
        CheckHeldWord(held->record);
        records_[held->record].held = false;
    }
    context.held.erase(held);
    return !freed;
}

void LockTracker::ForgetRange(const void* start, std::size_t size) {
    HostLock guard(mutex_);
    const auto first = reinterpret_cast<std::uintptr_t>(start);
    auto it = byAddress_.lower_bound(first);
    while (it != byAddress_.end() && it->first < first + size) {
        const std::uint32_t index = it->second;
        if (records_[index].held) {
            verifier_.Report(Rule::kLockInFreedMemory,
                             fmt::format("lock in {} is held", Name(index)));
            for (HeldLock& held : CurrentContext().held) {
                held.freed = held.freed || held.lock == records_[index].lock;
            }
        }
        for (Record& record : records_) {
            std::erase(record.after, index);
        }
        records_[index] = {};
        free_.push_back(index);
        it = byAddress_.erase(it);
    }
}

}  // namespace netsieve::host
