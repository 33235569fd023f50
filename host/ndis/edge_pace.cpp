#include "host/ndis/edge_pace.h"

#include <algorithm>

#include "host/machine.h"

namespace netsieve::host {

EdgePace::EdgePace(Machine& machine, std::string name, std::uint64_t seed, Release release)
    : machine_(machine), name_(std::move(name)), release_(std::move(release)), random_(seed) {}

void EdgePace::Take(PNET_BUFFER_LIST chain, bool dispatch) {
    if (pace_ == Pace::kInline) {
        release_(chain, dispatch);
        return;
    }
    if (pace_ == Pace::kForwarded) {
        return;
    }
    PNET_BUFFER_LIST atOnce = nullptr;
    PNET_BUFFER_LIST* tail = &atOnce;
    bool deferred = false;
    {
        HostLock lock(mutex_);
        while (chain != nullptr) {
            PNET_BUFFER_LIST const list = chain;
            chain = list->Next;
            list->Next = nullptr;
            if ((pace_ == Pace::kMixed && random_.OneIn(2)) ||
                (pace_ == Pace::kHold && draining_)) {
                *tail = list;
                tail = &list->Next;
            } else {
                held_.push_back(list);
                deferred = true;
            }
        }
    }
    if (deferred && pace_ != Pace::kHold) {
        Schedule();
    }
    if (atOnce != nullptr) {
        release_(atOnce, dispatch);
    }
}

void EdgePace::Schedule() {
    unsigned processor = 0;
    bool dispatch = true;
    {
        HostLock lock(mutex_);
        processor = static_cast<unsigned>(random_.Below(machine_.scheduler().Processors()));
        dispatch = !random_.OneIn(4);
    }
    machine_.scheduler().Start({.name = name_,
                                .kind = dispatch ? ContextKind::kDpc : ContextKind::kWorker,
                                .processor = processor},
                               [this, dispatch] { ReleaseSome(dispatch); });
}

void EdgePace::ReleaseSome(bool dispatch) {
    PNET_BUFFER_LIST chain = nullptr;
    bool more = false;
    {
        HostLock lock(mutex_);
        if (held_.empty()) {
            return;
        }
        for (std::uint64_t count = 1 + random_.Below(held_.size()); count > 0; --count) {
            const auto at =
                held_.begin() + static_cast<std::ptrdiff_t>(random_.Below(held_.size()));
            (*at)->Next = chain;
            chain = *at;
            held_.erase(at);
        }
        more = !held_.empty();
    }
    if (more) {
        Schedule();
    }
    release_(chain, dispatch);
}

void EdgePace::ReleaseAll() {
    PNET_BUFFER_LIST chain = nullptr;
    {
        HostLock lock(mutex_);
        for (auto it = held_.rbegin(); it != held_.rend(); ++it) {
            (*it)->Next = chain;
            chain = *it;
        }
        held_.clear();
    }
    if (chain != nullptr) {
        release_(chain, CurrentContext().irql == DISPATCH_LEVEL);
    }
}

void EdgePace::SetDraining(bool draining) {
    {
        HostLock lock(mutex_);
        draining_ = draining;
    }
    if (draining) {
        ReleaseAll();
    }
}

std::size_t EdgePace::InHand() {
    HostLock lock(mutex_);
    return held_.size();
}

}  // namespace netsieve::host
