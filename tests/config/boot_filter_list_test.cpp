// The boot filter list through the driver's export: native and image, in memory and in a hive.

#include <gtest/gtest.h>

#include <random>
#include <tuple>

#include "tests/config/boot_list_model.h"
#include "tests/config/config_rig.h"

namespace netsieve::host {
namespace {

using namespace std::literals;

constexpr NTSTATUS kNoList = STATUS_OBJECT_NAME_NOT_FOUND;

class BootFilterList : public testing::TestWithParam<std::tuple<bool, StoreKind>> {
  protected:
    std::unique_ptr<ConfigRig> MakeRig() const {
        return std::make_unique<ConfigRig>(std::get<0>(GetParam()), std::get<1>(GetParam()));
    }
};

INSTANTIATE_TEST_SUITE_P(Everywhere,
                         BootFilterList,
                         testing::Combine(testing::Bool(),
                                          testing::Values(StoreKind::kMemory, StoreKind::kHive)),
                         [](const auto& setup) {
                             return std::string(std::get<0>(setup.param) ? "Image" : "Native") +
                                    (std::get<1>(setup.param) == StoreKind::kHive ? "Hive"
                                                                                  : "Memory");
                         });

TEST_P(BootFilterList, AnswersTheVersionAndRefusesWhatIsMissing) {
    auto rig = MakeRig();
    rig->Run([&] {
        for (const KIRQL irql : {PASSIVE_LEVEL, DISPATCH_LEVEL}) {
            rig->machine().scheduler().SetIrql(irql);
            std::string text(9, '#');
            ULONG size = 8;
            EXPECT_EQ(rig->Ask(0, text.data(), &size), STATUS_INFO_LENGTH_MISMATCH);
            EXPECT_EQ(text, "#########");
            size = 9;
            EXPECT_EQ(rig->Ask(0, text.data(), &size), STATUS_SUCCESS);
            EXPECT_EQ(text, std::string("4,9,0,1\0#", 9));
            EXPECT_EQ(rig->Ask(0, nullptr, &size), STATUS_INVALID_PARAMETER);
            EXPECT_EQ(rig->Ask(0, text.data(), nullptr), STATUS_INVALID_PARAMETER);
            EXPECT_EQ(rig->Ask(6, nullptr, nullptr), STATUS_INVALID_PARAMETER);
            EXPECT_EQ(rig->Ask(7, nullptr, nullptr), STATUS_INVALID_PARAMETER);
            EXPECT_EQ(rig->Ask(1, text.data(), &size), STATUS_NOT_SUPPORTED);
            EXPECT_EQ(rig->Ask(-1, nullptr, nullptr), STATUS_NOT_SUPPORTED);
        }
        rig->machine().scheduler().SetIrql(PASSIVE_LEVEL);
    });
}

struct Step {
    bool add;
    const char16_t* name;
    NTSTATUS status;
    std::optional<Bytes> list;
    std::uint32_t flag;  ///< 0: not set
};

void Play(ConfigRig& rig, const std::optional<Bytes>& start, const std::vector<Step>& steps) {
    rig.StoreList(start);
    for (const Step& step : steps) {
        SCOPED_TRACE(testing::Message() << "step " << (&step - steps.data()));
        EXPECT_EQ(step.add ? rig.Add(step.name) : rig.Remove(step.name), step.status);
        EXPECT_EQ(rig.List(), step.list);
        EXPECT_EQ(rig.Flag(), step.flag != 0 ? std::optional(BytesOf(step.flag)) : std::nullopt);
    }
}

TEST_P(BootFilterList, KeepsTheStatedBytes) {
    const std::uint32_t present = BOOT_FLAG_LIST_PRESENT;
    const std::uint32_t empty = BOOT_FLAG_LIST_EMPTY;
    const std::vector<std::pair<std::optional<Bytes>, std::vector<Step>>> sequences = {
        {std::nullopt,
         {{false, u"alpha", kNoList, std::nullopt, 0},
          {true, u"", STATUS_INVALID_PARAMETER, std::nullopt, 0},
          {true, u"alpha", 0, BytesOf(u"alpha\0\0"sv), present},
          {true, u"ALPHA", 0, MultiSz({u"alpha"}), present},
          {true, u"beta", 0, BytesOf(u"alpha\0beta\0\0"sv), present},
          {false, u"", STATUS_INVALID_PARAMETER, MultiSz({u"alpha", u"beta"}), present},
          {false, u"gamma", 0, MultiSz({u"alpha", u"beta"}), present},
          {false, u"alpha", 0, MultiSz({u"beta"}), present},
          {false, u"beta", 0, std::nullopt, empty},
          {false, u"beta", kNoList, std::nullopt, empty},
          {true, u"a", 0, MultiSz({u"a"}), present},
          {true, u"b", 0, MultiSz({u"a", u"b"}), present},
          {false, u"b", 0, MultiSz({u"a"}), present},
          {true, u"c", 0, MultiSz({u"a", u"c"}), present},
          {false, u"a", 0, MultiSz({u"c"}), present}}},
        {MultiSz({u"net", u"netmon", u"Net2"}), {{false, u"net", 0, MultiSz({u"Net2"}), 0}}},
        {MultiSz({u"abcfilter", u"xAbcFilterx"}),
         {{false, u"AbcFilter", 0, MultiSz({u"abcfilter"}), 0}}},
        // Only the case differs: found, and nothing to drop.
        {MultiSz({u"abc"}), {{false, u"ABC", 0, MultiSz({u"abc"}), 0}}},
        // A list without its NULs, one with half a character, and one with nothing in it.
        {BytesOf(u"ab"sv), {{true, u"c", 0, MultiSz({u"ab", u"c"}), present}}},
        {Bytes{'a', 0, 'b'}, {{true, u"c", 0, MultiSz({u"ab", u"c"}), present}}},
        {Bytes{}, {{true, u"c", 0, MultiSz({u"c"}), present}}},
        // Names behind an empty one are no part of the list, but are still found.
        {BytesOf(u"a\0\0b\0\0"sv),
         {{true, u"b", 0, BytesOf(u"a\0\0b\0\0"sv), 0},
          {true, u"c", 0, MultiSz({u"a", u"c"}), present}}},
    };
    for (const auto& sequence : sequences) {
        SCOPED_TRACE(testing::Message() << "sequence " << (&sequence - sequences.data()));
        auto rig = MakeRig();
        rig->Run([&] { Play(*rig, sequence.first, sequence.second); });
    }
}

// One list that fills the limit to the last character, and its neighbours.
TEST_P(BootFilterList, LosesNothingAtItsLimits) {
    auto rig = MakeRig();
    rig->Run([&] {
        const std::u16string half(256, u'x');
        const Bytes stored =
            MultiSz({half});  // 516 bytes: 257 of the 520 characters without the end
        const auto add = [&](std::size_t length) { return rig->Add(std::u16string(length, u'y')); };
        for (const std::size_t tooLong : {262UL, 520UL, 40000UL}) {
            rig->StoreList(stored);
            EXPECT_EQ(add(tooLong), STATUS_NAME_TOO_LONG) << tooLong;
            EXPECT_EQ(rig->List(), stored);
            EXPECT_EQ(rig->Flag(), std::nullopt);
        }
        EXPECT_EQ(add(261), STATUS_SUCCESS);
        EXPECT_EQ(rig->List(), MultiSz({half, std::u16string(261, u'y')}));

        // It is longer now than can be read, and stays as it is.
        const auto full = rig->List();
        EXPECT_EQ(full->size(), 1040U);
        EXPECT_EQ(rig->Add(u"z"), STATUS_BUFFER_OVERFLOW);
        EXPECT_EQ(rig->Remove(half), STATUS_BUFFER_OVERFLOW);
        EXPECT_EQ(rig->List(), full);

        rig->StoreList(std::nullopt);
        EXPECT_EQ(add(519), STATUS_NAME_TOO_LONG);
        EXPECT_EQ(rig->List(), std::nullopt);
        EXPECT_EQ(add(518), STATUS_SUCCESS);
        EXPECT_EQ(rig->List()->size(), 1040U);
    });
}

TEST_P(BootFilterList, AgreesWithTheModelOnAnyList) {
    std::mt19937_64 random(GTEST_FLAG_GET(random_seed) + 5);
    const auto below = [&](std::size_t end) { return random() % end; };
    const auto text = [&](std::size_t length, bool nuls) {
        static constexpr std::u16string_view kCharacters = u"aAbB\u0141\u0161\xD800n";
        std::u16string made;
        for (std::size_t i = 0; i < length; ++i) {
            made += nuls && below(3) == 0 ? u'\0' : kCharacters[below(kCharacters.size())];
        }
        return made;
    };
    for (int round = 0; round < 400; ++round) {
        BootListCase steps{.type = static_cast<ULONG>(below(9)), .list = {}, .steps = {}};
        if (below(8) != 0) {
            const std::size_t length = below(3) != 0 ? below(14) : 250 + below(20);
            steps.list = BytesOf(text(length, length < 14 || below(2) == 0));
            steps.list->resize(steps.list->size() - (steps.list->empty() ? 0 : below(2)));
        }
        for (int step = 0; step < 6; ++step) {
            const std::size_t length = below(9) != 0 ? below(3) : 240 + below(40);
            steps.steps.push_back({below(2) == 0, text(length, false)});
        }
        auto rig = MakeRig();
        rig->Run([&] { EXPECT_EQ(Compare(*rig, steps), "") << "round " << round; });
    }
}

// Whatever fails, and whether once or for good: the list is the old one or the new one, every
// handle and block is given back, and the next call works.
TEST_P(BootFilterList, SurvivesEachFailingCall) {
    const struct {
        bool add;
        std::optional<Bytes> before;
        std::optional<Bytes> after;
    } changes[] = {
        {true, std::nullopt, MultiSz({u"b"})},
        {true, MultiSz({u"a"}), MultiSz({u"a", u"b"})},
        {false, MultiSz({u"a", u"b"}), MultiSz({u"a"})},
        {false, MultiSz({u"b"}), std::nullopt},
    };
    for (const auto& change : changes) {
        const auto apply = [&](ConfigRig& rig) {
            return change.add ? rig.Add(u"b") : rig.Remove(u"b");
        };
        bool failed = true;
        for (std::uint64_t call = 0; failed; ++call) {
            SCOPED_TRACE(testing::Message() << "call " << call);
            auto rig = MakeRig();
            rig->Run([&] {
                rig->StoreList(change.before);
                FaultPlan plan;
                plan.nth = call / 2 + 1;
                plan.persistent = call % 2 != 0;
                rig->machine().faults().Arm(plan);
                const NTSTATUS status = apply(*rig);
                failed = rig->machine().faults().Injected() != 0;
                rig->machine().faults().Disarm();
                const bool done = rig->List() == change.after;
                EXPECT_TRUE(done || rig->List() == change.before);
                EXPECT_TRUE(done || !NT_SUCCESS(status));
                // A name is only added behind the flag.
                EXPECT_TRUE(!change.add || !done || rig->Flag() == BytesOf(BOOT_FLAG_LIST_PRESENT));
                EXPECT_EQ(apply(*rig), done && !change.after ? kNoList : STATUS_SUCCESS);
                EXPECT_EQ(rig->List(), change.after);
            });
        }
    }
}

}  // namespace
}  // namespace netsieve::host
