// Hooks that note what they are told, and what registers them.
#pragma once

#include <string>
#include <vector>

#include "hook/hook_filter.h"
#include "hook/hook_table.h"
#include "module/driver_globals.h"
#include "tests/packet/pending_rig.h"

namespace netsieve::host {

/// A registration block and what came of its callbacks. The client of one hook.
struct Client {
    explicit Client(std::u16string hookName, ULONG priority = 0) : name(std::move(hookName)) {
        block.AttachNotify = [](FILTER_MODULE* module, HOOK_FILTER* self, PVOID context) NTAPI {
            auto* client = static_cast<Client*>(context);
            client->attached.push_back(module);
            if (client->attach && ITarnHKAttachFilter(module, self) != STATUS_SUCCESS) {
                ++client->refused;
            }
        };
        block.DetachNotify = [](FILTER_MODULE* module, HOOK_FILTER* self, PVOID context) NTAPI {
            auto* client = static_cast<Client*>(context);
            client->detached.push_back(module);
            if (client->detach) {
                ITarnHKDettachFilter(module, self);
            }
        };
        block.SendHandler = [](PVOID context, NIRP* nirp) NTAPI {
            return static_cast<Client*>(context)->Judge(nirp, NIRP_DIRECTION_SEND);
        };
        block.ReceiveHandler = [](PVOID context, NIRP* nirp) NTAPI {
            return static_cast<Client*>(context)->Judge(nirp, NIRP_DIRECTION_RECEIVE);
        };
        block.Priority = priority;
        block.Name = {static_cast<USHORT>(name.size() * 2),
                      static_cast<USHORT>(name.size() * 2 + 2), name.data()};
    }
    NTSTATUS Register() {
        if (unload) {
            block.UnloadNotify = [](PVOID context)
                                     NTAPI { static_cast<Client*>(context)->unload(); };
        }
        return ITarnHKRegisterFilterEx(&block, this, &hook);
    }
    /// Registered and switched on.
    Client& Start() {
        EXPECT_EQ(Register(), STATUS_SUCCESS);
        ITarnHKFlowControl(hook, HOOK_STATE_ACTIVE);
        return *this;
    }
    void Stop() { EXPECT_EQ(ITarnHKDeregisterFilter(hook), STATUS_SUCCESS); }

    LONG Judge(NIRP* nirp, ULONG direction) {
        EXPECT_EQ(nirp->Direction, direction);
        ++calls;
        return handler ? handler(nirp) : verdict;
    }

    std::u16string name;
    HOOK_FILTER_REGISTRATION_EX block{};
    HOOK_FILTER* hook = nullptr;
    bool attach = true;  ///< in the notifications
    bool detach = true;
    LONG verdict = HOOK_VERDICT_PASS;
    std::function<LONG(NIRP*)> handler{};
    std::function<void()> unload{};  ///< the hook is told of the unload when there is one
    std::atomic<int> calls = 0;
    std::vector<FILTER_MODULE*> attached;
    std::vector<FILTER_MODULE*> detached;
    std::size_t refused = 0;  ///< of the attached ones: the hook was leaving already
};

}  // namespace netsieve::host
