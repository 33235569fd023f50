#include "tools/netsieve/replay_report.h"

#include <gtest/gtest.h>

#include <functional>
#include <nlohmann/json.hpp>

namespace netsieve::tool {
namespace {

ReplayReport CleanReport() {
    ReplayReport report;
    report.ran = true;
    report.framesRead = 3;
    report.adapters.resize(1);
    report.adapters[0].sent.frames = 2;
    report.adapters[0].sent.passed = 2;
    report.adapters[0].received.frames = 1;
    report.adapters[0].received.passed = 1;
    return report;
}

TEST(ReplayReportTest, StatusIsTheGravestThatApplies) {
    using enum ExitStatus;
    const CaptureFailure wrong{CaptureFault::kLinkType, "link type"};
    const CaptureFailure cut{CaptureFault::kBrokenOff, "broken off"};
    const Finding finding{"NblLost", "lost"};
    const struct {
        std::function<void(ReplayReport&)> spoil;
        ExitStatus status;
    } steps[] = {
        // Each step adds something graver than all before it.
        {[](auto&) {}, kClean},
        {[&](auto& report) { report.inputFailure = wrong; }, kInputUnreadable},
        {[&](auto& report) { report.inputFailure = cut; }, kInputBrokenOff},
        {[](auto& report) { report.notRepresentable = 1; }, kNotRepresentable},
        {[](auto& report) { report.outputFailure = "disk full"; }, kOutputFailed},
        {[](auto& report) { report.driverFailure = "no driver"; }, kDriverNotLoaded},
        {[](auto& report) { report.leftover = "1 NBL"; }, kFramesLost},
        {[&](auto& report) { report.findings.push_back(finding); }, kRuleBroken},
    };
    ReplayReport report = CleanReport();
    for (const auto& step : steps) {
        step.spoil(report);
        EXPECT_EQ(report.Status(), step.status);
        EXPECT_EQ(nlohmann::json::parse(FormatReportJson(report))["exit_status"],
                  static_cast<int>(step.status));
    }
}

TEST(ReplayReportTest, EveryFrameHasToBeAccountedFor) {
    const std::function<void(ReplayReport&)> faults[] = {
        [](ReplayReport& report) { --report.adapters[0].sent.passed; },
        [](ReplayReport& report) {
            // Came back without having been out, and no hook had asked for it.
            --report.adapters[0].received.passed;
            ++report.adapters[0].received.cameBack;
        },
        [](ReplayReport& report) { ++report.adapters[0].received.keptByHooks; },
        [](ReplayReport& report) {
            // A hook let a frame go, and nothing came out.
            DirectionCounts& sent = report.adapters[0].sent;
            --sent.passed;
            ++sent.cameBack;
            ++sent.keptByHooks;
            ++sent.reinjectedByHooks;
            ++sent.missing;
        },
        [](ReplayReport& report) { ++report.adapters[0].sent.reinjected; },
        [](ReplayReport& report) { report.abandoned = "deadlock"; },
    };
    EXPECT_TRUE(CleanReport().Balanced());
    for (const auto& fault : faults) {
        ReplayReport report = CleanReport();
        fault(report);
        EXPECT_FALSE(report.Balanced());
        EXPECT_EQ(report.Status(), ExitStatus::kFramesLost);
        EXPECT_NE(FormatReport(report).find("does not balance"), std::string::npos);
    }
}

}  // namespace
}  // namespace netsieve::tool
