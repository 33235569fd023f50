// Tracks which component holds each NBL, and its history.
#pragma once

#include <array>
#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/verifier/nbl_snapshot.h"
#include "host/verifier/verifier.h"
#include "platform/ndis.h"

namespace netsieve::host {

enum class ComponentKind : std::uint8_t { kProtocol, kFilterModule, kAdapter };

/// What can own and hold NBLs: a protocol, a filter module or an adapter.
struct Component {
    ComponentKind kind = ComponentKind::kProtocol;
    std::string name;                  ///< for reports: "protocol tcpip", "NETSIEVE on eth0"
    const void* stack = nullptr;       ///< the Stack it is part of
    NDIS_HANDLE handle = nullptr;      ///< the SourceHandle of its own NBLs
    bool mayOriginate = true;          ///< false for a module from pause until restart
    std::atomic<int> callsInside = 0;  ///< of a module's handlers that pass it NBLs
    std::atomic<int> originatedOutstanding =
        0;  ///< its own NBLs that are not completed or returned
};

/// A call that passes NBLs from one component to another.
enum class NblTransfer : std::uint8_t { kSend, kSendComplete, kIndicate, kReturn };

/// Tracks every NBL of the machine from the call in which its owner sends or indicates it until it
/// is completed or returned to its owner, and checks each call that passes it on, in the context of
/// the caller. An NBL is outstanding in that time.
class NblTracker {
  public:
    explicit NblTracker(Verifier& verifier) : verifier_(verifier) {}

    /// An NBL was allocated; `owner` holds it.
    void Add(PNET_BUFFER_LIST nbl, Component* owner);
    /// The NBL is about to be freed. False when it must not be, because it is outstanding or
    /// unknown.
    bool Remove(PNET_BUFFER_LIST nbl);
    /// Whether this is an allocated NBL of the machine.
    bool Contains(PNET_BUFFER_LIST nbl);

    /// `holder`, a protocol or an adapter, makes an NBL that was passed to it one of `owner`'s own,
    /// which can send or indicate it. The NBL's former owner and history are kept until
    /// RestoreOwnership.
    void TakeOwnership(PNET_BUFFER_LIST nbl, const Component& holder, Component& owner);
    /// The NBL is back with the component that took ownership; restores its former owner and
    /// holder.
    void RestoreOwnership(PNET_BUFFER_LIST nbl);

    /// A protocol or an adapter puts the NBL away: until TakeUp nobody may touch it. A write is
    /// reported then; AddressSanitizer stops the program at the access, a read too.
    void PutAway(PNET_BUFFER_LIST nbl);
    void TakeUp(PNET_BUFFER_LIST nbl);
    /// Takes up what a run that was given up has left, without a report.
    void TakeUpAll();

    /// A driver frees an MDL: reports it, and returns false, when an outstanding NBL of a filter
    /// module has it.
    bool MayFreeMdl(const MDL* mdl);

    /// Every allocated NBL of the machine.
    std::vector<PNET_BUFFER_LIST> All();
    /// Number of NBLs in a chain, up to the first that is not allocated.
    ULONG Count(const NET_BUFFER_LIST* chain);

    /// A driver reads the NBL: reports that if a protocol or an adapter holds it, or it was freed.
    void CheckRead(PNET_BUFFER_LIST nbl);

    /// The owner of the NBL; null for one that is not allocated.
    const Component* OwnerOf(PNET_BUFFER_LIST nbl);

    /// `from` passes a chain to `to`. Returns the chain without the NBLs that `from` must not pass.
    /// `resources`: it is indicated with NDIS_RECEIVE_FLAGS_RESOURCES.
    PNET_BUFFER_LIST Transfer(PNET_BUFFER_LIST chain,
                              Component& from,
                              Component& to,
                              NblTransfer transfer,
                              bool resources = false);

    /// Reports, and returns true, when `from` indicates NBLs without NDIS_RECEIVE_FLAGS_RESOURCES
    /// that were indicated to it with that flag.
    bool DropsResourcesFlag(PNET_BUFFER_LIST chain, const Component& from);

    /// An indication of `chain` (as it was, in order) with NDIS_RECEIVE_FLAGS_RESOURCES has
    /// returned from `to` to `from`: checks that the chain is complete; `from` holds it again.
    void ResourcesCallEnded(const std::vector<PNET_BUFFER_LIST>& chain,
                            Component& from,
                            Component& to);

    /// Reports as lost every outstanding NBL, or only those for which `which` holds.
    using Which = std::function<bool(const Component& owner, const Component& holder)>;
    void ReportOutstanding(const std::string& when,
                           const Which& which = {},
                           CheckSite site = CheckSite::Here());
    /// Number of outstanding NBLs.
    std::size_t Outstanding();
    /// Of those that others own, how many `holder` keeps: 0 while it is being passed some.
    std::size_t KeptByOther(const Component& holder);
    /// The components that have held the NBL, one step a line.
    std::string History(PNET_BUFFER_LIST nbl);

