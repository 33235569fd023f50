#include "host/kernel/empty_hive.h"

#include <array>
#include <cstddef>
#include <cstring>
#include <numeric>

namespace netsieve::host {

namespace {

constexpr std::size_t kBlockSize = 4096;
constexpr std::uint32_t kNone = 0xFFFFFFFF;

// The first block of the file. Offsets in it and in the cells count from the first bin behind it.
struct BaseBlock {
    char signature[4] = {'r', 'e', 'g', 'f'};
    std::uint32_t firstSequence = 1;  // a hive that was closed properly has both alike
    std::uint32_t secondSequence = 1;
    std::uint32_t written[2] = {};
    std::uint32_t majorVersion = 1;
    std::uint32_t minorVersion = 3;  // the last in which the data of a value is always one cell
    std::uint32_t fileType = 0;
    std::uint32_t format = 1;
    std::uint32_t rootCell = 0;
    std::uint32_t binsSize = kBlockSize;
    std::uint32_t clustering = 1;
    std::uint32_t unused[115] = {};
    std::uint32_t checksum = 0;
};
static_assert(sizeof(BaseBlock) == 512 && offsetof(BaseBlock, checksum) == 508);

struct BinHeader {
    char signature[4] = {'h', 'b', 'i', 'n'};
    std::uint32_t offset = 0;
    std::uint32_t size = kBlockSize;
    std::uint32_t unused[5] = {};
};
static_assert(sizeof(BinHeader) == 32);

constexpr char kRootName[] = {'R', 'O', 'O', 'T'};

// A cell in use has a negative size, all sizes are multiples of 8.
struct KeyCell {
    std::int32_t size = -static_cast<std::int32_t>(sizeof(KeyCell));
    char signature[2] = {'n', 'k'};
    std::uint16_t flags = 0x2C;  // root of a hive, not to be deleted, name in 8-bit characters
    std::uint32_t written[2] = {};
    std::uint32_t access = 0;
    std::uint32_t parent = kNone;
    std::uint32_t children[2] = {};
    std::uint32_t childLists[2] = {kNone, kNone};
    std::uint32_t values = 0;
    std::uint32_t valueList = kNone;
    std::uint32_t security = 0;
    std::uint32_t className = kNone;
    std::uint32_t longest[4] = {};
    std::uint32_t unused = 0;
    std::uint16_t nameSize = sizeof(kRootName);
    std::uint16_t classSize = 0;
    char name[8] = {};
};
static_assert(sizeof(KeyCell) == 88 && offsetof(KeyCell, security) == 48);

struct AccessEntry {
    std::uint8_t type = 0;      // allow
    std::uint8_t flags = 0x02;  // inherited by the keys below
    std::uint16_t size = 0;
    std::uint32_t mask = 0xF003F;
};

struct SystemSid {
    std::uint8_t revision = 1;
    std::uint8_t count = 1;
    std::uint8_t authority[6] = {0, 0, 0, 0, 0, 5};
    std::uint32_t system = 18;
};

struct AdministratorsSid {
    std::uint8_t revision = 1;
    std::uint8_t count = 2;
    std::uint8_t authority[6] = {0, 0, 0, 0, 0, 5};
    std::uint32_t builtin = 32;
    std::uint32_t administrators = 544;
};

struct AccessList {
    std::uint8_t revision = 2;
    std::uint8_t unused = 0;
    std::uint16_t size = sizeof(AccessList);
    std::uint16_t count = 2;
    std::uint16_t unused2 = 0;
    AccessEntry systemEntry{.size = sizeof(AccessEntry) + sizeof(SystemSid)};
    SystemSid system;
    AccessEntry administratorsEntry{.size = sizeof(AccessEntry) + sizeof(AdministratorsSid)};
    AdministratorsSid administrators;
};
static_assert(sizeof(AccessList) == 52);

struct SecurityDescriptor {
    std::uint8_t revision = 1;
    std::uint8_t unused = 0;
    std::uint16_t control = 0x8004;  // in one piece, with an access list
    std::uint32_t ownerOffset = 72;
    std::uint32_t groupOffset = 88;
    std::uint32_t auditOffset = 0;
    std::uint32_t accessOffset = 20;
    AccessList access;
    AdministratorsSid owner;
    SystemSid group;
};
static_assert(offsetof(SecurityDescriptor, access) == 20 &&
              offsetof(SecurityDescriptor, owner) == 72 &&
              offsetof(SecurityDescriptor, group) == 88);

struct SecurityCell {
    std::int32_t size = -static_cast<std::int32_t>(sizeof(SecurityCell));
    char signature[2] = {'s', 'k'};
    std::uint16_t unused = 0;
    std::uint32_t next = 0;
    std::uint32_t previous = 0;
    std::uint32_t users = 1;
    std::uint32_t descriptorSize = sizeof(SecurityDescriptor);
    SecurityDescriptor descriptor;
    std::uint32_t padding = 0;
};
static_assert(sizeof(SecurityCell) == 128);

constexpr std::uint32_t kRootOffset = sizeof(BinHeader);
constexpr std::uint32_t kSecurityOffset = kRootOffset + sizeof(KeyCell);
constexpr std::uint32_t kFreeOffset = kSecurityOffset + sizeof(SecurityCell);

// The exclusive or of the words before it.
std::uint32_t Checksum(const BaseBlock& block) {
    std::array<std::uint32_t, sizeof(BaseBlock) / sizeof(std::uint32_t)> words;
    std::memcpy(words.data(), &block, sizeof(block));
    return std::accumulate(words.begin(), words.end() - 1, std::uint32_t{0}, std::bit_xor<>());
}

template <typename Record>
void Put(std::vector<std::uint8_t>& file, std::size_t offset, const Record& record) {
    std::memcpy(file.data() + offset, &record, sizeof(record));
}

}  // namespace

std::vector<std::uint8_t> EmptyHive() {
    BaseBlock base;
    base.rootCell = kRootOffset;
    base.checksum = Checksum(base);
    KeyCell root;
    root.security = kSecurityOffset;
    std::memcpy(root.name, kRootName, sizeof(kRootName));
    SecurityCell security;
    security.next = security.previous = kSecurityOffset;

    std::vector<std::uint8_t> file(2 * kBlockSize);
    Put(file, 0, base);
    Put(file, kBlockSize, BinHeader{});
    Put(file, kBlockSize + kRootOffset, root);
    Put(file, kBlockSize + kSecurityOffset, security);
    Put(file, kBlockSize + kFreeOffset, static_cast<std::int32_t>(kBlockSize - kFreeOffset));
    return file;
}

}  // namespace netsieve::host
