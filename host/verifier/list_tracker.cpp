#include "host/verifier/list_tracker.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>

namespace netsieve::host {

namespace {

constexpr const char* kVerbs[] = {"sent", "completed", "indicated", "returned"};

// What a list's Scratch field holds after a hand-over: nobody's value survives one.
void* ScratchAfterMove() {
    return reinterpret_cast<void*>(0xBAD5C4A7C4BAD5C4ull);
}

std::uint64_t Mix(std::uint64_t hash, std::uint64_t value) {
    hash = (hash ^ value) * 0x9E3779B97F4A7C15ull;
    return hash ^ (hash >> 29);
}

std::uint64_t HashBytes(std::uint64_t hash, const unsigned char* bytes, std::size_t size) {
    for (; size >= sizeof(std::uint64_t); size -= sizeof(std::uint64_t)) {
        std::uint64_t word = 0;
        __builtin_memcpy(&word, bytes, sizeof(word));
        hash = Mix(hash, word);
        bytes += sizeof(word);
    }
    for (; size > 0; --size) {
        hash = Mix(hash, *bytes++);
    }
    return hash;
}

// The host made every MDL of its own lists, so that StartVa always leads to the bytes.
std::uint64_t HashBuffer(std::uint64_t hash, const NET_BUFFER& buffer) {
    std::size_t left = buffer.DataLength;
    std::size_t skip = buffer.CurrentMdlOffset;
    for (PMDL mdl = buffer.CurrentMdl; mdl != nullptr && left > 0; mdl = mdl->Next) {
        const std::size_t size = std::min<std::size_t>(mdl->ByteCount - skip, left);
        const auto* start = static_cast<const unsigned char*>(mdl->StartVa) + mdl->ByteOffset;
        hash = HashBytes(hash, start + skip, size);
        left -= size;
        skip = 0;
    }
    return Mix(hash, left);
}

}  // namespace

std::vector<ListTracker::Buffer> ListTracker::BuffersOf(PNET_BUFFER_LIST list) {
    std::vector<Buffer> buffers;
    for (PNET_BUFFER buffer = list->FirstNetBuffer; buffer != nullptr; buffer = buffer->Next) {
        buffers.push_back(
            {buffer, buffer->CurrentMdl, buffer->CurrentMdlOffset, buffer->DataLength});
    }
    return buffers;
}

std::uint64_t ListTracker::BytesOf(PNET_BUFFER_LIST list) {
    std::uint64_t hash = 0;
    for (PNET_BUFFER buffer = list->FirstNetBuffer; buffer != nullptr; buffer = buffer->Next) {
        hash = HashBuffer(hash, *buffer);
    }
    return hash;
}

std::uint64_t ListTracker::PrintOf(PNET_BUFFER_LIST list) {
    std::uint64_t hash = BytesOf(list);
    for (const Buffer& buffer : BuffersOf(list)) {
        hash = Mix(hash, reinterpret_cast<std::uintptr_t>(buffer.buffer));
        hash = Mix(hash, buffer.dataLength);
    }
    return Mix(hash, reinterpret_cast<std::uintptr_t>(list->SourceHandle));
}

void ListTracker::Born(PNET_BUFFER_LIST list, Party* home) {
    HostLock lock(mutex_);
    Record& record = records_[list];
    record = {};
    record.id = nextId_++;
    record.home = home;
    record.holder = home;
}

bool ListTracker::Dies(PNET_BUFFER_LIST list) {
    HostLock lock(mutex_);
    const auto it = records_.find(list);
    if (it == records_.end()) {
        verifier_.Report(Rule::kFreedListUsed, "a list that is not alive was freed");
        return false;
    }
    if (it->second.away || it->second.adopted) {
        Report(Rule::kListNotOwned, it->second, "freed while it is given away");
        return false;
    }
    records_.erase(it);
    return true;
}

bool ListTracker::Knows(PNET_BUFFER_LIST list) {
    HostLock lock(mutex_);
    return records_.contains(list);
}

void ListTracker::Adopt(PNET_BUFFER_LIST list, const Party& holder, Party& owner) {
    HostLock lock(mutex_);
    Record& record = records_.at(list);
    if (record.holder != &holder) {
        Report(Rule::kListNotOwned, record,
               fmt::format("adopted from {}, who does not hold it", holder.name));
    }
    auto before = std::make_unique<Record>(std::move(record));
    record = {};
    record.id = before->id;
    record.home = &owner;
    record.holder = &owner;
    record.adopted = std::move(before);
}

void ListTracker::Surrender(PNET_BUFFER_LIST list) {
    HostLock lock(mutex_);
    Record& record = records_.at(list);
    if (record.away) {
        Report(Rule::kListNotOwned, record, "surrendered while it is given away");
    }
    const std::unique_ptr<Record> before = std::move(record.adopted);
    record = std::move(*before);
}

std::vector<PNET_BUFFER_LIST> ListTracker::Alive() {
    HostLock lock(mutex_);
    std::vector<PNET_BUFFER_LIST> lists;
    for (const auto& [list, record] : records_) {
        lists.push_back(list);
    }
    return lists;
}

ULONG ListTracker::Count(const NET_BUFFER_LIST* chain) {
    HostLock lock(mutex_);
    ULONG count = 0;
    while (chain != nullptr && count <= records_.size()) {
        ++count;
        const bool alive = records_.contains(const_cast<PNET_BUFFER_LIST>(chain));
        chain = alive ? chain->Next : nullptr;
    }
    return count;
}

void ListTracker::Reads(PNET_BUFFER_LIST list) {
    HostLock lock(mutex_);
    const auto it = records_.find(list);
    if (it == records_.end()) {
        verifier_.Report(Rule::kFreedListUsed, "what is read is no list");
    } else if (it->second.holder->kind != PartyKind::kModule) {
        Report(Rule::kListRead, it->second, "read while another holds it");
    }
}

const Party* ListTracker::HomeOf(PNET_BUFFER_LIST list) {
    HostLock lock(mutex_);
    const auto it = records_.find(list);
    return it == records_.end() ? nullptr : it->second.home;
}

PNET_BUFFER_LIST ListTracker::Move(PNET_BUFFER_LIST chain,
                                   Party& from,
                                   Party& to,
                                   ListMove move,
                                   bool lent) {
    HostLock lock(mutex_);
    PNET_BUFFER_LIST head = nullptr;
    PNET_BUFFER_LIST* tail = &head;
    std::set<PNET_BUFFER_LIST> seen;
    for (PNET_BUFFER_LIST list = chain; list != nullptr && seen.insert(list).second;) {
        const bool known = records_.contains(list);
        const PNET_BUFFER_LIST next = known ? list->Next : nullptr;
        if (!known) {
            verifier_.Report(Rule::kFreedListUsed,
                             fmt::format("a list that is not alive was {} by {}",
                                         kVerbs[static_cast<int>(move)], from.name));
        } else if (MoveOne(list, from, to, move, lent)) {
            *tail = list;
            tail = &list->Next;
        }
        list = next;
    }
    *tail = nullptr;
    return head;
}

bool ListTracker::MoveOne(PNET_BUFFER_LIST list, Party& from, Party& to, ListMove move, bool lent) {
    Record& record = records_[list];
    if (!MayMove(list, record, from, move)) {
        return false;
    }
    if (!record.away) {
        LeaveHome(list, record, from);
        record.sent = move == ListMove::kSend;
    }
    record.lent = lent;
    CheckEdge(list, record, from);
    Note(record, kVerbs[static_cast<int>(move)], &from, &to);
    record.holder = &to;
    if (&to == record.home) {
        ComeHome(list, record);
    } else if ((move == ListMove::kSendComplete && to.kind == PartyKind::kProtocol) ||
               (move == ListMove::kReturn && to.kind == PartyKind::kAdapter)) {
        // Its owner is a module that the list has passed by.
        Report(Rule::kOriginatedListPassedOn, record, "it came to an end that is not its owner");
        record.holder = record.home;
        ComeHome(list, record);
        return false;
    } else if (to.kind != PartyKind::kModule) {
        record.atEdge = true;
        record.edgePrint = PrintOf(list);
    }
    list->Scratch = ScratchAfterMove();
    return true;
}

std::pair<Rule, const char*> ListTracker::Objection(const Record& record,
                                                    const Party& from,
                                                    ListMove move) {
    const bool outward = move == ListMove::kSend || move == ListMove::kIndicate;
    const bool asSent = move == ListMove::kSend || move == ListMove::kSendComplete;
    if (record.holder != &from) {
        return record.borrower == &from
                   ? std::pair{Rule::kResourcesListKept, ", whose loan has ended"}
                   : std::pair{Rule::kListNotOwned, ", who does not hold it"};
    }
    if (!record.away) {
        return {Rule::kOriginatedListPassedOn, outward ? "" : ", whose own it is"};
    }
    if (record.lent && move == ListMove::kReturn) {
        return {Rule::kResourcesListReturned, ", to whom it is lent"};
    }
    return {Rule::kListDirection, asSent == record.sent ? "" : ", though it came the other way"};
}

bool ListTracker::MayMove(PNET_BUFFER_LIST list, Record& record, Party& from, ListMove move) {
    const char* verb = kVerbs[static_cast<int>(move)];
    if (const auto [rule, why] = Objection(record, from, move); *why != '\0') {
        Report(rule, record, fmt::format("{} by {}{}", verb, from.name, why));
        return false;
    }
    if (record.away && list->SourceHandle != record.source) {
        Report(
            Rule::kSourceHandle, record,
            fmt::format("{} by {} with another SourceHandle than it came with", verb, from.name));
        list->SourceHandle = record.source;
    }
    return true;
}

bool ListTracker::DropsLoan(PNET_BUFFER_LIST chain, const Party& from) {
    HostLock lock(mutex_);
    std::set<PNET_BUFFER_LIST> seen;
    while (chain != nullptr && seen.insert(chain).second) {
        const auto it = records_.find(chain);
        if (it == records_.end()) {
            return false;
        }
        if (it->second.lent && it->second.holder == &from) {
            Report(Rule::kResourcesFlagDropped, it->second,
                   fmt::format("indicated by {}", from.name));
            return true;
        }
        chain = chain->Next;
    }
    return false;
}

void ListTracker::LeaveHome(PNET_BUFFER_LIST list, Record& record, Party& from) {
    if (list->SourceHandle != from.handle) {
        Report(Rule::kSourceHandle, record,
               fmt::format("originated by {} without its handle", from.name));
        list->SourceHandle = from.handle;
    }
    if (!from.mayOriginate) {
        Report(Rule::kOriginatedWhilePaused, record, fmt::format("by {}", from.name));
    }
    record.away = true;
    record.borrower = nullptr;
    record.source = list->SourceHandle;
    record.buffers = BuffersOf(list);
    record.bytes = BytesOf(list);
    record.context = list->Context;
    record.contextOffset = list->Context == nullptr ? 0 : list->Context->Offset;
    ++from.originatedOut;
}

void ListTracker::ComeHome(PNET_BUFFER_LIST list, Record& record) {
    record.away = false;
    record.lent = false;
    record.atEdge = false;
    --record.home->originatedOut;
    if (BuffersOf(list) != record.buffers) {
        Report(Rule::kListBuffers, record, "the chain of buffers differs");
    } else if (BytesOf(list) != record.bytes) {
        Report(Rule::kListBytes, record, "the frames' bytes differ");
    }
    if (list->Context != record.context ||
        (list->Context != nullptr && list->Context->Offset != record.contextOffset)) {
        Report(Rule::kContextLeft, record, "the context on top is not its owner's");
    }
}

// An edge hands a list on just as it got it, so a difference was made by someone who had given the
// list away.
void ListTracker::CheckEdge(PNET_BUFFER_LIST list, Record& record, const Party& from) {
    if (record.atEdge && from.kind != PartyKind::kModule && PrintOf(list) != record.edgePrint) {
        Report(Rule::kListTouched, record, fmt::format("written while {} held it", from.name));
    }
    record.atEdge = false;
}

void ListTracker::LoanEnded(const std::vector<PNET_BUFFER_LIST>& chain, Party& from, Party& to) {
    HostLock lock(mutex_);
    std::set<PNET_BUFFER_LIST> given(chain.begin(), chain.end());
    std::set<PNET_BUFFER_LIST> found;
    for (PNET_BUFFER_LIST list = chain.front(); list != nullptr && found.insert(list).second;) {
        list = records_.contains(list) ? list->Next : nullptr;
    }
    bool kept = false;
    for (std::size_t i = 0; i < chain.size(); ++i) {
        Record& record = records_[chain[i]];
        if (record.holder != &to && record.holder != &from) {
            kept = true;
            Report(Rule::kResourcesListKept, record,
                   fmt::format("the call that lent it to {} has returned", to.name));
        }
        Note(record, "taken back", &to, &from);
        record.holder = &from;
        record.borrower = &to;
        if (&from == record.home && record.away) {
            ComeHome(chain[i], record);
        }
    }
    if (found != given && !kept) {
        Report(Rule::kResourcesChain, records_[chain.front()],
               fmt::format("{} lists were lent to {}, {} are on the chain again", given.size(),
                           to.name, found.size()));
    }
    if (found != given) {
        for (std::size_t i = 0; i < chain.size(); ++i) {
            chain[i]->Next = i + 1 < chain.size() ? chain[i + 1] : nullptr;
        }
    }
}

void ListTracker::ReportAway(const std::string& when, const Which& which) {
    HostLock lock(mutex_);
    std::map<std::uint64_t, const Record*> away;
    for (const auto& [list, record] : records_) {
        if (record.away && (!which || which(*record.home, *record.holder))) {
            away[record.id] = &record;
        }
    }
    for (const auto& [id, record] : away) {
        Report(Rule::kListLost, *record, when);
    }
}

std::size_t ListTracker::Away() {
    HostLock lock(mutex_);
    return static_cast<std::size_t>(std::count_if(
        records_.begin(), records_.end(), [](const auto& entry) { return entry.second.away; }));
}

std::string ListTracker::History(PNET_BUFFER_LIST list) {
    HostLock lock(mutex_);
    const auto it = records_.find(list);
    return it == records_.end() ? "no such list" : Describe(it->second);
}

void ListTracker::Note(Record& record, const char* verb, const Party* from, const Party* to) {
    record.history[record.steps++ % record.history.size()] = {verb, from, to, CurrentContext().id};
}

std::string ListTracker::Describe(const Record& record) {
    std::string text =
        fmt::format("list {} of {}, held by {}", record.id, record.home->name, record.holder->name);
    const std::uint64_t kept = record.history.size();
    for (std::uint64_t step = record.steps > kept ? record.steps - kept : 0; step < record.steps;
         ++step) {
        const Step& at = record.history[step % kept];
        text += fmt::format("\n          {}. {} by {} to {} (context {})", step + 1, at.verb,
                            at.from->name, at.to->name, at.context);
    }
    if (record.adopted) {
        text += "\n        before that it was " + Describe(*record.adopted);
    }
    return text;
}

void ListTracker::Report(Rule rule, const Record& record, const std::string& what) {
    verifier_.Report(rule, what + ": " + Describe(record));
}

}  // namespace netsieve::host
