#include "host/client/nirp_ledger.h"

#include <algorithm>

namespace netsieve::host {

namespace {

Marks* MarksOf(std::vector<Marks>& marks, const WatchedHook* hook) {
    const auto it = std::find_if(marks.begin(), marks.end(),
                                 [&](const Marks& entry) { return entry.hook == hook; });
    return it == marks.end() ? nullptr : &*it;
}

}  // namespace

void NirpLedger::BeginOffer(const NIRP* nirp, WatchedHook* hook) {
    Record& record = records_[nirp];
    record.offers.push_back(hook);
    record.lastShown = hook;
    std::erase_if(record.marks, [](const Marks& marks) { return marks.isVoid; });
}

void NirpLedger::EndOffer(const NIRP* nirp, WatchedHook* hook) {
    std::vector<WatchedHook*>& offers = records_[nirp].offers;
    offers.erase(std::find(offers.begin(), offers.end(), hook));
}

void NirpLedger::Add(const NIRP* nirp, WatchedHook* hook, const FILTER_MODULE* module) {
    Record& record = records_[nirp];
    if (Marks* const marks = MarksOf(record.marks, hook)) {
        ++marks->open;
        return;
    }
    record.marks.push_back({.hook = hook, .module = module, .open = 1});
}

Marks* NirpLedger::Find(const NIRP* nirp, const IsCallers& isCallers) {
    const auto record = records_.find(nirp);
    if (record == records_.end()) {
        return nullptr;
    }
    Marks* found = nullptr;
    for (Marks& marks : record->second.marks) {
        if (marks.open != 0 && isCallers(*marks.hook) && (found == nullptr || !marks.isVoid)) {
            found = &marks;
        }
    }
    return found;
}

void NirpLedger::EndCompletion(const NIRP* nirp, const WatchedHook* hook) {
    std::vector<Marks>& all = records_[nirp].marks;
    if (Marks* const marks = MarksOf(all, hook); marks != nullptr && marks->underWay != 0) {
        --marks->underWay;
    }
    std::erase_if(all, [](const Marks& marks) { return marks.open + marks.underWay == 0; });
}

bool NirpLedger::IsValid(const NIRP* nirp, const IsCallers& isCallers) const {
    const auto found = records_.find(nirp);
    if (found == records_.end()) {
        return false;
    }
    const Record& record = found->second;
    return std::any_of(record.offers.begin(), record.offers.end(),
                       [&](const WatchedHook* hook) { return isCallers(*hook); }) ||
           std::any_of(record.marks.begin(), record.marks.end(), [&](const Marks& marks) {
               return marks.open != 0 && !marks.isVoid && isCallers(*marks.hook);
           });
}

WatchedHook* NirpLedger::LastShown(const NIRP* nirp) const {
    const auto record = records_.find(nirp);
    return record == records_.end() ? nullptr : record->second.lastShown;
}

std::vector<Marks*> NirpLedger::OwedBy(const WatchedHook* hook, const FILTER_MODULE* module) {
    std::vector<Marks*> owed;
    for (auto& [nirp, record] : records_) {
        if (Marks* const marks = MarksOf(record.marks, hook);
            marks != nullptr && !marks->isVoid && (module == nullptr || marks->module == module)) {
            owed.push_back(marks);
        }
    }
    return owed;
}

}  // namespace netsieve::host
