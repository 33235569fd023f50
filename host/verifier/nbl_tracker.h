// Who holds which NET_BUFFER_LIST, and how it got there.
#pragma once

#include <array>
#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host/verifier/verifier.h"
#include "platform/ndis.h"

namespace netsieve::host {

enum class ComponentKind : std::uint8_t { kProtocol, kModule, kAdapter };

/// Someone who can hold NBLs: a protocol, a filter module, an adapter.
struct Component {
    ComponentKind kind = ComponentKind::kProtocol;
    std::string name;              ///< for reports: "protocol tcpip", "NETSIEVE on eth0"
    const void* stack = nullptr;   ///< the Stack it is part of
    NDIS_HANDLE handle = nullptr;  ///< what SourceHandle of its own NBLs must be
    bool mayOriginate = true;      ///< false for a module from pause until restart
    std::atomic<int> originatedOutstanding = 0;  ///< own NBLs that are given away now
};

enum class NblTransfer : std::uint8_t { kSend, kSendComplete, kIndicate, kReturn };

/// Follows every NBL of the machine from the moment its owner gives it away until it is home
/// again, and judges each hand-over. Its checks run on the hand-over itself, in the context of the
/// one who makes it.
class NblTracker {
  public:
    explicit NblTracker(Verifier& verifier) : verifier_(verifier) {}

    /// An NBL exists and is at home.
    void Add(PNET_BUFFER_LIST nbl, Component* owner);
    /// The NBL is about to be freed. False when it may not be, because it is away or unknown.
    bool Remove(PNET_BUFFER_LIST nbl);
    /// Whether this is an NBL of the machine that is alive.
    bool Contains(PNET_BUFFER_LIST nbl);

    /// `holder`, an edge, makes an NBL that was given to it into one of `owner`'s own, which can
    /// give it away again. What is known of its journey so far waits until RestoreOwnership.
    void TakeOwnership(PNET_BUFFER_LIST nbl, const Component& holder, Component& owner);
    /// The NBL is home with the one who adopted it, and is again where it was before.
    void RestoreOwnership(PNET_BUFFER_LIST nbl);

    /// Every NBL of the machine that is alive.
    std::vector<PNET_BUFFER_LIST> All();
    /// Length of a chain, as far as it can be followed over NBLs that are alive.
    ULONG Count(const NET_BUFFER_LIST* chain);

    /// A driver reads the NBL: reports it while the NBL is with an edge, or dead.
    void CheckRead(PNET_BUFFER_LIST nbl);

    /// Whose NBL it is; null for one that is not alive.
    const Component* OwnerOf(PNET_BUFFER_LIST nbl);

    /// `from` hands a chain to `to`. Returns the chain without the NBLs that were not its to give;
    /// `lent` says that it goes up under the resources flag.
    PNET_BUFFER_LIST Transfer(PNET_BUFFER_LIST chain,
                              Component& from,
                              Component& to,
                              NblTransfer transfer,
                              bool resources = false);

    /// Whether `from` is about to pass a chain up as given though NBLs of it were only lent to it:
    /// reports that.
    bool DropsResourcesFlag(PNET_BUFFER_LIST chain, const Component& from);

    /// A call that lent `chain` (as it was, in order) to `to` has returned to `from`: checks that
    /// everything is there and takes it back. `first` is where the chain is found now.
    void ResourcesCallEnded(const std::vector<PNET_BUFFER_LIST>& chain,
                            Component& from,
                            Component& to);

    /// Reports as lost every NBL that is away from home, or only those for which `which` holds.
    using Which = std::function<bool(const Component& owner, const Component& holder)>;
    void ReportOutstanding(const std::string& when, const Which& which = {});
    /// NBLs that are away from home now.
    std::size_t Outstanding();
    /// Where the NBL has been, one step a line.
    std::string History(PNET_BUFFER_LIST nbl);

  private:
    struct Buffer {
        PNET_BUFFER buffer;
        PMDL currentMdl;
        ULONG currentMdlOffset;
        ULONG dataLength;
        bool operator==(const Buffer&) const = default;
    };
    struct Step {
        const char* verb = "";
        const Component* from = nullptr;
        const Component* to = nullptr;
        std::uint32_t context = 0;
    };
    struct Record {
        std::uint64_t id = 0;
        Component* owner = nullptr;
        const Component* holder = nullptr;
        const Component* lastResourcesHolder = nullptr;  ///< whose loan of it ended last
        bool outstanding = false;
        bool resources = false;
        bool sent = false;  ///< it left home by a send, not by an indication
        // As the NBL was when it left home.
        NDIS_HANDLE source = nullptr;
        std::vector<Buffer> buffers;
        std::uint64_t bytes = 0;
        NET_BUFFER_LIST_CONTEXT* context = nullptr;
        USHORT contextOffset = 0;
        // As it was when an edge got it; edges change nothing.
        bool atEndpoint = false;
        std::uint64_t endpointHash = 0;
        std::array<Step, 16> history;  ///< the latest steps
        std::uint64_t steps = 0;
        std::unique_ptr<Record> previous;  ///< the journey that the present one interrupts
    };

    bool TransferOne(PNET_BUFFER_LIST nbl,
                     Component& from,
                     Component& to,
                     NblTransfer transfer,
                     bool resources);
    bool MayTransfer(PNET_BUFFER_LIST nbl, Record& record, Component& from, NblTransfer transfer);
    /// What speaks against handing the NBL on at all; an empty text when nothing does.
    std::pair<Rule, const char*> Objection(const Record& record,
                                           const Component& from,
                                           NblTransfer transfer);
    void GiveAway(PNET_BUFFER_LIST nbl, Record& record, Component& from);
    void BackWithOwner(PNET_BUFFER_LIST nbl, Record& record);
    void CheckEndpoint(PNET_BUFFER_LIST nbl, Record& record, const Component& from);
    void Note(Record& record, const char* verb, const Component* from, const Component* to);
    void Report(Rule rule, const Record& record, const std::string& what);
    static std::string Describe(const Record& record);
    static std::vector<Buffer> BuffersOf(PNET_BUFFER_LIST nbl);
    static std::uint64_t HashOfData(PNET_BUFFER_LIST nbl);
    static std::uint64_t HashOf(PNET_BUFFER_LIST nbl);

    Verifier& verifier_;
    HostMutex mutex_;
    std::map<PNET_BUFFER_LIST, Record> records_;
    std::uint64_t nextId_ = 1;
};

}  // namespace netsieve::host
