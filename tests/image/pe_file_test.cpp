#include "host/image/pe_file.h"

#include <functional>

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

struct Damage {
    const char* what;
    ImageError expected;
    std::function<void(TestImage&)> inflict;
};

// Offsets behind a directory are those of its published record.
const Damage kDamages[] = {
    {"no MZ", ImageError::kNotAnImage, [](TestImage& i) { i.bytes[0] = 'Z'; }},
    {"no PE", ImageError::kNotAnImage, [](TestImage& i) { i.bytes[i.Pe()] = 'Q'; }},
    {"header past the end", ImageError::kTruncated,
     [](TestImage& i) { i.Set(0x3C, Long{0xFFFFFFF8}); }},
    {"header at odd place", ImageError::kBadHeader, [](TestImage& i) { i.Set(0x3C, Long{0x81}); }},
    {"32-bit machine", ImageError::kWrongMachine,
     [](TestImage& i) { i.Set(i.Pe() + 4, Word{0x14C}); }},
    {"not linked", ImageError::kBadHeader, [](TestImage& i) { i.Set(i.Pe() + 22, Word{0}); }},
    {"PE32", ImageError::kNotPe32Plus, [](TestImage& i) { i.Set(i.Optional(), Word{0x10B}); }},
    {"small pages", ImageError::kBadHeader,
     [](TestImage& i) { i.Set(i.Optional() + 32, Long{0x200}); }},
    {"odd alignment", ImageError::kBadHeader,
     [](TestImage& i) { i.Set(i.Optional() + 36, Long{513}); }},
    {"huge image", ImageError::kTooLarge, [](TestImage& i) { i.Set(i.Optional() + 56, ~Long{0}); }},
    {"headers past the end", ImageError::kTruncated,
     [](TestImage& i) { i.Set(i.Optional() + 60, ~Long{0}); }},
    {"headers too short", ImageError::kBadHeader,
     [](TestImage& i) { i.Set(i.Optional() + 60, Long{64}); }},
    {"many directories", ImageError::kBadHeader,
     [](TestImage& i) { i.Set(i.Optional() + 108, ~Long{0}); }},
    {"directory that wraps", ImageError::kBadDirectory,
     [](TestImage& i) {
         i.Set(i.Directory(PeDirectory::kTls), std::uint64_t{0xFFFFF00000002000});
     }},
    {"certificates past the end", ImageError::kBadDirectory,
     [](TestImage& i) {
         i.Set(i.Directory(PeDirectory::kCertificates), std::uint64_t{1} << 47 | 8);
     }},
    {"no sections", ImageError::kBadSections, [](TestImage& i) { i.Set(i.Pe() + 6, Word{0}); }},
    {"overlapping sections", ImageError::kBadSections,
     [](TestImage& i) { i.Set(i.Section(1) + 12, i.Get<Long>(i.Section(0) + 12)); }},
    {"sections sharing bytes", ImageError::kBadSections,
     [](TestImage& i) { i.Set(i.Section(1) + 20, i.Get<Long>(i.Section(0) + 20)); }},
    {"section over headers", ImageError::kBadSections,
     [](TestImage& i) { i.Set(i.Section(0) + 20, Long{0}); }},
    {"section past the end", ImageError::kTruncated,
     [](TestImage& i) { i.Set(i.Section(0) + 20, Long{0xFFFFFE00}); }},
    {"section that wraps", ImageError::kBadSections,
     [](TestImage& i) { i.Set(i.Section(0) + 8, ~Long{0}); }},
    {"imports end in nothing", ImageError::kBadImports,
     [](TestImage& i) {
         i.Set(i.Directory(PeDirectory::kImports), i.Get<Long>(i.Optional() + 56) - 4);
         i.Set(i.Directory(PeDirectory::kImports) + 4, Long{4});
     }},
    {"slots outside", ImageError::kBadImports,
     [](TestImage& i) { i.Set(i.Contents(PeDirectory::kImports) + 16, Long{0xFFFFFFFC}); }},
    {"slots in headers", ImageError::kBadImports,
     [](TestImage& i) { i.Set(i.Contents(PeDirectory::kImports) + 16, Long{0x40}); }},
    {"shared slots", ImageError::kBadImports,
     [](TestImage& i) {
         std::size_t table = i.Contents(PeDirectory::kImports);
         i.Set(table + 16, i.Get<Long>(table + 36));
     }},
    {"module without name", ImageError::kBadImports,
     [](TestImage& i) { i.Set(i.Contents(PeDirectory::kImports) + 12, Long{0x3000}); }},
    {"endless exports", ImageError::kBadExports,
     [](TestImage& i) { i.Set(i.Contents(PeDirectory::kExports) + 24, ~Long{0}); }},
    {"ordinal without function", ImageError::kBadExports,
     [](TestImage& i) { i.Set(i.Contents(PeDirectory::kExports) + 20, Long{1}); }},
    {"names out of order", ImageError::kBadExports,
     [](TestImage& i) { i.Replace("ToyLoads", "ToyToads"); }},
    {"function nowhere", ImageError::kBadExports,
     [](TestImage& i) { i.Set(i.Contents(PeDirectory::kExports) + 40, Long{0x00F00000}); }},
    {"empty relocation block", ImageError::kBadRelocations,
     [](TestImage& i) { i.Set(i.Contents(PeDirectory::kRelocations) + 4, Long{0}); }},
    {"long relocation block", ImageError::kBadRelocations,
     [](TestImage& i) { i.Set(i.Contents(PeDirectory::kRelocations) + 4, Long{0xFFFFFFF8}); }},
    {"relocation that wraps", ImageError::kBadRelocations,
     [](TestImage& i) { i.Set(i.Contents(PeDirectory::kRelocations), Long{0xFFFFF000}); }},
    {"unknown relocation", ImageError::kBadRelocations,
     [](TestImage& i) { i.Set(i.Contents(PeDirectory::kRelocations) + 8, Word{0x3000}); }},
    {"function backwards", ImageError::kBadUnwindData,
     [](TestImage& i) { i.Set(i.Contents(PeDirectory::kUnwind) + 4, Long{0}); }},
    {"unwind codes nowhere", ImageError::kBadUnwindData,
     [](TestImage& i) { i.Set(i.Contents(PeDirectory::kUnwind) + 8, Long{0xFFFFFFFC}); }},
};

TEST(PeFile, NamesEveryDamage) {
    for (const Damage& damage : kDamages) {
        TestImage image;
        damage.inflict(image);
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
