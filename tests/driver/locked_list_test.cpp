#include "module/locked_list.h"

#include "platform/atomics.h"
#include "platform/list.h"
#include "tests/driver/schedule_scenarios.h"

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

// Four processors each insert an entry of their own again and again and take out their own or
// anyone's. In the end what is on the list is what was inserted and not yet taken out.
void Contend(Machine& machine, int rounds) {
    constexpr int kCallers = 4;
    LOCKED_LIST list;
    InitializeLockedList(&list);
    Entry entries[kCallers];
    std::atomic<int> onList[kCallers]{};
    const auto remove = [&](PLIST_ENTRY entry) {
        if (entry != nullptr) {
            EXPECT_EQ(--onList[NumberOf(entry)], 0);
        }
    };
    const auto contend = [&](int caller) {
        for (int round = 0; round < rounds; ++round) {
            if (int expected = 0; onList[caller].compare_exchange_strong(expected, 1)) {
                LockedListInsertTail(&list, &entries[caller].link);
            }
            remove(round % 2 == 0 ? LockedListRemoveHead(&list)
                                  : LockedListRemoveEntry(&list, &entries[caller].link));
        }
    };
    std::vector<std::uint32_t> contexts;
    for (int i = 0; i < kCallers; ++i) {
        entries[i].number = i;
        contexts.push_back(machine.scheduler().Start(
            {.name = "caller",
             .kind = i % 2 == 0 ? ContextKind::kThread : ContextKind::kDpc,
             .processor = static_cast<unsigned>(i)},
            [&contend, i] { contend(i); }));
    }
    machine.scheduler().JoinAll(contexts);
    std::vector<int> expected;
    for (int i = 0; i < kCallers; ++i) {
        if (onList[i] != 0) {
            expected.push_back(i);
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
             [](Machine& machine) { Contend(machine, 10'000); });
}

// What is unlinked may be freed at once, so nobody may be looking at it then.
TEST(LockedListModels, AnEntryIsUnlinkedUnderNoOnesEyes) {
    RunModel({.name = "walk against removal"}, [](Machine& machine, ScheduleTree& tree) {
        struct Node {
            LIST_ENTRY link;
            ULONG gone;
        };
        tree.SetOpen(false);
        LOCKED_LIST list;
        InitializeLockedList(&list);
        Node nodes[2] = {};
        for (Node& node : nodes) {
            LockedListInsertTail(&list, &node.link);
        }
        tree.SetOpen(true);
        machine.scheduler().Start({.name = "remover", .processor = 1}, [&] {
            for (Node& node : nodes) {
                LockedListRemoveEntry(&list, &node.link);
                WriteRelease<ULONG>(&node.gone, TRUE);
            }
        });
        const LOCKED_LIST_ROUTINE look = [](LOCKED_LIST*, PLIST_ENTRY entry, PVOID) -> BOOLEAN {
            EXPECT_EQ(ReadAcquire(&reinterpret_cast<Node*>(entry)->gone), 0u);
            return FALSE;
        };
        LockedListFind(&list, look, nullptr);
        machine.scheduler().WaitUntilIdle();
        tree.SetOpen(false);
    });
}

}  // namespace
}  // namespace netsieve::host
