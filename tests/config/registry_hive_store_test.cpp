// Hive files: what is written comes back, and what cannot be written leaves the old file.

#include "host/kernel/registry_hive_store.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <random>

#include "host/kernel/empty_hive.h"
#include "tests/config/config_rig.h"

namespace netsieve::host {
namespace {

class HiveStore : public testing::Test {
  protected:
    HiveStore() {
        char name[] = "/tmp/netsieve-hive-XXXXXX";
        directory_ = mkdtemp(name);
        path_ = directory_ / "SYSTEM";
    }
    ~HiveStore() override { std::filesystem::remove_all(directory_); }

    std::unique_ptr<RegistryHiveStore> Open() {
        error_.clear();
        return RegistryHiveStore::Open(path_, error_);
    }
    std::unique_ptr<RegistryHiveStore> Create() { return RegistryHiveStore::Create(path_, error_); }
    void Write(const Bytes& bytes) const {
        std::ofstream(path_, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    }
    std::size_t FilesThere() const {
        return std::size_t(std::distance(std::filesystem::directory_iterator(directory_), {}));
    }

    std::filesystem::path directory_;
    std::filesystem::path path_;
    std::string error_;
};

// The store in memory says what a store does; the hive has to agree, also after a round through the
// file.
TEST_F(HiveStore, AgreesWithMemoryThroughTheFile) {
    std::mt19937_64 random(7);
    RegistryMemoryStore memory;
    auto hive = Create();
    ASSERT_NE(hive, nullptr) << error_;
    RegistryKey inMemory = 0;
    RegistryKey inHive = 0;
    CreateRegistryPath(memory, u"Key\\S\u0141ub", &inMemory);
    CreateRegistryPath(*hive, u"Key\\S\u0141ub", &inHive);
    const std::u16string_view names[] = {u"a",       u"A",      u"",   u"\u00E5b",
                                         u"\u00C5B", u"\u0141", u"z z"};
    for (int round = 0; round < 600; ++round) {
        const std::u16string name(names[random() % std::size(names)]);
        const RegistryValue value{name, ULONG(random() % 12),
                                  Bytes(random() % 70, std::uint8_t(round))};
        if (random() % 4 == 0) {
            EXPECT_EQ(hive->DeleteValue(inHive, name), memory.DeleteValue(inMemory, name));
        } else {
            EXPECT_EQ(hive->WriteValue(inHive, value), memory.WriteValue(inMemory, value));
        }
        if (round % 50 == 0) {
            ASSERT_TRUE(hive->Save(error_)) << error_;
            hive = Open();
            ASSERT_NE(hive, nullptr) << error_;
            ASSERT_EQ(FindRegistryPath(*hive, hive->root(), {u"kEY", u"s\u0142UB"}, &inHive), 0);
        }
        for (const std::u16string_view each : names) {
            RegistryValue stored;
            RegistryValue expected;
            ASSERT_EQ(hive->ReadValue(inHive, each, &stored),
                      memory.ReadValue(inMemory, each, &expected));
            ASSERT_EQ(stored.data, expected.data);
            ASSERT_EQ(stored.type, expected.type);
            ASSERT_EQ(stored.name, expected.name);
        }
    }
    EXPECT_EQ(FilesThere(), 1U);
}

TEST_F(HiveStore, FindsTheCurrentControlSet) {
    auto hive = Create();
    RegistryKey select = 0;
    RegistryKey services = 0;
    RegistryKey found = 0;
    CreateRegistryPath(*hive, u"ControlSet003\\Services\\NetSieve", &services);
    CreateRegistryPath(*hive, u"Select", &select);
    const auto find = [&] {
        return FindRegistryPath(*hive, hive->root(),
                                {u"currentcontrolSET", u"Services", u"NetSieve"}, &found);
    };
    EXPECT_EQ(find(), STATUS_OBJECT_NAME_NOT_FOUND);
    for (const std::uint32_t current : {0U, 2U, 3U}) {
        hive->WriteValue(select, {u"Current", REG_DWORD, BytesOf(current)});
        EXPECT_EQ(find(), current == 3 ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND);
    }
    EXPECT_EQ(found, services);
    hive->DeleteValue(select, u"Current");
    EXPECT_EQ(hive->CurrentControlSet(), u"");
    // A hive that has a key of this name means that key.
    CreateRegistryPath(*hive, u"CurrentControlSet\\Services\\NetSieve", &services);
    EXPECT_EQ(find(), STATUS_SUCCESS);
    EXPECT_EQ(found, services);
}

TEST_F(HiveStore, RefusesWhatIsNoHive) {
    const Bytes empty = EmptyHive();
    const auto refused = [&](const Bytes& bytes) {
        Write(bytes);
        return Open() == nullptr ? error_.substr(path_.string().size()) : "opened";
    };
    EXPECT_EQ(refused(Bytes(8192, 'x')), " is not a registry hive");
    for (const std::size_t cut : {0UL, 4095UL, 4100UL, 8191UL}) {
        EXPECT_NE(refused({empty.begin(), empty.begin() + std::ptrdiff_t(cut)}), "opened") << cut;
    }
    Bytes flipped = empty;
    flipped[40] ^= 1;
    EXPECT_NE(refused(flipped).find("damaged"), std::string::npos);
}

// hivex would write these other than they are.
TEST_F(HiveStore, RefusesWhatItCannotWrite) {
    auto hive = Create();
    RegistryKey key = 0;
    CreateRegistryPath(*hive, u"Key", &key);
    EXPECT_EQ(hive->WriteValue(key, {u"big", 3, Bytes(900'000)}), STATUS_SUCCESS);
    EXPECT_EQ(hive->WriteValue(key, {u"big", 3, Bytes(900'001)}), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(hive->WriteValue(key, {std::u16string(u"a\0b", 3), 3, {1}}), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(hive->WriteValue(key, {u"\xD800", 3, {1}}), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(hive->AddKey(key, u"\xD800", &key), STATUS_OBJECT_NAME_INVALID);
}

TEST_F(HiveStore, KeepsAFileThatSomeoneElseChanged) {
    ASSERT_TRUE(Create()->Save(error_)) << error_;
    std::filesystem::permissions(path_, std::filesystem::perms(0640));
    std::filesystem::create_symlink(path_, directory_ / "link");
    auto hive = Open();
    auto other = RegistryHiveStore::Open(directory_ / "link", error_);
    EXPECT_TRUE(other->Save(error_)) << error_;
    EXPECT_TRUE(std::filesystem::is_symlink(directory_ / "link"));
    EXPECT_EQ(std::filesystem::status(path_).permissions(), std::filesystem::perms(0640));
    EXPECT_FALSE(hive->Save(error_));
    EXPECT_NE(error_.find("changed by someone else"), std::string::npos) << error_;
    EXPECT_EQ(FilesThere(), 2U);
}

}  // namespace
}  // namespace netsieve::host
