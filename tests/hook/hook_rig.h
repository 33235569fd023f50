// Hooks that note what they are told, and what registers them.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "client/exports.h"
#include "hook/hook_filter.h"
#include "hook/hook_table.h"
#include "module/driver_globals.h"

namespace netsieve::host {

/// A registration block and what came of its callbacks. The client of one hook, which ends with it
/// at the latest.
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
            if (client->onDetach) {
                client->onDetach();
            }
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
    ~Client() {
        if (hook != nullptr) {
            Stop();
        }
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    NTSTATUS Register() {
        if (unload) {
            block.UnloadNotify = &Unload;
        }
        return ITarnHKRegisterFilterEx(&block, this, &hook);
    }
    static VOID NTAPI Unload(PVOID context) { static_cast<Client*>(context)->unload(); }
    /// Registered and switched on.
    Client& Start() {
        EXPECT_EQ(Register(), STATUS_SUCCESS);
        ITarnHKFlowControl(hook, HOOK_STATE_ACTIVE);
        return *this;
    }
    void Stop() {
        EXPECT_EQ(ITarnHKDeregisterFilter(hook), STATUS_SUCCESS);
        hook = nullptr;
    }

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
    std::function<void()> onDetach{};  ///< called at DISPATCH_LEVEL, under a lock of the driver
    std::function<void()> unload{};    ///< the hook is told of the unload when there is one
    std::atomic<int> calls = 0;
    std::vector<FILTER_MODULE*> attached;
    std::vector<FILTER_MODULE*> detached;
    std::size_t refused = 0;  ///< of the attached ones: the hook was leaving already
};

/// A hook that is active on every adapter until it goes, with one handler for both directions. It
/// leaves its entries to the driver.
struct TestHook : Client {
    explicit TestHook(std::function<LONG(NIRP*)> onFrame, std::u16string hookName = u"taker")
        : Client(std::move(hookName)) {
        handler = std::move(onFrame);
        detach = false;
        Start();
    }
};

/// A handler that takes every frame over, and notes its NIRP.
inline std::function<LONG(NIRP*)> TakeInto(std::vector<NIRP*>& taken) {
    return [&taken](NIRP* nirp) -> LONG {
        EXPECT_EQ(ITarnHKMarkPending(nirp), STATUS_SUCCESS);
        taken.push_back(nirp);
        return HOOK_VERDICT_PENDING;
    };
}

}  // namespace netsieve::host