  private:
    struct Step {
        const char* verb = "";
        const Component* from = nullptr;
        const Component* to = nullptr;
        std::uint32_t context = 0;
    };
    /// A component that got the NBL on its way out, and the NBL as it got it. The first is the
    /// owner, with the NBL as it sent or indicated it.
    struct Stop {
        const Component* holder = nullptr;
        NblSnapshot given;
    };
    /// The components that have the NBL and will get it back. Memory is kept for the next way out.
    class Route {
      public:
        void Push(const Component& holder, PNET_BUFFER_LIST nbl);
        /// The latest stop of `holder`; null when the NBL came to it on its way back only.
        const Stop* Find(const Component& holder) const;
        /// Forgets the stops from `stop` on.
        void CutAt(const Stop* stop);
        void Clear() { size_ = 0; }
        const Stop& Owner() const { return stops_.front(); }
        /// The holder before the latest; empty when there is none.
        std::string GivenBy() const;

      private:
        std::vector<Stop> stops_;
        std::size_t size_ = 0;
    };
    struct Record {
        std::uint64_t id = 0;
        Component* owner = nullptr;
        const Component* holder = nullptr;
        const Component* lastResourcesHolder = nullptr;  ///< of the latest call with the flag
        bool outstanding = false;
        bool resources = false;  ///< indicated with NDIS_RECEIVE_FLAGS_RESOURCES
        bool sent = false;       ///< by its owner; otherwise indicated
        // The NBL as its owner sent or indicated it.
        NDIS_HANDLE source = nullptr;
        NET_BUFFER_LIST_CONTEXT* context = nullptr;
        USHORT contextOffset = 0;
        // The NBL as each holder got it.
        Route route;
        bool goingBack = false;       ///< the present holder got it by a completion or a return
        NblHeader givenBack;          ///< as it got it then
        bool changeReported = false;  ///< of what changes later the first change may be the cause
        std::unique_ptr<NblSnapshot> away;  ///< the NBL as it was put away
        std::array<Step, 16> history;       ///< the latest steps
        std::uint64_t steps = 0;
        std::unique_ptr<Record> previous;  ///< its record before TakeOwnership
    };

    bool TransferOne(PNET_BUFFER_LIST nbl,
                     Component& from,
                     Component& to,
                     NblTransfer transfer,
                     bool resources);
    bool MayTransfer(PNET_BUFFER_LIST nbl, Record& record, Component& from, NblTransfer transfer);
    /// The rule that passing the NBL on breaks, and why; an empty text when it breaks none.
    std::pair<Rule, const char*> Objection(const Record& record,
                                           const Component& from,
                                           NblTransfer transfer);
    void Originate(PNET_BUFFER_LIST nbl, Record& record, Component& from);
    void EndAtOwner(PNET_BUFFER_LIST nbl, Record& record);
    void NoteMdlsOut(PNET_BUFFER_LIST nbl, const Record& record);
    void ForgetMdlsOut(PNET_BUFFER_LIST nbl, const Record& record);
    /// `from` passes the NBL on or back: compares it with what it was when `from` got it.
    void CheckUnchanged(PNET_BUFFER_LIST nbl,
                        Record& record,
                        const Component& from,
                        NblTransfer transfer);
    void CheckEndpoint(PNET_BUFFER_LIST nbl, Record& record, const Component& from);
    void ReportWritten(Record& record,
                       const Component& holder,
                       const NblDifference& difference,
                       CheckSite site = CheckSite::Here());
    static std::optional<NblDifference> FindChangeByFilter(PNET_BUFFER_LIST nbl,
                                                           const Record& record,
                                                           const Component& from,
                                                           NblTransfer transfer);
    static void NoteArrival(PNET_BUFFER_LIST nbl,
                            Record& record,
                            const Component& to,
                            NblTransfer transfer);
    void Note(Record& record, const char* verb, const Component* from, const Component* to);
    void Report(Rule rule,
                const Record& record,
                const std::string& what,
                CheckSite site = CheckSite::Here());
    static std::string Describe(const Record& record);

    Verifier& verifier_;
    HostMutex mutex_;
    std::map<PNET_BUFFER_LIST, Record> records_;
    /// The MDLs of outstanding NBLs, and the NBLs: those of filter modules only, because protocols
    /// and adapters make theirs without NdisAllocateMdl.
    std::unordered_multimap<const MDL*, PNET_BUFFER_LIST> mdlsOut_;
    std::uint64_t nextId_ = 1;
};

}  // namespace netsieve::host
