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

enum class PartyKind : std::uint8_t { kProtocol, kModule, kAdapter };

/// Someone who can hold lists: a protocol, a filter module, an adapter.
struct Party {
    PartyKind kind = PartyKind::kProtocol;
    std::string name;                    ///< for reports: "protocol tcpip", "NETSIEVE on eth0"
    const void* stack = nullptr;         ///< the Stack it is part of
    NDIS_HANDLE handle = nullptr;        ///< what SourceHandle of its own lists must be
    bool mayOriginate = true;            ///< false for a module from pause until restart
    std::atomic<int> originatedOut = 0;  ///< own lists that are given away now
};

enum class ListMove : std::uint8_t { kSend, kSendComplete, kIndicate, kReturn };

/// Follows every list of the machine from the moment its owner gives it away until it is home
/// again, and judges each hand-over. Its checks run on the hand-over itself, in the context of the
/// one who makes it.
class ListTracker {
  public:
    explicit ListTracker(Verifier& verifier) : verifier_(verifier) {}

    /// A list exists and is at home.
    void Born(PNET_BUFFER_LIST list, Party* home);
    /// The list is about to be freed. False when it may not be, because it is away or unknown.
    bool Dies(PNET_BUFFER_LIST list);
    /// Whether this is a list of the machine that is alive.
    bool Knows(PNET_BUFFER_LIST list);

    /// `holder`, an edge, makes a list that was given to it into one of `owner`'s own, which can
    /// give it away again. What is known of its journey so far waits until Surrender.
    void Adopt(PNET_BUFFER_LIST list, const Party& holder, Party& owner);
    /// The list is home with the one who adopted it, and is again where it was before.
    void Surrender(PNET_BUFFER_LIST list);

    /// Every list of the machine that is alive.
    std::vector<PNET_BUFFER_LIST> Alive();
    /// Length of a chain, as far as it can be followed over lists that are alive.
    ULONG Count(const NET_BUFFER_LIST* chain);

    /// A driver reads the list: reports it while the list is with an edge, or dead.
    void Reads(PNET_BUFFER_LIST list);

    /// Whose list it is; null for one that is not alive.
    const Party* HomeOf(PNET_BUFFER_LIST list);

    /// `from` hands a chain to `to`. Returns the chain without the lists that were not its to give;
    /// `lent` says that it goes up under the resources flag.
    PNET_BUFFER_LIST Move(PNET_BUFFER_LIST chain,
                          Party& from,
                          Party& to,
                          ListMove move,
                          bool lent = false);

    /// Whether `from` is about to pass a chain up as given though lists of it were only lent to it:
    /// reports that.
    bool DropsLoan(PNET_BUFFER_LIST chain, const Party& from);

    /// A call that lent `chain` (as it was, in order) to `to` has returned to `from`: checks that
    /// everything is there and takes it back. `first` is where the chain is found now.
    void LoanEnded(const std::vector<PNET_BUFFER_LIST>& chain, Party& from, Party& to);

    /// Reports as lost every list that is away from home, or only those for which `which` holds.
    using Which = std::function<bool(const Party& home, const Party& holder)>;
    void ReportAway(const std::string& when, const Which& which = {});
    /// Lists that are away from home now.
    std::size_t Away();
    /// Where the list has been, one step a line.
    std::string History(PNET_BUFFER_LIST list);

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
        const Party* from = nullptr;
        const Party* to = nullptr;
        std::uint32_t context = 0;
    };
    struct Record {
        std::uint64_t id = 0;
        Party* home = nullptr;
        const Party* holder = nullptr;
        const Party* borrower = nullptr;  ///< whose loan of it ended last
        bool away = false;
        bool lent = false;
        bool sent = false;  ///< it left home by a send, not by an indication
        // As the list was when it left home.
        NDIS_HANDLE source = nullptr;
        std::vector<Buffer> buffers;
        std::uint64_t bytes = 0;
        NET_BUFFER_LIST_CONTEXT* context = nullptr;
        USHORT contextOffset = 0;
        // As it was when an edge got it; edges change nothing.
        bool atEdge = false;
        std::uint64_t edgePrint = 0;
        std::array<Step, 16> history;  ///< the latest steps
        std::uint64_t steps = 0;
        std::unique_ptr<Record> adopted;  ///< the journey that the present one interrupts
    };

    bool MoveOne(PNET_BUFFER_LIST list, Party& from, Party& to, ListMove move, bool lent);
    bool MayMove(PNET_BUFFER_LIST list, Record& record, Party& from, ListMove move);
    /// What speaks against handing the list on at all; an empty text when nothing does.
    std::pair<Rule, const char*> Objection(const Record& record, const Party& from, ListMove move);
    void LeaveHome(PNET_BUFFER_LIST list, Record& record, Party& from);
    void ComeHome(PNET_BUFFER_LIST list, Record& record);
    void CheckEdge(PNET_BUFFER_LIST list, Record& record, const Party& from);
    void Note(Record& record, const char* verb, const Party* from, const Party* to);
    void Report(Rule rule, const Record& record, const std::string& what);
    static std::string Describe(const Record& record);
    static std::vector<Buffer> BuffersOf(PNET_BUFFER_LIST list);
    static std::uint64_t BytesOf(PNET_BUFFER_LIST list);
    static std::uint64_t PrintOf(PNET_BUFFER_LIST list);

    Verifier& verifier_;
    HostMutex mutex_;
    std::map<PNET_BUFFER_LIST, Record> records_;
    std::uint64_t nextId_ = 1;
};

}  // namespace netsieve::host
