// What the verifier knows of every spin lock: owner, initialisation, order.
#pragma once

#include <deque>
#include <map>
#include <string>
#include <vector>

#include "host/verifier/verifier.h"

namespace netsieve::host {

/// Keeps a record of each spin lock, and the graph of which lock was acquired while which other was
/// held, over the whole run. The lock's own word carries the record's index, so that a lookup costs
/// no search and memory that was never initialised as a lock is told apart.
class LockTracker {
  public:
    /// `describe` names an address for reports ("block nsvf #3 +0x58").
    LockTracker(Verifier& verifier, std::function<std::string(const void*)> describe);

    /// Accept a word of 0 as initialised: drivers compiled for the platform initialise inline.
    void AcceptInlineInitialisation() { acceptZero_ = true; }

    void Initialise(PKSPIN_LOCK lock);
    /// Before an acquisition. False when acquiring would hang the caller, which then must not.
    bool BeforeAcquire(PKSPIN_LOCK lock, bool atDpc);
    /// After it: `savedIrql` is what the caller will have to restore.
    void AfterAcquire(PKSPIN_LOCK lock, bool atDpc, KIRQL savedIrql);
    /// Before a release. False when there is nothing to release: the caller does not hold the lock,
    /// the release pairs with an acquisition that was not made, or the lock's memory is gone.
    bool BeforeRelease(PKSPIN_LOCK lock, bool atDpc, KIRQL newIrql);
    /// The memory is about to be freed: forgets its locks, reports a held one.
    void ForgetRange(const void* start, std::size_t size);

  private:
    struct Record {
        PKSPIN_LOCK lock = nullptr;
        bool held = false;
        std::vector<std::uint32_t> after{};  ///< records acquired while this one was held
    };

    std::uint32_t Register(PKSPIN_LOCK lock);
    std::uint32_t Resolve(PKSPIN_LOCK lock);
    /// Reports a held lock whose word is not as it was left, and puts it right.
    void CheckHeldWord(std::uint32_t record, CheckSite site = CheckSite::Here());
    void NoteOrder(std::uint32_t record);
    bool Reaches(std::uint32_t from, std::uint32_t to) const;
    std::string Name(std::uint32_t record) const;

    Verifier& verifier_;
    std::function<std::string(const void*)> describe_;
    bool acceptZero_ = false;
    HostMutex mutex_;
    std::vector<Record> records_;
    std::vector<std::uint32_t> free_;
    std::map<std::uintptr_t, std::uint32_t> byAddress_;
};

}  // namespace netsieve::host
