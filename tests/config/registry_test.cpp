// The host's registry behind the Zw calls, as published.

#include "host/kernel/registry.h"

#include <gtest/gtest.h>

#include "tests/config/config_rig.h"

namespace netsieve::host {
namespace {

struct Name : UNICODE_STRING {
    explicit Name(PCWSTR text) { RtlInitUnicodeString(this, text); }
};

NTSTATUS Open(PCWSTR path, HANDLE* key, ACCESS_MASK access = KEY_ALL_ACCESS, HANDLE root = {}) {
    Name name(path);
    OBJECT_ATTRIBUTES attributes{};
    attributes.Length = sizeof(attributes);
    attributes.RootDirectory = root;
    attributes.ObjectName = &name;
    return ZwOpenKey(key, access, &attributes);
}

NTSTATUS Set(HANDLE key, PCWSTR value, std::uint32_t word) {
    Name name(value);
    return ZwSetValueKey(key, &name, 0, REG_DWORD, &word, sizeof(word));
}

NTSTATUS Query(HANDLE key, PCWSTR value, Bytes* buffer, ULONG* needed) {
    Name name(value);
    return ZwQueryValueKey(key, &name, KeyValueFullInformation, buffer->data(),
                           static_cast<ULONG>(buffer->size()), needed);
}

NTSTATUS Delete(HANDLE key, PCWSTR value) {
    Name name(value);
    return ZwDeleteValueKey(key, &name);
}

/// Runs `body` on a machine, and gives the rules that it broke.
std::vector<Rule> Broken(const std::function<void(Machine&)>& body) {
    Machine machine;
    machine.Run([&] { body(machine); });
    std::vector<Rule> rules;
    for (const Violation& violation : machine.verifier().violations()) {
        rules.push_back(violation.rule);
    }
    return rules;
}

TEST(Registry, FindsKeysByPathWithoutCase) {
    Broken([](Machine& machine) {
        RegistryKey made = 0;
        CreateRegistryPath(machine.registry().memory(), u"Machine\\Soft\\Sm\u00E5land", &made);
        HANDLE soft = nullptr;
        HANDLE key = nullptr;
        EXPECT_EQ(Open(u"\\REGISTRY\\machine\\SOFT", &soft), STATUS_SUCCESS);
        EXPECT_EQ(Open(u"sM\u00C5LAND", &key, KEY_ALL_ACCESS, soft), STATUS_SUCCESS);
        EXPECT_EQ(Open(u"\\Registry", &key, KEY_ALL_ACCESS, soft), STATUS_OBJECT_PATH_SYNTAX_BAD);
        EXPECT_EQ(Open(u"\\Registry\\None", &key), STATUS_OBJECT_NAME_NOT_FOUND);
        EXPECT_EQ(Open(u"\\Device\\Machine", &key), STATUS_OBJECT_NAME_NOT_FOUND);
        EXPECT_EQ(Open(u"\\Registry\\Machine\\\\Soft", &key), STATUS_OBJECT_NAME_INVALID);
        EXPECT_EQ(Open(u"Registry", &key), STATUS_OBJECT_PATH_SYNTAX_BAD);
    });
}

TEST(Registry, AnswersAsMuchAsTheBufferHolds) {
    Broken([](Machine&) {
        HANDLE key = nullptr;
        Open(u"\\Registry\\Machine", &key);
        EXPECT_EQ(Set(key, u"Val", 0x11223344), STATUS_SUCCESS);
        EXPECT_EQ(Set(key, u"vaL", 0x55667788), STATUS_SUCCESS);
        Bytes whole;
        for (const Bytes& part : {BytesOf(0U), BytesOf(REG_DWORD), BytesOf(28U), BytesOf(4U),
                                  BytesOf(6U), BytesOf(u"Val"), Bytes(2), BytesOf(0x55667788U)}) {
            whole.insert(whole.end(), part.begin(), part.end());
        }
        ULONG needed = 0;
        for (std::size_t size = 0; size <= 40; ++size) {
            Bytes buffer(size, 0xEE);
            EXPECT_EQ(Query(key, u"VAL", &buffer, &needed), size < 20   ? STATUS_BUFFER_TOO_SMALL
                                                            : size < 32 ? STATUS_BUFFER_OVERFLOW
                                                                        : STATUS_SUCCESS);
            EXPECT_EQ(needed, 32U);
            Bytes expected = whole;
            expected.resize(size < 20 ? 0 : std::min<std::size_t>(size, 32));
            expected.resize(size, 0xEE);
            EXPECT_EQ(buffer, expected) << size;
        }
        EXPECT_EQ(Delete(key, u"val"), STATUS_SUCCESS);
        EXPECT_EQ(Delete(key, u"val"), STATUS_OBJECT_NAME_NOT_FOUND);
        EXPECT_EQ(Query(key, u"Val", &whole, &needed), STATUS_OBJECT_NAME_NOT_FOUND);
    });
}

TEST(Registry, ChecksTheRightsOfAHandle) {
    Broken([](Machine&) {
        HANDLE reader = nullptr;
        HANDLE writer = nullptr;
        Open(u"\\Registry\\Machine", &reader, KEY_QUERY_VALUE);
        Open(u"\\Registry\\Machine", &writer, KEY_SET_VALUE);
        Bytes buffer(40);
        ULONG needed = 0;
        EXPECT_EQ(Set(writer, u"v", 1), STATUS_SUCCESS);
        EXPECT_EQ(Set(reader, u"v", 1), STATUS_ACCESS_DENIED);
        EXPECT_EQ(Query(writer, u"v", &buffer, &needed), STATUS_ACCESS_DENIED);
        EXPECT_EQ(Delete(reader, u"v"), STATUS_ACCESS_DENIED);
    });
}

VOID NTAPI UnloadNothing(PDRIVER_OBJECT) {}

NTSTATUS NTAPI LeaveHandleOpen(PDRIVER_OBJECT object, PUNICODE_STRING) {
    object->DriverUnload = &UnloadNothing;
    HANDLE key = nullptr;
    return Open(u"\\Registry\\Machine", &key);
}

TEST(Registry, ReportsWhoMisusesIt) {
    using Rules = std::vector<Rule>;
    EXPECT_EQ(Broken([](Machine&) {
                  HANDLE key = nullptr;
                  Open(u"\\Registry\\Machine", &key);
                  EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
                  EXPECT_EQ(Set(key, u"v", 1), STATUS_INVALID_HANDLE);
              }),
              Rules{Rule::kHandleNotOpen});
    EXPECT_EQ(Broken([](Machine& machine) {
                  machine.scheduler().SetIrql(APC_LEVEL);
                  EXPECT_EQ(ZwClose(nullptr), STATUS_INVALID_HANDLE);
                  machine.scheduler().SetIrql(PASSIVE_LEVEL);
              }),
              (Rules{Rule::kPassiveLevelRequired, Rule::kHandleNotOpen}));
    EXPECT_EQ(Broken([](Machine& machine) {
                  machine.LoadDriver({.name = "LEAKS", .entry = &LeaveHandleOpen});
                  machine.UnloadDriver("LEAKS");
              }),
              Rules{Rule::kObjectLeak});
}

}  // namespace
}  // namespace netsieve::host
