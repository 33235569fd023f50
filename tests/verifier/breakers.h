// For each rule of the platform something small that breaks it, and only it.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "host/kernel/callback.h"
#include "host/machine.h"
#include "host/ndis/nbl_factory.h"
#include "host/ndis/ndis.h"
#include "tests/verifier/small_filter.h"

namespace netsieve::host {

/// One adapter, one protocol and the small filter between them. It lives outside the machine's run,
/// because a run that is given up drops what stands on its stacks.
struct Scene {
    explicit Scene(Machine& theMachine) : machine(theMachine) {}

    /// Brings the adapter and the filter up.
    void Start();
    /// The protocol sends, the adapter indicates, chains of `count` NBLs of two frames each.
    void Send(int count = 1);
    void Receive(ULONG flags = 0, int count = 1);
    /// Frees the NBLs that were completed or returned and unloads the filter.
    void Finish();

    /// An NBL of the filter's own, and its end.
    PNET_BUFFER_LIST MakeOwn();
    void FreeOwnMdl();
    void FreeOwn();

    Machine& machine;
    SmallFilter filter;
    Stack* stack = nullptr;
    PNET_BUFFER_LIST kept = nullptr;  ///< for a breaker to remember an NBL in
    PNET_BUFFER_LIST own = nullptr;
    PVOID largeSend = nullptr;  ///< asked for in what the protocol sends

  private:
    std::unique_ptr<NblFactory> protocolNbls_;
    std::unique_ptr<NblFactory> adapterNbls_;
    std::vector<PNET_BUFFER_LIST> completed_;
    std::vector<PNET_BUFFER_LIST> returned_;
    PMDL ownMdl_ = nullptr;
    NDIS_HANDLE ownPool_ = nullptr;
    UCHAR ownFrame_[64] = {};
};

struct Breaker {
    Rule rule;
    const char* how;
    std::function<void(Scene&)> act;  ///< in the machine, as its first thread
    /// AddressSanitizer stops the program at the access itself, before any rule could report it.
    bool stopsAddressSanitizer = false;
    std::size_t reports = 0;  ///< how many there are, where several checks find the same
    const char* says = "";    ///< in one of them, where another check would find it later
};

/// Something that a filter must not leave changed in an NBL that it passes on or back.
struct NblChange {
    Rule rule;
    const char* field;  ///< as the report names it
    void (*make)(PNET_BUFFER_LIST nbl);
};
std::vector<NblChange> NblChanges();

/// Those about locks, memory, timers and the like; those about NBLs and modules; those of hooks,
/// whose reports name the hook or its driver HOOK.
std::vector<Breaker> KernelBreakers();
std::vector<Breaker> NblBreakers();
std::vector<Breaker> HookBreakers();
/// Calls that are made at too high an IRQL; some break the rule of waits as well.
std::vector<Breaker> CallBreakers();

/// Makes the compiler keep all of the memory, which it may otherwise leave out for what is used of
/// it.
inline void KeepAll(void* memory) {
    asm volatile("" : : "r"(memory) : "memory");
}

/// How a pool of NBLs with a NET_BUFFER each is asked for.
NET_BUFFER_LIST_POOL_PARAMETERS PoolParameters();

/// Runs `body` at DISPATCH_LEVEL.
void AtDispatch(const std::function<void()>& body);

}  // namespace netsieve::host
