#include <gtest/gtest.h>

#include "host/kernel/visible_text.h"
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
    check(NetsieveRuntime_sprintf(text, "%p %% [%18p]", reinterpret_cast<void*>(0xBEEF),
                                  reinterpret_cast<void*>(1)),
          "000000000000BEEF % [  0000000000000001]");
    check(NetsieveRuntime_sprintf(text, "%o|%#o|%I64d|%I32u|%Iu|%Ix|%hhu", 8, 8, -5ll, 6,
                                  0x100000000ull, ~0ull, 0x1FF),
          "10|010|-5|6|4294967296|ffffffffffffffff|255");
    check(NetsieveRuntime_sprintf(text, "[%*d|%-*u|%*d|%.*s|%.*d]", 4, 7, 4, 8u, -4, 9, 2, "cut", 3,
                                  1),
          "[   7|8   |9   |cu|001]");
    // What cannot be printed takes its argument, so that the next one is right.
    check(NetsieveRuntime_sprintf(text, "%f %q %n%d", 1.5, 2, text, 3), "%f %q %n3");
    check(NetsieveRuntime_sprintf(text, "%d%", 4), "4%");
}

TEST(FormatText, TakesWideAndCountedStrings) {
    char text[128];
    WCHAR wide[] = u"\u00e4\U0001F310\xD800z";
    CHAR narrow[] = "narrow";
    UNICODE_STRING counted{.Length = 6, .MaximumLength = 10, .Buffer = wide};
    ANSI_STRING ansi{.Length = 3, .MaximumLength = 6, .Buffer = narrow};
    const UNICODE_STRING empty{};
    NetsieveRuntime_sprintf(text, "%ws|%S|%ls|%hS|%hs|%ws", wide, u"S", u"ls", "hS", "hs", nullptr);
    EXPECT_STREQ(text, "\u00e4\U0001F310\uFFFDz|S|ls|hS|hs|(null)");
    NetsieveRuntime_sprintf(text, "%wZ|%Z|%.2Z|%6Z|%-4wZ|%wZ|%Z", &counted, &ansi, &ansi, &ansi,
                            &counted, &empty, nullptr);
    EXPECT_STREQ(text, "\u00e4\U0001F310|nar|na|   nar|\u00e4\U0001F310|(null)|(null)");
    NetsieveRuntime_sprintf(text, "%C%lc%wc%hC%c|%.1ws|%3C", u'\u00e4', u'b', u'c', 'd', 'e', wide,
                            u'f');
    EXPECT_STREQ(text, "\u00e4bcde|\u00e4|  f");
}

TEST(VisibleText, SpellsOutWhatSteersATerminal) {
    EXPECT_EQ(VisibleText("a\tb\n\x1B[2J\r\x7F\xC2\x9Bm \u00e4\xFF"),
              "a\tb\n\\x1B[2J\\x0D\\x7F\\x9Bm \u00e4\xFF");
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
