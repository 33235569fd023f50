// Every rule is broken by something, and exactly that rule is reported.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "host/sanitizers.h"
#include "tests/verifier/breakers.h"
#include "tests/verifier/check_calls.h"

namespace netsieve::host {
namespace {

constexpr std::uint64_t kPointsThatHang = 10000;

std::vector<Breaker> AllBreakers() {
    std::vector<Breaker> all = KernelBreakers();
    for (const auto& part : {NblBreakers(), HookBreakers()}) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

std::string NameOf(const testing::TestParamInfo<Breaker>& info) {
    return RuleName(info.param.rule) + std::to_string(info.index);
}

void RunBreaker(Machine& machine, Scene& scene, const Breaker& breaker) {
    machine.Run([&] {
        breaker.act(scene);
        scene.Finish();
    });
    machine.ndis().ReportLostNbls();
}

class BrokenRule : public testing::TestWithParam<Breaker> {};

TEST_P(BrokenRule, IsReportedAndNoOther) {
    const Breaker& breaker = GetParam();
    if (kSanitized && breaker.rule == Rule::kKernelStack) {
        GTEST_SKIP() << "a sanitizer's frames are larger than the driver's, and are not counted";
    }
    Machine machine({.pointsWithoutProgress = kPointsThatHang});
    Scene scene(machine);
#ifdef NETSIEVE_ASAN
    if (breaker.stopsAddressSanitizer) {
        EXPECT_DEATH(RunBreaker(machine, scene, breaker), "AddressSanitizer");
        return;
    }
#endif
    RunBreaker(machine, scene, breaker);
    std::set<std::string> reported;
    for (const Violation& violation : machine.verifier().violations()) {
        reported.insert(RuleName(violation.rule));
    }
    EXPECT_THAT(reported, testing::ElementsAre(RuleName(breaker.rule)))
        << breaker.how << "\n"
        << machine.verifier().Describe();
    if (breaker.reports != 0) {
        EXPECT_EQ(machine.verifier().violations().size(), breaker.reports)
            << machine.verifier().Describe();
    }
    EXPECT_THAT(machine.verifier().Describe(), testing::HasSubstr(breaker.says)) << breaker.how;
}

INSTANTIATE_TEST_SUITE_P(, BrokenRule, testing::ValuesIn(AllBreakers()), NameOf);

/// The calls among `left` that reported the violation are taken out.
void TakeReporting(const Violation& violation, std::vector<CheckCall>& left) {
    const std::string file = violation.site.file;
    std::erase_if(left, [&](const CheckCall& call) {
        return file.ends_with(call.file) && violation.site.line >= call.firstLine &&
               violation.site.line <= call.lastLine;
    });
}

// A rule may be checked in many places, and each of them has something that breaks it there.
TEST(Checks, EachHasABreaker) {
    if (kSanitized) {
        GTEST_SKIP() << "some rules are not checked under a sanitizer";
    }
    std::vector<CheckCall> left = FindCheckCalls(NETSIEVE_SOURCE_DIR);
    EXPECT_GT(left.size(), 100u);
    std::vector<Breaker> all = AllBreakers();
    for (const Breaker& call : CallBreakers()) {
        all.push_back(call);
    }
    for (const Breaker& breaker : all) {
        Machine machine({.pointsWithoutProgress = kPointsThatHang});
        Scene scene(machine);
        RunBreaker(machine, scene, breaker);
        for (const Violation& violation : machine.verifier().violations()) {
            TakeReporting(violation, left);
        }
    }
    for (const CheckCall& call : left) {
        ADD_FAILURE() << call.file << ":" << call.firstLine << ": nothing breaks " << call.text;
    }
}

// With the same scene and nothing broken the verifier is silent, so that a report is the breaker's.
TEST(Rules, PassingOnBreaksNone) {
    Machine machine;
    Scene scene(machine);
    RunBreaker(machine, scene, {Rule::kCount, "", [](Scene& inside) {
                                    inside.Start();
                                    inside.Send(3);
                                    inside.Receive(0, 3);
                                    inside.Receive(NDIS_RECEIVE_FLAGS_RESOURCES, 3);
                                }});
    EXPECT_TRUE(machine.verifier().Silent()) << machine.verifier().Describe();
}

TEST(Rules, ReportTellsWhatWhereAndTheNblsHistory) {
    Machine machine;
    Scene scene(machine);
    for (const Breaker& breaker : NblBreakers()) {
        if (breaker.rule == Rule::kNblNotOwned) {
            RunBreaker(machine, scene, breaker);
        }
    }
    const std::string text = machine.verifier().Describe();
    for (const char* part :
         {"NblNotOwned: an NBL is passed on by the driver that holds it, and once",
          "seen: completed by SMALL on adapter 1", "of protocol TCPIP, held by protocol TCPIP",
          "1. sent by protocol TCPIP to SMALL on adapter 1",
          "2. sent by SMALL on adapter 1 to adapter 1",
          "3. completed by adapter 1 to SMALL on adapter 1",
          "4. completed by SMALL on adapter 1 to protocol TCPIP",
          "by:   thread 1 (main) on processor 0 at IRQL 0, in FilterSendNetBufferListsComplete",
          ", in FilterSendNetBufferLists"}) {
        EXPECT_THAT(text, testing::HasSubstr(part));
    }
}

// Whatever a hook does wrong, inside the driver's calls too, it is the hook or its driver that the
// report names.
TEST(Rules, AHooksFaultIsTheHooks) {
    for (const Breaker& breaker : HookBreakers()) {
        SCOPED_TRACE(breaker.how);
        Machine machine;
        Scene scene(machine);
        RunBreaker(machine, scene, breaker);
        for (const Violation& violation : machine.verifier().violations()) {
            const bool inHook = violation.where.find(" of hook 'breaker'") != std::string::npos;
            EXPECT_TRUE(violation.what.starts_with("HOOK: ") || inHook ||
                        violation.what.find("hook 'breaker' of HOOK") != std::string::npos)
                << violation.Describe();
            EXPECT_FALSE(violation.what.starts_with("NETSIEVE")) << violation.Describe();
        }
    }
}

// A verifier that is off says nothing and lets the same drivers run.
TEST(Rules, NoneIsReportedWhenTheVerifierIsOff) {
    Machine machine({.verify = false});
    Scene scene(machine);
    RunBreaker(machine, scene, {Rule::kCount, "", [](Scene& inside) {
                                    KEVENT event{};
                                    KeSetEvent(&event, 0, FALSE);
                                    inside.Start();
                                    inside.Send();
                                }});
    EXPECT_TRUE(machine.verifier().Silent());
}

}  // namespace
}  // namespace netsieve::host
