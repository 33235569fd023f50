// Who may use which NIRP, and who owes a completion on it.
#pragma once

#include <functional>
#include <map>
#include <vector>

#include "client/exports.h"

namespace netsieve::host {

struct WatchedHook;

/// What a hook owes on one NIRP.
struct Marks {
    WatchedHook* hook = nullptr;
    const FILTER_MODULE* module = nullptr;  ///< the adapter that the frame crosses; null if unknown
    unsigned open = 0;                      ///< made and not completed
    unsigned underWay = 0;                  ///< completions that have not returned
    bool isVoid = false;                    ///< the adapter's DetachNotify has returned
};

/// The NIRPs that hooks were shown. Not synchronised.
class NirpLedger {
  public:
    using IsCallers = std::function<bool(const WatchedHook&)>;

    /// A handler of `hook` is called with the NIRP; marks that were void are of an earlier frame.
    void BeginOffer(const NIRP* nirp, WatchedHook* hook);
    void EndOffer(const NIRP* nirp, WatchedHook* hook);

    /// A mark was made.
    void Add(const NIRP* nirp, WatchedHook* hook, const FILTER_MODULE* module);
    /// The marks on the NIRP that are the caller's: those that are open come before void ones. Null
    /// when there are none. `isCallers` says whether a hook may be the caller.
    Marks* Find(const NIRP* nirp, const IsCallers& isCallers);
    /// Takes back one of the marks that are under way, and forgets marks of which nothing is left.
    void EndCompletion(const NIRP* nirp, const WatchedHook* hook);

    /// Whether a handler of the caller's runs with the NIRP, or a mark of the caller's is open.
    bool IsValid(const NIRP* nirp, const IsCallers& isCallers) const;
    /// The hook that was shown the NIRP last; null when none was.
    WatchedHook* LastShown(const NIRP* nirp) const;

    /// The marks of `hook` that are not void: on frames of `module`, or on all when that is null.
    std::vector<Marks*> OwedBy(const WatchedHook* hook, const FILTER_MODULE* module);

  private:
    struct Record {
        std::vector<WatchedHook*> offers{};  ///< one for each handler that runs with it
        WatchedHook* lastShown = nullptr;
        std::vector<Marks> marks{};
    };
    std::map<const NIRP*, Record> records_;
};

}  // namespace netsieve::host
