#include <gtest/gtest.h>

#include "tests/tool/capture_bytes.h"
#include "tests/tool/replay_runner.h"

namespace netsieve::tool {
namespace {

constexpr MacAddress kAddress = {2, 0, 0, 0, 0, 'a'};

ReplayOptions Options(bool verify) {
    ReplayOptions options;
    options.mac = kAddress;
    options.output = "out";
    options.verify = verify;
    return options;
}

TEST(ReplayTest, OddFramesComeOutAsTheyWentIn) {
    const CaptureBytes capture = OddCapture(false, 0xA1B2C3D4);
    for (const bool verify : {true, false}) {
        for (const auto direction : {DirectionChoice::kSend, DirectionChoice::kReceive}) {
            ReplayOptions options = Options(verify);
            options.direction = direction;
            const ReplayRunner run(capture.Bytes(), options);
            EXPECT_EQ(run.report.Status(), ExitStatus::kClean) << FormatReport(run.report);
            EXPECT_EQ(run.output, capture.Bytes());
        }
    }
}

TEST(ReplayTest, TheSourceAddressDecidesTheWay) {
    const std::string ours("\x02\0\0\0\0a", 6);
    const std::string theirs("\x02\0\0\0\0b", 6);
    CaptureBytes capture;
    capture.FileHeader()
        .Record(1, 0, theirs + ours + std::string(48, 'x'), 60)  // sent
        .Record(2, 0, theirs + ours, 60)                         // sent: the source is all there
        .Record(3, 0, ours + theirs + std::string(48, 'x'), 60)  // received
        .Record(4, 0, theirs + ours.substr(0, 5), 60);           // received: too short to say
    const ReplayRunner run(capture.Bytes(), Options(true));
    ASSERT_EQ(run.report.adapters.size(), 1u);
    EXPECT_EQ(run.report.adapters[0].sent.passed, 2u);
    EXPECT_EQ(run.report.adapters[0].received.passed, 2u);
    EXPECT_EQ(run.output, capture.Bytes());
}

}  // namespace
}  // namespace netsieve::tool
