// Runs a replay in the test's own process.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>

#include "tools/netsieve/replay_engine.h"

namespace netsieve::tool {

/// The frames of `capture` through the driver that the program was linked with.
class ReplayRunner {
  public:
    ReplayRunner(const std::string& capture, const ReplayOptions& options) {
        const std::string path = testing::TempDir() + "netsieve-replay-" + std::to_string(getpid());
        std::ofstream(path, std::ios::binary) << capture;
        CaptureReader reader;
        EXPECT_FALSE(reader.Open(path, false));
        CaptureWriter writer;
        const auto open = [&] {
            EXPECT_FALSE(writer.Open(path + ".out", reader.header()));
            return &writer;
        };
        Progress progress("", std::nullopt);
        Replay(options, {.name = "", .address = *options.mac}, {reader, open, progress}, report);
        EXPECT_FALSE(writer.Close());
        std::ifstream out(path + ".out", std::ios::binary);
        output.assign(std::istreambuf_iterator<char>(out), {});
        unlink(path.c_str());
        unlink((path + ".out").c_str());
    }

    ReplayReport report;
    std::string output;
};

}  // namespace netsieve::tool
