// Holds hooks to the rules of the driver's client header, at the boundary between the two.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host/client/driver_exports.h"
#include "host/client/nirp_ledger.h"
#include "host/client/watched_hook.h"
#include "host/sched/context.h"
#include "host/sched/scheduler.h"
#include "host/verifier/check_site.h"
#include "host/verifier/rules.h"

namespace netsieve::host {

class Machine;

/// Sees every call between the driver and its clients: clients are bound to functions that call the
/// members named after the driver's exports, and the driver is given routines of the watch's own in
/// place of a hook's callbacks. A call into the driver opens a frame of the driver's, a call into a
/// hook one of that hook's client. A call that breaks a rule is reported and, where the driver
/// could not survive it, not made.
class ClientWatch {
  public:
    explicit ClientWatch(Machine& machine);
    ~ClientWatch();
    ClientWatch(const ClientWatch&) = delete;
    ClientWatch& operator=(const ClientWatch&) = delete;

    /// Whether the machine that exists has a watch.
    static bool IsOn() { return current_ != nullptr; }
    /// The watch for a call that `client` makes, an address in its code; null outside of a run and
    /// where nothing is watched.
    static ClientWatch* ForCall(const void* client) {
        if (current_ == nullptr || t_context == nullptr) {
            return nullptr;
        }
        t_context->caller = client;
        return current_;
    }

    // The exports, with their arguments; `driver` has the driver's own.
    NTSTATUS ITarnHKRegisterFilterEx(const DriverExports& driver,
                                     const HOOK_FILTER_REGISTRATION_EX* registration,
                                     PVOID context,
                                     HOOK_FILTER** hookOut);
    NTSTATUS ITarnHKRegisterFilter(const DriverExports& driver,
                                   const HOOK_FILTER_REGISTRATION* registration,
                                   PVOID context,
                                   ULONG priorityClass,
                                   HOOK_FILTER** hookOut);
    NTSTATUS ITarnHKDeregisterFilter(const DriverExports& driver, HOOK_FILTER* handle);
    VOID ITarnHKFlowControl(const DriverExports& driver, HOOK_FILTER* handle, ULONG state);
    NTSTATUS ITarnHKAttachFilter(const DriverExports& driver,
                                 FILTER_MODULE* module,
                                 HOOK_FILTER* handle);
    NTSTATUS ITarnHKDettachFilter(const DriverExports& driver,
                                  FILTER_MODULE* module,
                                  HOOK_FILTER* handle);
    UCHAR* ITarnHKGetBuffer(const DriverExports& driver, NIRP* nirp);
    ULONG ITarnHKGetBufferLength(const DriverExports& driver, NIRP* nirp);
    NTSTATUS ITarnHKGetProtocolName(const DriverExports& driver,
                                    NIRP* nirp,
                                    PROTOCOL_ENTRY** entry);
    NTSTATUS ITarnHKQueryProtocolName(const DriverExports& driver, PVOID first, PVOID second);
    NTSTATUS ITarnHKGetProtocolInfo(const DriverExports& driver,
                                    NIRP* nirp,
                                    HOOK_PROTOCOL_INFO* info);
    NTSTATUS ITarnHKGetAdapterInfo(const DriverExports& driver,
                                   NIRP* nirp,
                                   HOOK_ADAPTER_INFO* info);
    NTSTATUS ITarnHKMarkPending(const DriverExports& driver, NIRP* nirp);
    NTSTATUS ITarnHKCompleteRequest(const DriverExports& driver, NIRP* nirp, ULONG status);
    NTSTATUS ITarnHKSendPacket(const DriverExports& driver,
                               PVOID reserved,
                               const VOID* frame,
                               ULONG length);
    NTSTATUS ITarnHKSystemInformationEx(const DriverExports& driver,
                                        PVOID reserved,
                                        LONG informationClass,
                                        PVOID buffer,
                                        ULONG* bufferSize);

    /// A driver is gone: reports the registrations that it has not ended, and those of every hook
    /// when it is the driver that has the hooks.
    void ReportLeft(const LoadedDriver& gone);
    /// Whether the hook was reported so. What the driver keeps of it is the hook's fault.
    static bool IsLeft(const WatchedHook* hook) { return hook != nullptr && hook->left; }

  private:
    class HookCall;
    class DriverCall;
    struct Caller {
        WatchedHook* hook = nullptr;  ///< whose callback calls; null outside of any
        LoadedDriver* driver = nullptr;
    };

    static VOID NTAPI OnAttach(FILTER_MODULE* module, HOOK_FILTER* handle, PVOID context);
    static VOID NTAPI OnDetach(FILTER_MODULE* module, HOOK_FILTER* handle, PVOID context);
    static VOID NTAPI OnUnload(PVOID context);
    static LONG NTAPI OnSend(PVOID context, NIRP* nirp);
    static LONG NTAPI OnReceive(PVOID context, NIRP* nirp);

    template <typename Block>
    WatchedHook& TakeOver(Block& block, PVOID context);
    /// `call` calls the driver for a hook, or for none, with a block and a context.
    template <typename Block, typename Call>
    NTSTATUS Register(const char* routine,
                      const Block* registration,
                      PVOID context,
                      HOOK_FILTER** hookOut,
                      Call call);
    NTSTATUS Registered(NTSTATUS status, WatchedHook& hook, HOOK_FILTER** hookOut);
    WatchedHook* HookOf(const HOOK_FILTER* handle);
    void EndRegistration(WatchedHook& hook);

    LONG Offer(WatchedHook& hook, HOOK_PACKET_HANDLER handler, const char* routine, NIRP* nirp);
    void CheckVerdict(LONG verdict, WatchedHook& hook, const CallFrame& frame);
    void EndModule(WatchedHook& hook, const FILTER_MODULE* module);
    void ReportOpenMarks(WatchedHook& hook,
                         const FILTER_MODULE* module,
                         const char* when,
                         CheckSite site = CheckSite::Here());
    void NoteAttachment(const FILTER_MODULE* module, const HOOK_FILTER* handle);
    void NoteDetachment(const FILTER_MODULE* module, const HOOK_FILTER* handle);

    Caller FindCaller();
    std::string DescribeCaller();
    std::string DescribeUser(const NIRP* nirp);
    Marks* FindMarks(const NIRP* nirp, const Caller& caller);
    enum class InUnload : std::uint8_t { kAllowed, kForbidden };
    bool MayCall(const char* routine,
                 InUnload inUnload = InUnload::kAllowed,
                 CheckSite site = CheckSite::Here());
    bool MayUse(const NIRP* nirp, const char* routine, CheckSite site = CheckSite::Here());
    bool MayQuery(const NIRP* nirp, const char* routine, CheckSite site = CheckSite::Here());
    WatchedHook* BeginCompletion(const NIRP* nirp);

    template <typename Function, typename... Arguments>
    auto CallDriver(const char* routine,
                    Function function,
                    const WatchedHook* hook,
                    Arguments... arguments);

    inline static ClientWatch* current_ = nullptr;

    Machine& machine_;
    HostMutex mutex_;
    NirpLedger ledger_;
    std::vector<std::unique_ptr<WatchedHook>> hooks_;
    std::map<const HOOK_FILTER*, WatchedHook*> byHandle_;
};

}  // namespace netsieve::host
