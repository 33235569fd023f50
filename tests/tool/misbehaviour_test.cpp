#include <gtest/gtest.h>

#include "tests/tool/capture_bytes.h"
#include "tests/tool/misbehaving_driver.h"
#include "tests/tool/replay_runner.h"

namespace netsieve::tool {
namespace {

/// Four frames, sent and received in turn, and what has to be said of a driver that goes wrong.
struct Expectation {
    const char* what;
    Misbehaviour misbehaviour;
    ExitStatus status;
    const char* words;
    std::uint64_t framesOut;
};

ReplayRunner RunFourFrames(Misbehaviour misbehaviour) {
    const std::string ours("\x02\0\0\0\0a", 6);
    const std::string theirs("\x02\0\0\0\0b", 6);
    CaptureBytes capture;
    capture.FileHeader();
    for (std::uint32_t i = 0; i < 2; ++i) {
        capture.Record(i, 0, theirs + ours + std::string(48, 's'), 60);
        capture.Record(i, 1, ours + theirs + std::string(48, 'r'), 60);
    }
    ReplayOptions options;
    options.mac = {2, 0, 0, 0, 0, 'a'};
    options.output = "out";
    g_misbehaviour = misbehaviour;
    return {capture.Bytes(), options};
}

TEST(MisbehaviourTest, IsReportedForWhatItIs) {
    const Expectation cases[] = {
        {"nothing wrong", Misbehaviour::kNone, ExitStatus::kClean, "everything was given back", 4},
        {"refuses to start", Misbehaviour::kRefusesToStart, ExitStatus::kDriverNotLoaded, "", 0},
        {"refuses to bind", Misbehaviour::kRefusesToBind, ExitStatus::kDriverNotLoaded, "", 0},
        {"completes unsent", Misbehaviour::kCompletesUnsent, ExitStatus::kFramesLost,
         "3 passed, 1 withheld, 0 injected, 0 lost; everything was given back; the account does "
         "not balance",
         3},
        {"keeps a list", Misbehaviour::kKeepsAList, ExitStatus::kRuleBroken,
         "1 lost; not given back: 1 list(s) away from home", 3},
        {"miscounts", Misbehaviour::kMiscounts, ExitStatus::kRuleBroken, "ListCount", 4},
        {"sends twice", Misbehaviour::kSendsTwice, ExitStatus::kClean, "1 injected", 5},
    };
    for (const Expectation& test : cases) {
        SCOPED_TRACE(test.what);
        const ReplayRunner run = RunFourFrames(test.misbehaviour);
        const std::string summary = FormatReport(run.report);
        EXPECT_EQ(run.report.Status(), test.status) << summary;
        EXPECT_NE(summary.find(test.words), std::string::npos) << summary;
        constexpr std::size_t kRecord = 16 + 60;
        EXPECT_EQ(run.output.size(), test.framesOut == 0 ? 0 : 24 + test.framesOut * kRecord);
    }
}

TEST(MisbehaviourTest, AnInjectedFrameHasTheCapturesTime) {
    const ReplayRunner run = RunFourFrames(Misbehaviour::kSendsTwice);
    // The second sent frame is the third of the capture, at one second; its copy comes before it.
    ASSERT_GE(run.output.size(), 24 + 4 * 76u);
    EXPECT_EQ(run.output.substr(24 + 2 * 76, 76), run.output.substr(24 + 3 * 76, 76));
}

}  // namespace
}  // namespace netsieve::tool
