// What the machine knows of one registered hook.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "client/exports.h"

namespace netsieve::host {

class LoadedDriver;

/// One hook from its registration to the end of the machine, so that a late call finds it. The
/// driver has its address as the hook's context; the client's own is here. Guarded by the mutex of
/// the ClientWatch but for what the registration fills in.
struct WatchedHook {
    std::string name;
    LoadedDriver* owner = nullptr;  ///< the driver that registered it; null for the program itself
    HOOK_ATTACH_NOTIFY attachNotify = nullptr;
    HOOK_DETACH_NOTIFY detachNotify = nullptr;
    HOOK_UNLOAD_NOTIFY unloadNotify = nullptr;
    HOOK_PACKET_HANDLER sendHandler = nullptr;
    HOOK_PACKET_HANDLER receiveHandler = nullptr;
    PVOID context = nullptr;

    HOOK_FILTER* handle = nullptr;
    /// Who registered it, or joined it by its name, and has not ended that registration.
    std::vector<LoadedDriver*> registrants{};
    std::map<const FILTER_MODULE*, unsigned> attachments{};
    bool left = false;  ///< a driver is gone without having ended its registration

    /// "hook 'Greeter' of GREETER".
    std::string Describe() const;
};

}  // namespace netsieve::host
