#include "host/verifier/nbl_tracker.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>

#include "host/sched/happens_before.h"

namespace netsieve::host {

namespace {

constexpr const char* kVerbs[] = {"sent", "completed", "indicated", "returned"};

// The NBL's Scratch field after it was passed on: no driver may rely on its own value.
void* ScratchAfterTransfer() {
    return reinterpret_cast<void*>(0xBAD5C4A7C4BAD5C4ull);
}

bool IsOutward(NblTransfer transfer) {
    return transfer == NblTransfer::kSend || transfer == NblTransfer::kIndicate;
}

}  // namespace

void NblTracker::Route::Push(const Component& holder, PNET_BUFFER_LIST nbl) {
    if (size_ == stops_.size()) {
        stops_.emplace_back();
    }
    stops_[size_].holder = &holder;
    stops_[size_].given.Take(*nbl);
    ++size_;
}

const NblTracker::Stop* NblTracker::Route::Find(const Component& holder) const {
    for (std::size_t i = size_; i > 0; --i) {
        if (stops_[i - 1].holder == &holder) {
            return &stops_[i - 1];
        }
    }
    return nullptr;
}

void NblTracker::Route::CutAt(const Stop* stop) {
    size_ = static_cast<std::size_t>(stop - stops_.data());
}

std::string NblTracker::Route::GivenBy() const {
    return size_ < 2 ? "" : ", given to it by " + stops_[size_ - 2].holder->name;
}

void NblTracker::Add(PNET_BUFFER_LIST nbl, Component* owner) {
    HostLock lock(mutex_);
    Record& record = records_[nbl];
    record = {};
    record.id = nextId_++;
    record.owner = owner;
    record.holder = owner;
}

bool NblTracker::Remove(PNET_BUFFER_LIST nbl) {
    HostLock lock(mutex_);
    const auto it = records_.find(nbl);
    if (it == records_.end()) {
        verifier_.Report(Rule::kFreedNblUsed, "an NBL that is not allocated was freed");
        return false;
    }
    if (it->second.outstanding || it->second.previous) {
        Report(Rule::kNblNotOwned, it->second, "freed while it is outstanding");
        return false;
    }
    records_.erase(it);
    return true;
}

bool NblTracker::Contains(PNET_BUFFER_LIST nbl) {
    HostLock lock(mutex_);
    return records_.contains(nbl);
}

void NblTracker::TakeOwnership(PNET_BUFFER_LIST nbl, const Component& holder, Component& owner) {
    HostLock lock(mutex_);
    Record& record = records_.at(nbl);
    if (record.holder != &holder) {
        Report(Rule::kNblNotOwned, record,
               fmt::format("ownership taken from {}, which does not hold it", holder.name));
    }
    auto before = std::make_unique<Record>(std::move(record));
    record = {};
    record.id = before->id;
    record.owner = &owner;
    record.holder = &owner;
    record.previous = std::move(before);
}

void NblTracker::RestoreOwnership(PNET_BUFFER_LIST nbl) {
    HostLock lock(mutex_);
    Record& record = records_.at(nbl);
    if (record.outstanding) {
        Report(Rule::kNblNotOwned, record, "ownership restored while it is outstanding");
    }
    const std::unique_ptr<Record> before = std::move(record.previous);
    record = std::move(*before);
}

void NblTracker::PutAway(PNET_BUFFER_LIST nbl) {
    HostLock lock(mutex_);
    Record& record = records_.at(nbl);
    record.away = std::make_unique<NblSnapshot>();
    record.away->Take(*nbl);
    record.away->Hide();
}

void NblTracker::TakeUp(PNET_BUFFER_LIST nbl) {
    HostLock lock(mutex_);
    Record& record = records_.at(nbl);
    const std::unique_ptr<NblSnapshot> away = std::move(record.away);
    away->Reveal();
    if (const auto difference = away->FindTouched(*nbl)) {
        ReportWritten(record, *record.holder, *difference);
    }
}

void NblTracker::TakeUpAll() {
    HostLock lock(mutex_);
    for (auto& [nbl, record] : records_) {
        if (const std::unique_ptr<NblSnapshot> away = std::move(record.away)) {
            away->Reveal();
        }
    }
}

bool NblTracker::MayFreeMdl(const MDL* mdl) {
    HostLock lock(mutex_);
    const auto it = mdlsOut_.find(mdl);
    if (it == mdlsOut_.end()) {
        return true;
    }
    Report(Rule::kMdlInUse, records_.at(it->second),
           "an MDL was freed while its NBL is outstanding");
    return false;
}

std::vector<PNET_BUFFER_LIST> NblTracker::All() {
    HostLock lock(mutex_);
    std::vector<PNET_BUFFER_LIST> nbls;
    for (const auto& [nbl, record] : records_) {
        nbls.push_back(nbl);
    }
    return nbls;
}

ULONG NblTracker::Count(const NET_BUFFER_LIST* chain) {
    HostLock lock(mutex_);
    ULONG count = 0;
    while (chain != nullptr && count <= records_.size()) {
        ++count;
        const bool alive = records_.contains(const_cast<PNET_BUFFER_LIST>(chain));
        chain = alive ? chain->Next : nullptr;
    }
    return count;
}

void NblTracker::CheckRead(PNET_BUFFER_LIST nbl) {
    HostLock lock(mutex_);
    const auto it = records_.find(nbl);
    if (it == records_.end()) {
        verifier_.Report(Rule::kFreedNblUsed, "an NBL that is not allocated was read");
    } else if (it->second.holder->kind != ComponentKind::kFilterModule) {
        Report(Rule::kNblRead, it->second, "read by a driver that does not hold it");
    }
}

const Component* NblTracker::OwnerOf(PNET_BUFFER_LIST nbl) {
    HostLock lock(mutex_);
    const auto it = records_.find(nbl);
    return it == records_.end() ? nullptr : it->second.owner;
}

PNET_BUFFER_LIST NblTracker::Transfer(PNET_BUFFER_LIST chain,
                                      Component& from,
                                      Component& to,
                                      NblTransfer transfer,
                                      bool resources) {
    HostLock lock(mutex_);
    PNET_BUFFER_LIST head = nullptr;
    PNET_BUFFER_LIST* tail = &head;
    std::set<PNET_BUFFER_LIST> seen;
    for (PNET_BUFFER_LIST nbl = chain; nbl != nullptr && seen.insert(nbl).second;) {
        const bool known = records_.contains(nbl);
        const PNET_BUFFER_LIST next = known ? nbl->Next : nullptr;
        if (!known) {
            verifier_.Report(Rule::kFreedNblUsed,
                             fmt::format("an NBL that is not allocated was {} by {}",
                                         kVerbs[static_cast<int>(transfer)], from.name));
        } else if (TransferOne(nbl, from, to, transfer, resources)) {
            NotePassedOn(nbl);
            *tail = nbl;
            tail = &nbl->Next;
        }
        nbl = next;
    }
    *tail = nullptr;
    return head;
}

bool NblTracker::TransferOne(PNET_BUFFER_LIST nbl,
                             Component& from,
                             Component& to,
                             NblTransfer transfer,
                             bool resources) {
    Record& record = records_[nbl];
    if (!MayTransfer(nbl, record, from, transfer)) {
        return false;
    }
    if (!record.outstanding) {
        Originate(nbl, record, from);
        record.sent = transfer == NblTransfer::kSend;
    } else {
        CheckUnchanged(nbl, record, from, transfer);
    }
    record.resources = resources;
    Note(record, kVerbs[static_cast<int>(transfer)], &from, &to);
    record.holder = &to;
    if (&to == record.owner) {
        EndAtOwner(nbl, record);
    } else if ((transfer == NblTransfer::kSendComplete && to.kind == ComponentKind::kProtocol) ||
               (transfer == NblTransfer::kReturn && to.kind == ComponentKind::kAdapter)) {
        // Its owner is a filter module that did not get it back.
        Report(Rule::kOriginatedNblPassedOn, record, "completed or returned past its owner");
        record.holder = record.owner;
        EndAtOwner(nbl, record);
        return false;
    } else {
        NoteArrival(nbl, record, to, transfer);
    }
    nbl->Scratch = ScratchAfterTransfer();
    return true;
}

std::pair<Rule, const char*> NblTracker::Objection(const Record& record,
                                                   const Component& from,
                                                   NblTransfer transfer) {
    const bool outward = IsOutward(transfer);
    const bool asSent = transfer == NblTransfer::kSend || transfer == NblTransfer::kSendComplete;
    if (record.holder != &from) {
        return record.lastResourcesHolder == &from
                   ? std::pair{Rule::kResourcesNblKept,
                               ", whose call with the resources flag has returned"}
                   : std::pair{Rule::kNblNotOwned, ", which does not hold it"};
    }
    if (!record.outstanding) {
        return {Rule::kOriginatedNblPassedOn, outward ? "" : ", which originated it"};
    }
    if (record.resources && transfer == NblTransfer::kReturn) {
        return {Rule::kResourcesNblReturned, ", which got it with the resources flag"};
    }
    return {Rule::kNblDirection, asSent == record.sent ? "" : ", though it is on the other path"};
}

bool NblTracker::MayTransfer(PNET_BUFFER_LIST nbl,
                             Record& record,
                             Component& from,
                             NblTransfer transfer) {
    const char* verb = kVerbs[static_cast<int>(transfer)];
    if (const auto [rule, why] = Objection(record, from, transfer); *why != '\0') {
        Report(rule, record, fmt::format("{} by {}{}", verb, from.name, why));
        return false;
    }
    if (record.outstanding && nbl->SourceHandle != record.source) {
        Report(Rule::kSourceHandle, record,
               fmt::format("{} by {} with a changed SourceHandle", verb, from.name));
        nbl->SourceHandle = record.source;
    }
    return true;
}

bool NblTracker::DropsResourcesFlag(PNET_BUFFER_LIST chain, const Component& from) {
    HostLock lock(mutex_);
    std::set<PNET_BUFFER_LIST> seen;
    while (chain != nullptr && seen.insert(chain).second) {
        const auto it = records_.find(chain);
        if (it == records_.end()) {
            return false;
        }
        if (it->second.resources && it->second.holder == &from) {
            Report(Rule::kResourcesFlagDropped, it->second,
                   fmt::format("indicated by {}", from.name));
            return true;
        }
        chain = chain->Next;
    }
    return false;
}

void NblTracker::Originate(PNET_BUFFER_LIST nbl, Record& record, Component& from) {
    if (nbl->SourceHandle != from.handle) {
        Report(Rule::kSourceHandle, record,
               fmt::format("originated by {} without its SourceHandle", from.name));
        nbl->SourceHandle = from.handle;
    }
    if (!from.mayOriginate) {
        Report(Rule::kOriginatedWhilePaused, record, fmt::format("by {}", from.name));
    }
    record.outstanding = true;
    record.lastResourcesHolder = nullptr;
    record.source = nbl->SourceHandle;
    record.context = nbl->Context;
    record.contextOffset = nbl->Context == nullptr ? 0 : nbl->Context->Offset;
    record.goingBack = false;
    record.changeReported = false;
    record.route.Clear();
    record.route.Push(from, nbl);
    ++from.originatedOutstanding;
    NoteMdlsOut(nbl, record);
}

void NblTracker::NoteMdlsOut(PNET_BUFFER_LIST nbl, const Record& record) {
    if (record.owner->kind == ComponentKind::kFilterModule) {
        for (const TakenCopy<MDL>& mdl : record.route.Owner().given.mdls()) {
            mdlsOut_.emplace(mdl.original, nbl);
        }
    }
}

void NblTracker::ForgetMdlsOut(PNET_BUFFER_LIST nbl, const Record& record) {
    if (record.owner->kind != ComponentKind::kFilterModule) {
        return;
    }
    for (const TakenCopy<MDL>& mdl : record.route.Owner().given.mdls()) {
        const auto [first, last] = mdlsOut_.equal_range(mdl.original);
        const auto it =
            std::find_if(first, last, [nbl](const auto& entry) { return entry.second == nbl; });
        if (it != last) {
            mdlsOut_.erase(it);
        }
    }
}

void NblTracker::EndAtOwner(PNET_BUFFER_LIST nbl, Record& record) {
    ForgetMdlsOut(nbl, record);
    record.outstanding = false;
    record.resources = false;
    --record.owner->originatedOutstanding;
    // Seen here only when it was changed by a driver that the NBL did not come back through.
    const NblLiberty liberty{.completed = record.sent,
                             .protocolReserved = !record.sent,
                             .miniportReserved = record.sent};
    const auto difference = record.changeReported
                                ? std::nullopt
                                : record.route.Owner().given.FindDifference(*nbl, liberty);
    if (difference) {
        Report(difference->rule, record,
               fmt::format("{} changed before it came back to its owner", difference->field));
    }
    if (nbl->Context != record.context ||
        (nbl->Context != nullptr && nbl->Context->Offset != record.contextOffset)) {
        Report(Rule::kContextLeft, record, "the context on top is not its owner's");
    }
}

void NblTracker::CheckUnchanged(PNET_BUFFER_LIST nbl,
                                Record& record,
                                const Component& from,
                                NblTransfer transfer) {
    if (from.kind != ComponentKind::kFilterModule) {
        CheckEndpoint(nbl, record, from);
    } else if (const auto difference = FindChangeByFilter(nbl, record, from, transfer);
               difference && !record.changeReported) {
        record.changeReported = true;
        Report(difference->rule, record,
               fmt::format("{} changed {}", from.name, difference->field));
    }
    if (const Stop* const stop = record.route.Find(from); stop != nullptr && !IsOutward(transfer)) {
        record.route.CutAt(stop);
    }
}

// A protocol or an adapter changes nothing but what is its own: any other difference was made by a
// driver that no longer held the NBL.
void NblTracker::CheckEndpoint(PNET_BUFFER_LIST nbl, Record& record, const Component& from) {
    const Stop* const stop = record.route.Find(from);
    const bool protocol = from.kind == ComponentKind::kProtocol;
    const NblLiberty liberty{.completed = !protocol && record.sent,
                             .protocolReserved = protocol,
                             .miniportReserved = !protocol};
    if (stop == nullptr || record.changeReported) {
        return;
    }
    if (const auto difference = stop->given.FindDifference(*nbl, liberty)) {
        ReportWritten(record, from, *difference);
    }
}

void NblTracker::ReportWritten(Record& record,
                               const Component& holder,
                               const NblDifference& difference,
                               CheckSite site) {
    record.changeReported = true;
    Report(Rule::kNblWritten, record,
           fmt::format("{} was written while {} held it{}", difference.field, holder.name,
                       record.route.GivenBy()),
           site);
}

// An NBL may travel with other NET_BUFFERs and bytes than it came with: those are compared when it
// goes back.
std::optional<NblDifference> NblTracker::FindChangeByFilter(PNET_BUFFER_LIST nbl,
                                                            const Record& record,
                                                            const Component& from,
                                                            NblTransfer transfer) {
    const Stop* const stop = record.route.Find(from);
    if (stop == nullptr && !record.goingBack) {
        return std::nullopt;
    }
    const NblHeader& header = record.goingBack ? record.givenBack : stop->given.header();
    const bool completes = !record.goingBack && transfer == NblTransfer::kSendComplete;
    if (const auto difference = header.FindDifference(*nbl, {.completed = completes})) {
        return difference;
    }
    return stop == nullptr || IsOutward(transfer) ? std::nullopt
                                                  : stop->given.FindBufferDifference(*nbl);
}

void NblTracker::NoteArrival(PNET_BUFFER_LIST nbl,
                             Record& record,
                             const Component& to,
                             NblTransfer transfer) {
    record.goingBack = !IsOutward(transfer);
    if (record.goingBack) {
        record.givenBack.Take(*nbl);
    } else {
        record.route.Push(to, nbl);
    }
}

void NblTracker::ResourcesCallEnded(const std::vector<PNET_BUFFER_LIST>& chain,
                                    Component& from,
                                    Component& to) {
    HostLock lock(mutex_);
    std::set<PNET_BUFFER_LIST> given(chain.begin(), chain.end());
    std::set<PNET_BUFFER_LIST> found;
    for (PNET_BUFFER_LIST nbl = chain.front(); nbl != nullptr && found.insert(nbl).second;) {
        nbl = records_.contains(nbl) ? nbl->Next : nullptr;
    }
    bool kept = false;
    for (std::size_t i = 0; i < chain.size(); ++i) {
        Record& record = records_[chain[i]];
        if (record.holder != &to && record.holder != &from) {
            kept = true;
            Report(Rule::kResourcesNblKept, record,
                   fmt::format("the call of {} with the resources flag has returned", to.name));
        }
        if (record.outstanding && record.holder == &to) {
            CheckUnchanged(chain[i], record, to, NblTransfer::kReturn);
        }
        Note(record, "taken back", &to, &from);
        record.holder = &from;
        record.lastResourcesHolder = &to;
        if (&from == record.owner && record.outstanding) {
            EndAtOwner(chain[i], record);
        } else if (record.outstanding) {
            NoteArrival(chain[i], record, from, NblTransfer::kReturn);
        }
    }
    if (found != given && !kept) {
        Report(Rule::kResourcesChain, records_[chain.front()],
               fmt::format(
                   "{} NBLs were indicated to {} with the resources flag, the chain has {} now",
                   given.size(), to.name, found.size()));
    }
    if (found != given) {
        for (std::size_t i = 0; i < chain.size(); ++i) {
            chain[i]->Next = i + 1 < chain.size() ? chain[i + 1] : nullptr;
        }
    }
}

void NblTracker::ReportOutstanding(const std::string& when, const Which& which, CheckSite site) {
    HostLock lock(mutex_);
    std::map<std::uint64_t, const Record*> outstanding;
    for (const auto& [nbl, record] : records_) {
        if (record.outstanding && (!which || which(*record.owner, *record.holder))) {
            outstanding[record.id] = &record;
        }
    }
    for (const auto& [id, record] : outstanding) {
        Report(Rule::kNblLost, *record, when, site);
    }
}

std::size_t NblTracker::Outstanding() {
    HostLock lock(mutex_);
    return static_cast<std::size_t>(
        std::count_if(records_.begin(), records_.end(),
                      [](const auto& entry) { return entry.second.outstanding; }));
}

std::size_t NblTracker::KeptByOther(const Component& holder) {
    HostLock lock(mutex_);
    // Passing an NBL on takes the lock too, so one that a call has in hand is seen with its call.
    if (holder.callsInside != 0) {
        return 0;
    }
    return static_cast<std::size_t>(
        std::count_if(records_.begin(), records_.end(), [&](const auto& entry) {
            const Record& record = entry.second;
            return record.outstanding && record.holder == &holder && record.owner != &holder;
        }));
}

std::string NblTracker::History(PNET_BUFFER_LIST nbl) {
    HostLock lock(mutex_);
    const auto it = records_.find(nbl);
    return it == records_.end() ? "no such NBL" : Describe(it->second);
}

void NblTracker::Note(Record& record,
                      const char* verb,
                      const Component* from,
                      const Component* to) {
    record.history[record.steps++ % record.history.size()] = {verb, from, to, CurrentContext().id};
}

std::string NblTracker::Describe(const Record& record) {
    std::string text =
        fmt::format("NBL {} of {}, held by {}", record.id, record.owner->name, record.holder->name);
    const std::uint64_t kept = record.history.size();
    for (std::uint64_t step = record.steps > kept ? record.steps - kept : 0; step < record.steps;
         ++step) {
        const Step& at = record.history[step % kept];
        text += fmt::format("\n          {}. {} by {} to {} (context {})", step + 1, at.verb,
                            at.from->name, at.to->name, at.context);
    }
    if (record.previous) {
        text += "\n        before that, " + Describe(*record.previous);
    }
    return text;
}

void NblTracker::Report(Rule rule, const Record& record, const std::string& what, CheckSite site) {
    verifier_.Report(rule, what + ": " + Describe(record), site);
}

}  // namespace netsieve::host
