#include "host/ndis/nbl_queue.h"

#include <algorithm>

#include "host/machine.h"
#include "host/ndis/ndis.h"
#include "host/sched/happens_before.h"

namespace netsieve::host {

NblQueue::NblQueue(Machine& machine, std::string name, std::uint64_t seed, ReleaseFunction release)
    : machine_(machine), name_(std::move(name)), release_(std::move(release)), random_(seed) {}

void NblQueue::Add(PNET_BUFFER_LIST chain, bool dispatch) {
    if (mode_ == ReleaseMode::kInline) {
        release_(chain, dispatch);
        return;
    }
    if (mode_ == ReleaseMode::kForwarded) {
        return;
    }
    PNET_BUFFER_LIST atOnce = nullptr;
    PNET_BUFFER_LIST* tail = &atOnce;
    bool deferred = false;
    {
        HostLock lock(mutex_);
        while (chain != nullptr) {
            PNET_BUFFER_LIST const nbl = chain;
            chain = nbl->Next;
            nbl->Next = nullptr;
            if ((mode_ == ReleaseMode::kMixed && random_.OneIn(2)) ||
                (mode_ == ReleaseMode::kHold && draining_)) {
                *tail = nbl;
                tail = &nbl->Next;
            } else {
                PutAway(nbl);
                deferred = true;
            }
        }
    }
    if (deferred && mode_ != ReleaseMode::kHold) {
        Schedule();
    }
    if (atOnce != nullptr) {
        release_(atOnce, dispatch);
    }
}

// Nobody touches an NBL while it is queued.
void NblQueue::PutAway(PNET_BUFFER_LIST nbl) {
    NoteRelease(nbl);
    queued_.push_back({nbl, NET_BUFFER_LIST_INFO(nbl, NetBufferListCancelId)});
    if (machine_.verifier().enabled()) {
        machine_.ndis().nblPools().tracker().PutAway(nbl);
    }
}

PNET_BUFFER_LIST NblQueue::TakeUp(const Entry& entry, PNET_BUFFER_LIST next) {
    if (machine_.verifier().enabled()) {
        machine_.ndis().nblPools().tracker().TakeUp(entry.nbl);
    }
    NoteAcquire(entry.nbl);
    entry.nbl->Next = next;
    return entry.nbl;
}

void NblQueue::Schedule() {
    unsigned processor = 0;
    bool dispatch = true;
    {
        HostLock lock(mutex_);
        processor = static_cast<unsigned>(random_.Below(machine_.scheduler().processors()));
        dispatch = !random_.OneIn(4);
    }
    machine_.scheduler().Start({.name = name_,
                                .kind = dispatch ? ContextKind::kDpc : ContextKind::kWorker,
                                .processor = processor},
                               [this, dispatch] { ReleaseSome(dispatch); });
}

void NblQueue::ReleaseSome(bool dispatch) {
    PNET_BUFFER_LIST chain = nullptr;
    bool more = false;
    {
        HostLock lock(mutex_);
        if (queued_.empty()) {
            return;
        }
        for (std::uint64_t count = 1 + random_.Below(queued_.size()); count > 0; --count) {
            const auto at =
                queued_.begin() + static_cast<std::ptrdiff_t>(random_.Below(queued_.size()));
            chain = TakeUp(*at, chain);
            queued_.erase(at);
        }
        more = !queued_.empty();
    }
    if (more) {
        Schedule();
    }
    release_(chain, dispatch);
}

void NblQueue::ReleaseAll() {
    PNET_BUFFER_LIST chain = nullptr;
    {
        HostLock lock(mutex_);
        for (auto it = queued_.rbegin(); it != queued_.rend(); ++it) {
            chain = TakeUp(*it, chain);
        }
        queued_.clear();
    }
    if (chain != nullptr) {
        release_(chain, CurrentContext().irql == DISPATCH_LEVEL);
    }
}

PNET_BUFFER_LIST NblQueue::TakeCancelled(PVOID cancelId) {
    HostLock lock(mutex_);
    PNET_BUFFER_LIST chain = nullptr;
    std::erase_if(queued_, [&](const Entry& entry) {
        const bool cancelled = entry.cancelId == cancelId;
        chain = cancelled ? TakeUp(entry, chain) : chain;
        return cancelled;
    });
    return chain;
}

void NblQueue::SetDraining(bool draining) {
    {
        HostLock lock(mutex_);
        draining_ = draining;
    }
    if (draining) {
        ReleaseAll();
    }
}

std::size_t NblQueue::Queued() {
    HostLock lock(mutex_);
    return queued_.size();
}

}  // namespace netsieve::host
