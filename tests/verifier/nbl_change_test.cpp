// A filter that changes an NBL is named, whichever way the NBL goes and whoever else sees it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/ndis/other_filter.h"
#include "host/sanitizers.h"
#include "tests/verifier/breakers.h"

namespace netsieve::host {
namespace {

/// A handler of the small filter: makes a change in each NBL before it passes the chain on.
struct Handler {
    const char* name;
    bool outward;
    void (*install)(Scene&, void (*make)(PNET_BUFFER_LIST));
};

const Handler kHandlers[] = {
    {"send", true,
     [](Scene& scene, void (*make)(PNET_BUFFER_LIST)) {
         scene.filter.send = [=, &scene](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG flags) {
             make(chain);
             NdisFSendNetBufferLists(scene.filter.handle, chain, 0, flags);
         };
     }},
    {"send complete", false,
     [](Scene& scene, void (*make)(PNET_BUFFER_LIST)) {
         scene.filter.sendComplete = [=, &scene](PNET_BUFFER_LIST chain, ULONG flags) {
             make(chain);
             NdisFSendNetBufferListsComplete(scene.filter.handle, chain, flags);
         };
     }},
    {"receive", true,
     [](Scene& scene, void (*make)(PNET_BUFFER_LIST)) {
         scene.filter.receive = [=, &scene](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG,
                                            ULONG flags) {
             make(chain);
             NdisFIndicateReceiveNetBufferLists(scene.filter.handle, chain, 0, 1, flags);
         };
     }},
    {"return", false,
     [](Scene& scene, void (*make)(PNET_BUFFER_LIST)) {
         scene.filter.returned = [=, &scene](PNET_BUFFER_LIST chain, ULONG flags) {
             make(chain);
             NdisFReturnNetBufferLists(scene.filter.handle, chain, flags);
         };
     }},
};

class ChangedNbl : public testing::TestWithParam<NblChange> {};

TEST_P(ChangedNbl, IsReportedOnceAsTheFiltersDoing) {
    const NblChange& change = GetParam();
    for (const Handler& handler : kHandlers) {
        for (const ULONG flags : {0u, NDIS_RECEIVE_FLAGS_RESOURCES}) {
            Machine machine;
            Scene scene(machine);
            handler.install(scene, change.make);
            machine.Run([&] {
                scene.Start();
                machine.LoadDriver(OtherFilter(true));
                machine.LoadDriver(OtherFilter(false));
                scene.Send();
                scene.Receive(flags);
                machine.UnloadDriver("OTHERUP");
                machine.UnloadDriver("OTHERLO");
                scene.Finish();
            });
            const bool called = flags == 0 || std::string(handler.name) != "return";
            std::vector<std::string> reports;
            for (const Violation& violation : machine.verifier().violations()) {
                reports.push_back(std::string(RuleName(violation.rule)) + ": " +
                                  violation.what.substr(0, violation.what.find(':')));
            }
            const std::string expected =
                std::string(RuleName(change.rule)) + ": SMALL on adapter 1 changed " + change.field;
            EXPECT_EQ(reports, called ? std::vector{expected} : std::vector<std::string>())
                << handler.name << ", receive flags " << flags;
        }
    }
}

struct SentNbl {
    PNET_BUFFER_LIST nbl;
    PNET_BUFFER buffer;
    PMDL mdl;
    const UCHAR* byte;
};

/// Touches an NBL that the filter has sent on, while the adapter has it queued.
void TouchAfterSending(Machine& machine, const std::function<void(const SentNbl&)>& touch) {
    SentNbl sent{};
    Scene scene(machine);
    machine.Run([&] {
        scene.Start();
        scene.stack->adapter().queue().SetMode(ReleaseMode::kHold);
        scene.filter.send = [&](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG flags) {
            PNET_BUFFER const buffer = chain->FirstNetBuffer;
            sent = {chain, buffer, buffer->CurrentMdl,
                    static_cast<const UCHAR*>(buffer->CurrentMdl->MappedSystemVa)};
            NdisFSendNetBufferLists(scene.filter.handle, chain, 0, flags);
        };
        scene.Send();
        touch(sent);
        scene.stack->adapter().queue().ReleaseAll();
        scene.Finish();
    });
}

TEST_P(ChangedNbl, IsReportedOnceWhenTheFilterHadSentIt) {
    const NblChange& change = GetParam();
    const auto touch = [&](const SentNbl& sent) { change.make(sent.nbl); };
    Machine machine;
#ifdef NETSIEVE_ASAN
    EXPECT_DEATH(TouchAfterSending(machine, touch), "use-after-poison");
#else
    TouchAfterSending(machine, touch);
    ASSERT_EQ(machine.verifier().violations().size(), 1u) << machine.verifier().Describe();
    const Violation& violation = machine.verifier().violations()[0];
    EXPECT_EQ(violation.rule, Rule::kNblWritten);
    EXPECT_THAT(violation.what, testing::StartsWith(std::string(change.field) +
                                                    " was written while adapter 1 held it, given "
                                                    "to it by SMALL on adapter 1: "));
#endif
}

#ifdef NETSIEVE_ASAN
template <typename T>
void Read(const volatile T& value) {
    [[maybe_unused]] const T copy = value;
}

TEST(NblAfterSending, StopsAddressSanitizerWhenItIsRead) {
    void (*const kReads[])(const SentNbl&) = {
        [](const SentNbl& sent) { Read(sent.nbl->Flags); },
        [](const SentNbl& sent) { Read(sent.nbl->NetBufferListInfo[kNblInfoCount - 1]); },
        [](const SentNbl& sent) { Read(sent.buffer->DataLength); },
        [](const SentNbl& sent) { Read(sent.mdl->ByteCount); },
        [](const SentNbl& sent) { Read(*sent.byte); }};
    for (const auto touch : kReads) {
        Machine machine;
        EXPECT_DEATH(TouchAfterSending(machine, touch), "use-after-poison");
    }
}
#endif

INSTANTIATE_TEST_SUITE_P(, ChangedNbl, testing::ValuesIn(NblChanges()));

}  // namespace
}  // namespace netsieve::host
