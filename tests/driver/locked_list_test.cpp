#include "driver/locked_list.h"

#include "platform/list.h"
#include "tests/driver/driver_scenario.h"

namespace netsieve::host {
namespace {

struct Entry {
    LIST_ENTRY link{};  // first, as the list demands
    int number = 0;
};

int NumberOf(PLIST_ENTRY entry) {
    return reinterpret_cast<Entry*>(entry)->number;
}

/// The numbers on the list, in order, read under its lock. The predicate matches nothing.
std::vector<int> NumbersOn(LOCKED_LIST* list) {
    std::vector<int> numbers;
    const auto note = [](LOCKED_LIST*, PLIST_ENTRY entry, PVOID argument) -> BOOLEAN {
        static_cast<std::vector<int>*>(argument)->push_back(NumberOf(entry));
        return FALSE;
    };
    EXPECT_EQ(LockedListFind(list, note, &numbers), nullptr);
    return numbers;
}

BOOLEAN HasNumber(LOCKED_LIST*, PLIST_ENTRY entry, PVOID argument) {
    return NumberOf(entry) == *static_cast<int*>(argument);
}

TEST(LockedListTest, KeepsOrderAndCount) {
    RunClean({}, [](Machine&) {
        LOCKED_LIST list;
        InitializeLockedList(&list);
        Entry entries[4] = {{{}, 1}, {{}, 2}, {{}, 3}, {{}, 4}};
        int two = 2, five = 5;
        EXPECT_EQ(LockedListRemoveHead(&list), nullptr);
        EXPECT_THAT(NumbersOn(&list), testing::IsEmpty());
        for (int i = 0; i < 3; ++i) {
            LockedListInsertTail(&list, &entries[i].link);
        }
        EXPECT_THAT(NumbersOn(&list), testing::ElementsAre(1, 2, 3));
        EXPECT_EQ(LockedListFind(&list, HasNumber, &two), &entries[1].link);
        EXPECT_EQ(LockedListFind(&list, HasNumber, &five), nullptr);
        EXPECT_EQ(LockedListRemoveEntry(&list, &entries[3].link), nullptr);
        EXPECT_EQ(list.Count, 3u);
        EXPECT_EQ(LockedListRemoveEntry(&list, &entries[1].link), &entries[1].link);
        EXPECT_EQ(LockedListRemoveHead(&list), &entries[0].link);
        EXPECT_THAT(NumbersOn(&list), testing::ElementsAre(3));
        EXPECT_EQ(list.Count, 1u);
        EXPECT_EQ(LockedListRemoveEntry(&list, &entries[1].link), nullptr);

        LockedListInsertTail(nullptr, &entries[0].link);
        LockedListInsertTail(&list, nullptr);
        LockedListFlush(nullptr, nullptr, nullptr);
        EXPECT_EQ(LockedListRemoveEntry(&list, nullptr), nullptr);
        EXPECT_EQ(LockedListRemoveHead(nullptr), nullptr);
        EXPECT_EQ(LockedListFind(&list, nullptr, nullptr), nullptr);
        EXPECT_EQ(list.Count, 1u);
    });
}

TEST(LockedListTest, FlushesUntilTheCallbackStopsIt) {
    const auto stopAt = [](LOCKED_LIST* list, PLIST_ENTRY entry, PVOID argument) -> BOOLEAN {
        EXPECT_EQ(CurrentContext().irql, DISPATCH_LEVEL);
        EXPECT_NE(list->Lock.Lock & 1, 0u);
        return NumberOf(entry) == *static_cast<int*>(argument);
    };
    for (const int stop : {0, 1, 2, 3}) {
        RunClean({}, [&](Machine&) {
            LOCKED_LIST list;
            InitializeLockedList(&list);
            Entry entries[3] = {{{}, 1}, {{}, 2}, {{}, 3}};
            for (Entry& entry : entries) {
                LockedListInsertTail(&list, &entry.link);
            }
            int argument = stop;
            LockedListFlush(&list, stopAt, &argument);
            EXPECT_EQ(list.Count, stop == 0 ? 0u : 3u - stop);
            EXPECT_EQ(NumbersOn(&list).size(), list.Count);
            LockedListFlush(&list, nullptr, nullptr);
            EXPECT_EQ(list.Count, 0u);
            EXPECT_EQ(LockedListRemoveHead(&list), nullptr);
            EXPECT_EQ(entries[2].number, 3);
        });
    }
}

// Four processors insert their own entries and take out their own or anyone's. At the end every
// entry was removed as often as it was inserted, and list and count agree.
void Contend(Machine& machine, int rounds) {
    constexpr int kCallers = 4;
    struct Caller {
        Entry entries[2];
        std::atomic<int> onList[2]{};  // inserted and not yet removed by anyone
    };
    LOCKED_LIST list;
    InitializeLockedList(&list);
    Caller callers[kCallers];
    const auto removed = [&](PLIST_ENTRY entry) {
        const int number = NumberOf(entry);
        EXPECT_EQ(--callers[number / 2].onList[number % 2], 0);
    };
    std::vector<std::uint32_t> contexts;
    for (int i = 0; i < kCallers; ++i) {
        for (int j = 0; j < 2; ++j) {
            callers[i].entries[j].number = 2 * i + j;
        }
        contexts.push_back(machine.scheduler().Start(
            {.name = "caller",
             .kind = i % 2 == 0 ? ContextKind::kThread : ContextKind::kDpc,
             .processor = static_cast<unsigned>(i)},
            [&, i] {
                for (int round = 0; round < rounds; ++round) {
                    for (int j = 0; j < 2; ++j) {
                        // A list's entry may be inserted again once somebody has taken it off.
                        if (int expected = 0;
                            callers[i].onList[j].compare_exchange_strong(expected, 1)) {
                            LockedListInsertTail(&list, &callers[i].entries[j].link);
                        }
                    }
                    if (PLIST_ENTRY const head = LockedListRemoveHead(&list)) {
                        removed(head);
                    }
                    if (PLIST_ENTRY const own =
                            LockedListRemoveEntry(&list, &callers[i].entries[1].link)) {
                        removed(own);
                    }
                }
            }));
    }
    for (const std::uint32_t context : contexts) {
        machine.scheduler().Join(context);
    }
    std::vector<int> expected;
    for (const Caller& caller : callers) {
        for (int j = 0; j < 2; ++j) {
            if (caller.onList[j] != 0) {
                expected.push_back(caller.entries[j].number);
            }
        }
    }
    EXPECT_THAT(NumbersOn(&list), testing::UnorderedElementsAreArray(expected));
    EXPECT_EQ(list.Count, expected.size());
}

TEST(LockedListTest, StaysWholeUnderContention) {
    for (std::uint64_t seed = 1; seed <= 200; ++seed) {
        SCOPED_TRACE(seed);
        RunClean({.seed = seed, .processors = 4}, [](Machine& machine) { Contend(machine, 6); });
    }
    RunClean({.scheduler = SchedulerKind::kThreaded, .processors = 4},
             [](Machine& machine) { Contend(machine, 2000); });
}

}  // namespace
}  // namespace netsieve::host
