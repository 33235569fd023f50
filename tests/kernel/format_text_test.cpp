#include <gtest/gtest.h>

#include "host/machine.h"

extern "C" int NTAPI NetsieveRuntime_sprintf(char* buffer, const char* format, ...);

namespace netsieve::host {
namespace {

TEST(FormatText, TakesThePlatformsSizesAndVariadicArguments) {
    char text[128];
    const auto check = [&](int length, const char* expected) {
        EXPECT_STREQ(text, expected);
        EXPECT_EQ(length, static_cast<int>(std::char_traits<char>::length(expected)));
    };
    check(NetsieveRuntime_sprintf(text, "%d|%5u|%-5u|%05d|%+d", -7, 42u, 42u, -42, 3),
          "-7|   42|42   |-0042|+3");
    // A single l is 32 bits wide, and what stands above must not be read.
    check(NetsieveRuntime_sprintf(text, "%lu %lx %I64x %llu %d", 4000000000u, 0xABCDu,
                                  0x123456789ABCull, 5ull, 6),
          "4000000000 abcd 123456789abc 5 6");
    check(NetsieveRuntime_sprintf(text, "%hx %hd %#x %.3u", 0x1FFFF, 0x10001, 255u, 7u),
          "ffff 1 0xff 007");
    check(NetsieveRuntime_sprintf(text, "[%8s|%-6s|%.2s|%c|%s]", "right", "left", "cut", 'c',
                                  static_cast<const char*>(nullptr)),
          "[   right|left  |cu|c|(null)]");
    check(NetsieveRuntime_sprintf(text, "%p %% %q", reinterpret_cast<void*>(0xBEEF)),
          "000000000000BEEF % %q");
}

TEST(DbgPrint, GoesToTheMachineAtAnyIrqlAndAnyLength) {
    Machine machine;
    const std::string longText(5000, 'x');
    machine.Run([&] {
        machine.scheduler().SetIrql(15);
        DbgPrint("%s has %d hooks\n", "eth0", 2);
        machine.scheduler().SetIrql(PASSIVE_LEVEL);
        DbgPrint("%s", longText.c_str());
    });
    EXPECT_EQ(machine.debugOutput(), (std::vector<std::string>{"eth0 has 2 hooks\n", longText}));
    EXPECT_TRUE(machine.verifier().Silent()) << machine.verifier().Describe();
}

}  // namespace
}  // namespace netsieve::host
