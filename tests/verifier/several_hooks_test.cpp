// Two drivers with two hooks each, of which one breaks a rule: no report names another.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/exports.h"
#include "driver/driver_entry.h"
#include "tests/verifier/breakers.h"

namespace netsieve::host {
namespace {

constexpr std::size_t kHooks = 4;
constexpr ULONG kTag = SmallFilter::kTag;

struct Misdeed {
    Rule rule;
    LONG (*act)(NIRP* nirp);
};

struct NamedHook {
    WCHAR name[6];
    const char* text;
    HOOK_FILTER* handle = nullptr;
    LONG (*act)(NIRP*) = nullptr;
};

struct Hooks {
    NamedHook of[kHooks] = {{u"one-a", "'one-a'"},
                            {u"one-b", "'one-b'"},
                            {u"two-a", "'two-a'"},
                            {u"two-b", "'two-b'"}};
};
Hooks* g_hooks = nullptr;

void Register(NamedHook& hook) {
    HOOK_FILTER_REGISTRATION_EX block{};
    block.AttachNotify = [](FILTER_MODULE* module, HOOK_FILTER* handle, PVOID)
                             NTAPI { ITarnHKAttachFilter(module, handle); };
    block.DetachNotify = [](FILTER_MODULE* module, HOOK_FILTER* handle, PVOID)
                             NTAPI { ITarnHKDettachFilter(module, handle); };
    block.SendHandler = [](PVOID context, NIRP* nirp) NTAPI {
        auto* const self = static_cast<NamedHook*>(context);
        return self->act != nullptr ? self->act(nirp) : LONG{HOOK_VERDICT_PASS};
    };
    block.Name = {sizeof(hook.name) - sizeof(WCHAR), sizeof(hook.name), hook.name};
    ITarnHKRegisterFilterEx(&block, &hook, &hook.handle);
    ITarnHKFlowControl(hook.handle, HOOK_STATE_ACTIVE);
}

template <std::size_t kFirst>
VOID NTAPI Unload(PDRIVER_OBJECT) {
    ITarnHKDeregisterFilter(g_hooks->of[kFirst].handle);
    ITarnHKDeregisterFilter(g_hooks->of[kFirst + 1].handle);
}

template <std::size_t kFirst>
NTSTATUS NTAPI Entry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    driver->DriverUnload = &Unload<kFirst>;
    Register(g_hooks->of[kFirst]);
    Register(g_hooks->of[kFirst + 1]);
    return STATUS_SUCCESS;
}

const Misdeed kMisdeeds[] = {
    {Rule::kHookPendingUnmarked, [](NIRP*) -> LONG { return HOOK_VERDICT_PENDING; }},
    {Rule::kHookMarkCompleted,
     [](NIRP* nirp) -> LONG {
         ITarnHKCompleteRequest(nirp, 0);
         return HOOK_VERDICT_PASS;
     }},
    {Rule::kHookMarkLeft,
     [](NIRP* nirp) -> LONG {
         return ITarnHKMarkPending(nirp) == STATUS_SUCCESS ? HOOK_VERDICT_PENDING
                                                           : HOOK_VERDICT_PASS;
     }},
    {Rule::kPoolLeak,
     [](NIRP*) -> LONG {
         ExAllocatePoolWithTag(NonPagedPool, 16, kTag);
         return HOOK_VERDICT_PASS;
     }},
    {Rule::kCallbackHoldsLock,
     [](NIRP*) -> LONG {
         static KSPIN_LOCK lock;
         KeInitializeSpinLock(&lock);
         KeAcquireSpinLockRaiseToDpc(&lock);
         return HOOK_VERDICT_PASS;
     }},
};

void SendPastHooks(Machine& machine) {
    Stack& stack = machine.ndis().AddAdapter();
    machine.LoadDriver({.name = "NETSIEVE", .entry = &DriverEntry});
    machine.LoadDriver({.name = "ONE", .entry = &Entry<0>});
    machine.LoadDriver({.name = "TWO", .entry = &Entry<2>});
    NblFactory nbls(machine, stack.protocol().pool());
    const std::uint8_t frame[60] = {};
    stack.protocol().Send(nbls.Make(frame));
    for (const char* const driver : {"ONE", "TWO"}) {
        machine.UnloadDriver(driver);
    }
    machine.ndis().RemoveAdapter(stack);
    machine.UnloadDriver("NETSIEVE");
}

TEST(SeveralHooks, OnlyTheGuiltyOneIsNamed) {
    for (const Misdeed& misdeed : kMisdeeds) {
        for (std::size_t guilty = 0; guilty < kHooks; ++guilty) {
            Hooks hooks;
            g_hooks = &hooks;
            hooks.of[guilty].act = misdeed.act;
            SCOPED_TRACE(std::string(RuleName(misdeed.rule)) + " by " + hooks.of[guilty].text);
            Machine machine;
            machine.Run([&] { SendPastHooks(machine); });
            ASSERT_FALSE(machine.verifier().Silent());
            const std::string driver = guilty < 2 ? "ONE" : "TWO";
            for (const Violation& violation : machine.verifier().violations()) {
                EXPECT_EQ(violation.rule, misdeed.rule) << violation.Describe();
                const std::string text = violation.Describe();
                EXPECT_TRUE(text.find(hooks.of[guilty].text) != std::string::npos ||
                            violation.what.starts_with(driver + ": "))
                    << text;
                for (std::size_t other = 0; other < kHooks; ++other) {
                    EXPECT_TRUE(other == guilty ||
                                text.find(hooks.of[other].text) == std::string::npos)
                        << text;
                }
            }
        }
    }
}

}  // namespace
}  // namespace netsieve::host
