#include "host/image/pe_file.h"

#include <variant>

#include "tests/image/test_image.h"

namespace netsieve::host {
namespace {

using Word = std::uint16_t;
using Long = std::uint32_t;

TEST(PeFile, ReadsWhatTheLinkerWrote) {
    TestImage image;
    auto parsed = PeFile::Parse(image.bytes);
    ASSERT_TRUE(parsed) << parsed.fault().message;
    const PeFile& file = parsed.value();

    EXPECT_EQ(file.header().imageBase, 0x140000000u);
    EXPECT_EQ(file.header().checksum, file.computedChecksum());
    std::vector<std::string> imports;
    for (const PeImport& import : file.imports()) {
        imports.push_back(import.dll + "!" + import.name);
    }
    EXPECT_EQ(imports, (std::vector<std::string>{"NDIS.SYS!NdisGetVersion", "ntoskrnl.exe!DbgPrint",
                                                 "ntoskrnl.exe!KeAcquireSpinLockRaiseToDpc",
                                                 "ntoskrnl.exe!KeReleaseSpinLock"}));
    ASSERT_EQ(file.exports().size(), 2u);
    EXPECT_EQ(file.FindExport("ToySum"), &file.exports()[1]);
    EXPECT_EQ(file.FindExport("ToySun"), nullptr);
    EXPECT_EQ(file.relocations().size(), 3u);
    EXPECT_TRUE(file.SectionAt(file.header().entryPoint)->executable);
    auto covers = [&](const PeFunction& f) { return f.begin == file.header().entryPoint; };
    EXPECT_EQ(std::count_if(file.functions().begin(), file.functions().end(), covers), 1);
}

// One field of a good image that is made to hold something else, at its published offset.
TEST(PeFile, NamesEveryDamage) {
    using enum ImageError;
    using enum PeDirectory;
    const TestImage good;
    const std::size_t pe = good.Pe(), optional = good.Optional();
    const std::size_t first = good.Section(0), second = good.Section(1);
    const std::size_t imports = good.Contents(kImports), exports = good.Contents(kExports);
    const std::size_t relocations = good.Contents(kRelocations), unwind = good.Contents(kUnwind);
    constexpr std::uint64_t kHigh = std::uint64_t{1} << 32;
    const struct {
        const char* what;
        ImageError expected;
        std::size_t offset;
        std::variant<std::uint8_t, Word, Long, std::uint64_t> value;
    } damages[] = {
        {"no MZ", kNotAnImage, 0, std::uint8_t{'Z'}},
        {"no PE", kNotAnImage, pe, std::uint8_t{'Q'}},
        {"header past the end", kTruncated, 0x3C, Long{0xFFFFFFF8}},
        {"header at odd place", kBadHeader, 0x3C, Long{0x81}},
        {"32-bit machine", kWrongMachine, pe + 4, Word{0x14C}},
        {"not linked", kBadHeader, pe + 22, Word{0}},
        {"PE32", kNotPe32Plus, optional, Word{0x10B}},
        {"small pages", kBadHeader, optional + 32, Long{0x200}},
        {"odd alignment", kBadHeader, optional + 36, Long{513}},
        {"huge image", kTooLarge, optional + 56, ~Long{0}},
        {"headers past the end", kTruncated, optional + 60, ~Long{0}},
        {"headers too short", kBadHeader, optional + 60, Long{64}},
        {"many directories", kBadHeader, optional + 108, ~Long{0}},
        {"directory that wraps", kBadDirectory, good.Directory(kTls),
         std::uint64_t{0xFFFFF00000002000}},
        {"certificates past the end", kBadDirectory, good.Directory(kCertificates),
         (kHigh << 15) | 8},
        {"no sections", kBadSections, pe + 6, Word{0}},
        {"overlapping sections", kBadSections, second + 12, good.Get<Long>(first + 12)},
        {"sections sharing bytes", kBadSections, second + 20, good.Get<Long>(first + 20)},
        {"section over headers", kBadSections, first + 20, Long{0}},
        {"section past the end", kTruncated, first + 20, Long{0xFFFFFE00}},
        {"section that wraps", kBadSections, first + 8, ~Long{0}},
        {"imports end in nothing", kBadImports, good.Directory(kImports),
         4 * kHigh | (good.Get<Long>(optional + 56) - 4)},
        {"slots outside", kBadImports, imports + 16, Long{0xFFFFFFFC}},
        {"slots in headers", kBadImports, imports + 16, Long{0x40}},
        {"shared slots", kBadImports, imports + 16, good.Get<Long>(imports + 36)},
        {"module without name", kBadImports, imports + 12, Long{0x3000}},
        {"endless exports", kBadExports, exports + 24, ~Long{0}},
        {"ordinal without function", kBadExports, exports + 20, Long{1}},
        {"names out of order", kBadExports, good.Find("ToyLoads") + 3, std::uint8_t{'T'}},
        {"function nowhere", kBadExports, exports + 40, Long{0x00F00000}},
        {"empty relocation block", kBadRelocations, relocations + 4, Long{0}},
        {"long relocation block", kBadRelocations, relocations + 4, Long{0xFFFFFFF8}},
        {"relocation that wraps", kBadRelocations, relocations, Long{0xFFFFF000}},
        {"unknown relocation", kBadRelocations, relocations + 8, Word{0x3000}},
        {"function backwards", kBadUnwindData, unwind + 4, Long{0}},
        {"unwind codes nowhere", kBadUnwindData, unwind + 8, Long{0xFFFFFFFC}},
    };
    for (const auto& damage : damages) {
        TestImage image = good;
        std::visit([&](auto value) { image.Set(damage.offset, value); }, damage.value);
        auto parsed = PeFile::Parse(image.bytes);
        ASSERT_FALSE(parsed) << damage.what;
        EXPECT_EQ(ImageErrorName(parsed.fault().error), ImageErrorName(damage.expected))
            << damage.what << ": " << parsed.fault().message;
    }
}

TEST(PeFile, RefusesEveryPrefix) {
    const TestImage image;
    for (std::size_t length = 0; length < image.bytes.size(); ++length) {
        std::vector<std::uint8_t> prefix(image.bytes.begin(), image.bytes.begin() + length);
        auto parsed = PeFile::Parse(prefix);
        ASSERT_FALSE(parsed) << length;
        EXPECT_EQ(parsed.fault().error,
                  length < 2 ? ImageError::kNotAnImage : ImageError::kTruncated)
            << length << ": " << parsed.fault().message;
    }
}

// What flipped bits leave acceptable must keep its promise that every address can be used.
TEST(PeFile, FlippedBitsNeverLeadOutOfTheImage) {
    const TestImage image;
    std::mt19937_64 random(1);
    std::size_t accepted = 0;
    for (int round = 0; round < 20000; ++round) {
        TestImage flipped = image;
        flipped.FlipBits(image, random, 1 + round % 4);
        auto parsed = PeFile::Parse(flipped.bytes);
        if (!parsed) {
            EXPECT_FALSE(parsed.fault().message.empty());
            continue;
        }
        ++accepted;
        const PeFile& file = parsed.value();
        auto holdsPointer = [&](Long address) {
            return address <= file.layout().size() - 8 && file.SectionAt(address + 7) != nullptr;
        };
        ASSERT_EQ(file.layout().size(), file.header().imageSize);
        for (Long address : file.relocations()) {
            ASSERT_TRUE(holdsPointer(address)) << round;
        }
        for (const PeImport& import : file.imports()) {
            ASSERT_TRUE(holdsPointer(import.slot)) << round;
        }
    }
    EXPECT_GT(accepted, 1000u);
    EXPECT_LT(accepted, 19000u);
}

}  // namespace
}  // namespace netsieve::host
