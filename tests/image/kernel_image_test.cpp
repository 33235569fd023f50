#include "host/image/kernel_image.h"

#include <fmt/format.h>

#include <cstdarg>
#include <fstream>
#include <functional>
#include <string>

#include "host/image/parked_images.h"
#include "platform/kernel.h"
#include "tests/image/test_image.h"

namespace netsieve::host {
namespace {

std::string gLog;

// Stand-ins for what the toy driver imports.
ULONG NTAPI Print(PCSTR format, ...) {
    if (std::strchr(format, '%') == nullptr) {
        gLog += format;
        return 0;
    }
    __builtin_ms_va_list arguments;
    __builtin_ms_va_start(arguments, format);
    auto name = __builtin_va_arg(arguments, const char*);
    auto version = __builtin_va_arg(arguments, unsigned);
    auto pointer = __builtin_va_arg(arguments, void*);
    auto number = __builtin_va_arg(arguments, int);
    __builtin_ms_va_end(arguments);
    gLog += fmt::format("{} {} {} {};", name, version, pointer, number);
    return 0;
}
KIRQL NTAPI Acquire(PKSPIN_LOCK lock) {
    *lock = 1;
    return 7;
}
VOID NTAPI Release(PKSPIN_LOCK lock, KIRQL irql) {
    gLog += fmt::format("lock {} irql {};", *lock, irql);
    *lock = 0;
}
UINT NTAPI Version() {
    return 0x60001;
}

ImportTable ToyImports() {
    ImportTable table;
    table.Add("NTOSKRNL.EXE", "DbgPrint", reinterpret_cast<void*>(Print));
    table.Add("ntoskrnl.exe", "KeAcquireSpinLockRaiseToDpc", reinterpret_cast<void*>(Acquire));
    table.Add("ntoskrnl.exe", "KeReleaseSpinLock", reinterpret_cast<void*>(Release));
    table.Add("ndis.sys", "NdisGetVersion", reinterpret_cast<void*>(Version));
    return table;
}

// The page protection of `address`, as the system tells it: "r-xp", or empty when nothing is
// mapped.
std::string ProtectionOf(const void* address) {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        std::uintptr_t begin = 0;
        std::uintptr_t end = 0;
        char protection[5] = {};
        if (std::sscanf(line.c_str(), "%lx-%lx %4s", &begin, &end, protection) == 3 &&
            reinterpret_cast<std::uintptr_t>(address) - begin < end - begin) {
            return protection;
        }
    }
    return {};
}

template <class Function>
Function* At(void* address) {
    return reinterpret_cast<Function*>(address);
}

TEST(KernelImage, RunsInItsOwnProtectedPages) {
    auto loaded = KernelImage::Load(std::filesystem::path(NETSIEVE_TOY_IMAGE), ToyImports());
    ASSERT_TRUE(loaded) << loaded.fault().message;
    const std::uint8_t* base = loaded.value().memory().data();
    {
        KernelImage image = std::move(loaded.value());
        gLog.clear();
        DRIVER_OBJECT driver{};
        auto entry = At<NTSTATUS NTAPI(DRIVER_OBJECT*, UNICODE_STRING*)>(image.EntryPoint());
        EXPECT_EQ(entry(&driver, nullptr), STATUS_SUCCESS);
        ASSERT_TRUE(image.ContainsCode(reinterpret_cast<void*>(driver.DriverUnload)));
        driver.DriverUnload(&driver);
        EXPECT_EQ(gLog, fmt::format("lock 1 irql 7;loaded {} {} -7;toy unloaded\n", 0x60001,
                                    static_cast<void*>(&driver)));
        EXPECT_EQ(At<ULONG NTAPI(ULONG)>(image.FindExport("ToySum"))(4), 14u);
        EXPECT_EQ(image.FindExport("DriverEntry"), nullptr);

        EXPECT_FALSE(image.Contains(base - 1));
        EXPECT_FALSE(image.Contains(base + image.memory().size()));
        EXPECT_EQ(ProtectionOf(base), "r--p");
        for (const PeSection& section : image.file().sections()) {
            EXPECT_EQ(ProtectionOf(base + section.address), section.executable ? "r-xp"
                                                            : section.writable ? "rw-p"
                                                                               : "r--p")
                << section.name;
        }
    }
    EXPECT_EQ(ProtectionOf(base), "");
}

UINT NTAPI OtherVersion() {
    return 0x60014;
}

// gNextStep points into the image, so that what is renewed has to be relocated too.
TEST(ParkedImages, AreTakenAsNewWhileTheirImportsAreTheSame) {
    ImportTable other = ToyImports();
    other.Add("ndis.sys", "NdisGetVersion", reinterpret_cast<void*>(OtherVersion));
    const ImportTable imports = ToyImports();
    const void* first = nullptr;
    for (const ImportTable* table :
         std::initializer_list<const ImportTable*>{&imports, &imports, &other}) {
        auto loaded = LoadImage(NETSIEVE_TOY_IMAGE, *table);
        ASSERT_TRUE(loaded) << loaded.fault().message;
        KernelImage& image = *loaded.value();
        EXPECT_EQ(At<ULONG NTAPI()>(image.FindExport("ToyLoads"))(), 0u);
        gLog.clear();
        DRIVER_OBJECT driver{};
        At<NTSTATUS NTAPI(DRIVER_OBJECT*, UNICODE_STRING*)>(image.EntryPoint())(&driver, nullptr);
        EXPECT_NE(gLog.find(fmt::format("loaded {} ", table == &other ? 0x60014 : 0x60001)),
                  std::string::npos)
            << gLog;
        EXPECT_EQ(At<ULONG NTAPI(ULONG)>(image.FindExport("ToySum"))(4), 14u);
        first = first == nullptr ? image.memory().data() : first;
        if (table == &imports) {
            EXPECT_EQ(image.memory().data(), first);
        }
        ParkImage(std::move(loaded.value()));
    }
}

TEST(KernelImage, BindsOneImageToAnother) {
    ImportTable platform = ToyImports();
    auto first = KernelImage::Load(std::filesystem::path(NETSIEVE_TOY_IMAGE), platform);
    ASSERT_TRUE(first) << first.fault().message;
    ImageExports exports("toy.sys", first.value());
    ImportChain chain;
    chain.Add(platform);
    chain.Add(exports);

    TestImage client;
    client.Replace("NDIS.SYS", "TOY.sys");
    client.Replace("NdisGetVersion", "ToyLoads");
    client.FixChecksum();
    auto second = KernelImage::Load(client.bytes, chain);
    ASSERT_TRUE(second) << second.fault().message;
    gLog.clear();
    DRIVER_OBJECT driver{};
    for (KernelImage* image : {&first.value(), &second.value()}) {
        At<NTSTATUS NTAPI(DRIVER_OBJECT*, UNICODE_STRING*)>(image->EntryPoint())(&driver, nullptr);
    }
    EXPECT_NE(gLog.find(fmt::format("loaded 1 {} ", static_cast<void*>(&driver))),
              std::string::npos)
        << gLog;
}

// Each field is set at its published offset.
TEST(KernelImage, RefusesByName) {
    using enum ImageError;
    using Long = std::uint32_t;
    const TestImage good;
    const std::size_t optional = good.Optional();
    const std::size_t exports = good.Contents(PeDirectory::kExports);
    const Long names = good.Get<Long>(good.Contents(PeDirectory::kImports));
    const struct {
        ImageError expected;
        const char* message;  // a part of it
        std::function<void(TestImage&)> prepare;
        bool fixChecksum = true;
    } refusals[] = {
        {kWrongChecksum, "0x0", [&](auto& i) { i.Set(optional + 64, Long{0}); }, false},
        {kWrongChecksum, "add up", [&](auto& i) { i.bytes[0x40] ^= 1; }, false},
        {kWrongSubsystem, "subsystem is 3",
         [&](auto& i) { i.Set(optional + 68, std::uint16_t{3}); }},
        {kWritableCode, ".text", [&](auto& i) { i.bytes[good.Section(0) + 39] |= 0x80; }},
        {kBadEntryPoint, "0x2000", [&](auto& i) { i.Set(optional + 16, Long{0x2000}); }},
        {kBadEntryPoint, "0x0", [&](auto& i) { i.Set(optional + 16, Long{0}); }},
        {kBadEntryPoint, "0xffffffff", [&](auto& i) { i.Set(optional + 16, ~Long{0}); }},
        {kUnsupported, "thread-local",
         [&](auto& i) { i.Set(good.Directory(PeDirectory::kTls), Long{0x3000}); }},
        {kUnsupported, "ToyLoads is forwarded to TOY.sys",
         [&](auto& i) { i.Set(exports + 40, good.Get<Long>(exports + 12)); }},
        {kImportByOrdinal, "NDIS.SYS!#9",
         [&](auto& i) { i.Set(good.FileOffset(names), std::uint64_t{1} << 63 | 9); }},
        {kUnknownImports, "NDIS.SYS!NdisGetVersiom, ntoskrnl.exe!DbgPrimt",
         [&](auto& i) {
             i.Replace("NdisGetVersion", "NdisGetVersiom");
             i.Replace("DbgPrint", "DbgPrimt");
         }},
        {kUnknownImports, "NDIT.SYS!NdisGetVersion",
         [&](auto& i) { i.Replace("NDIS.SYS", "NDIT.SYS"); }},
        {kNotRelocatable, "only base",
         [&](auto& i) {
             i.bytes[i.Pe() + 22] |= 1;
             // This test's own code is in the way there.
             i.Set(optional + 24, reinterpret_cast<std::uintptr_t>(Print) & ~std::uint64_t{0xFFFF});
         }},
    };
    for (const auto& refusal : refusals) {
        TestImage image = good;
        refusal.prepare(image);
        if (refusal.fixChecksum) {
            image.FixChecksum();
        }
        auto loaded = KernelImage::Load(image.bytes, ToyImports());
        ASSERT_FALSE(loaded) << refusal.message;
        EXPECT_EQ(ImageErrorName(loaded.fault().error), ImageErrorName(refusal.expected));
        EXPECT_NE(loaded.fault().message.find(refusal.message), std::string::npos)
            << loaded.fault().message;
    }
    for (const char* path : {"/nonexistent.sys", "/"}) {
        auto loaded = KernelImage::Load(std::filesystem::path(path), ToyImports());
        ASSERT_FALSE(loaded) << path;
        EXPECT_EQ(loaded.fault().error, ImageError::kUnreadable);
    }
}

}  // namespace
}  // namespace netsieve::host
