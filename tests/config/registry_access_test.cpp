// The driver's registry routines.

#include "config/registry_access.h"

#include <gtest/gtest.h>

#include "tests/config/config_rig.h"

namespace netsieve::host {
namespace {

const HANDLE kNoHandle = reinterpret_cast<HANDLE>(-1);

HANDLE OpenServiceKey() {
    HANDLE key = nullptr;
    EXPECT_EQ(RegOpenKey(ROOT_LOCAL_MACHINE, BOOT_LIST_KEY, &key), STATUS_SUCCESS);
    return key;
}

std::u16string Path(ULONG root, PCWSTR subkey) {
    PWSTR path = BuildRegistryPath(root, subkey);
    std::u16string text = path != nullptr ? path : u"none";
    if (path != nullptr) {
        ExFreePoolWithTag(path, REGISTRY_TAG);
    }
    return text;
}

TEST(RegistryAccess, BuildsThePathOfEachRoot) {
    ConfigRig rig;
    rig.Run([&] {
        const std::u16string machine = u"\\Registry\\Machine\\";
        EXPECT_EQ(Path(0x80000000, u"a"), machine + u"SOFTWARE\\classes\\a");
        EXPECT_EQ(Path(0x80000002, u""), machine);
        EXPECT_EQ(Path(0x80000003, u"a\\b"), u"\\Registry\\User\\a\\b");
        EXPECT_EQ(Path(0x80000005, u"a"),
                  machine + u"SYSTEM\\CurrentControlSet\\Hardware Profiles\\Current\\a");
        for (const ULONG root : {0U, 0x80000001U, 0x80000004U, 2U}) {
            EXPECT_EQ(Path(root, u"a"), u"none") << root;
        }
    });
}

// Missing arguments come first, the level second, and neither makes a registry call.
TEST(RegistryAccess, TestsArgumentsAndThenTheLevel) {
    ConfigRig rig;
    rig.Run([&] {
        const HANDLE key = OpenServiceKey();
        rig.machine().faults().Arm({});
        HANDLE out = kNoHandle;
        ULONG word = 4;
        for (const KIRQL irql : {PASSIVE_LEVEL, APC_LEVEL, DISPATCH_LEVEL}) {
            rig.machine().scheduler().SetIrql(irql);
            for (const NTSTATUS status :
                 {RegOpenKey(0, u"a", &out), RegCloseKey(kNoHandle),
                  RegSetValue(key, u"v", 4, &word, 0), RegSetValue(key, nullptr, 4, &word, 4),
                  RegQueryValue(key, u"v", &word, &word, nullptr), RegDeleteValue(nullptr, u"v")}) {
                EXPECT_EQ(status, STATUS_INVALID_PARAMETER);
            }
            if (irql != PASSIVE_LEVEL) {
                for (const NTSTATUS status :
                     {RegOpenKey(ROOT_USERS, u"a", &out), RegSetValue(key, u"v", 4, &word, 4),
                      RegQueryValue(key, u"v", &word, &word, &word), RegDeleteValue(key, u"v"),
                      RegCloseKey(key)}) {
                    EXPECT_EQ(status, STATUS_INVALID_LEVEL);
                }
            }
        }
        rig.machine().scheduler().SetIrql(PASSIVE_LEVEL);
        EXPECT_EQ(rig.machine().faults().Counted(), 0U);
        EXPECT_EQ(RegCloseKey(key), STATUS_SUCCESS);
    });
}

TEST(RegistryAccess, AsksForTheVersionOnceAndForKernelHandlesAfterNt4) {
    for (const std::uint32_t version : {4U, 6U}) {
        ConfigRig rig(false, StoreKind::kMemory, {.osMajorVersion = version});
        rig.Run([&] {
            const HANDLE key = OpenServiceKey();
            EXPECT_EQ(reinterpret_cast<std::intptr_t>(key) < 0, version != 4);
            RegCloseKey(key);
            // At this level another question would be reported.
            rig.machine().scheduler().SetIrql(DISPATCH_LEVEL);
            EXPECT_EQ(IsNt4(), version == 4);
            rig.machine().scheduler().SetIrql(PASSIVE_LEVEL);
        });
    }
}

}  // namespace
}  // namespace netsieve::host
