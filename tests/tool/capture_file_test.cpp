#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

#include "tests/tool/capture_bytes.h"
#include "tools/netsieve/capture_reader.h"
#include "tools/netsieve/capture_writer.h"

namespace netsieve::tool {
namespace {

class CaptureFileTest : public testing::Test {
  protected:
    std::string Path(const char* name) const {
        return testing::TempDir() + "netsieve-" + std::to_string(getpid()) + "-" + name;
    }
    std::string Store(const std::string& bytes) const {
        std::ofstream(Path("in"), std::ios::binary) << bytes;
        return Path("in");
    }
    static std::string Load(const std::string& path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    void TearDown() override {
        unlink(Path("in").c_str());
        unlink(Path("out").c_str());
    }

    /// Copies every frame from `reader` to the output file and returns the output.
    std::string Copy(CaptureReader& reader) const {
        CaptureWriter writer;
        EXPECT_EQ(writer.Open(Path("out"), reader.header()), std::nullopt);
        CaptureFrame frame;
        while (reader.Next(frame) == ReadOutcome::kFrame) {
            writer.Begin(frame.stamp, frame.capturedLength, frame.originalLength);
            writer.Append(frame.bytes, frame.capturedLength);
        }
        EXPECT_EQ(writer.Close(), std::nullopt);
        return Load(Path("out"));
    }
};

TEST_F(CaptureFileTest, ClassicFilesKeepEveryField) {
    for (const std::uint32_t magic : {0xA1B2C3D4u, 0xA1B23C4Du}) {
        for (const bool bigEndian : {false, true}) {
            SCOPED_TRACE(testing::Message() << std::hex << magic << " big-endian " << bigEndian);
            CaptureReader reader;
            ASSERT_FALSE(reader.Open(Store(OddCapture(bigEndian, magic).Bytes()), true));
            EXPECT_EQ(Copy(reader), OddCapture(false, magic).Bytes());
            ASSERT_FALSE(reader.Rewind());
            EXPECT_EQ(Copy(reader), OddCapture(false, magic).Bytes());
            EXPECT_EQ(reader.framesRead(), 6u);
        }
    }
}

TEST_F(CaptureFileTest, PcapngBecomesNanoseconds) {
    CaptureBytes file;
    // An interface with a resolution of 10^-9; one frame of 4 bytes.
    file.SectionHeader(1);
    file.U32(1).U32(32).U16(1).U16(0).U32(96).U16(9).U16(1).Raw({9, 0, 0, 0}).U32(0).U32(32);
    const std::uint64_t stamp = 1'700'000'000'123'456'789;
    file.U32(6).U32(36).U32(0).U32(stamp >> 32).U32(static_cast<std::uint32_t>(stamp));
    file.U32(4).U32(60).Raw("abcd").U32(36);

    CaptureBytes expected;
    expected.U32(0xA1B23C4D).U16(2).U16(4).U32(0).U32(0).U32(96).U32(1);
    expected.Record(1'700'000'000, 123'456'789, "abcd", 60);
    CaptureReader reader;
    const auto failure = reader.Open(Store(file.Bytes()), false);
    ASSERT_FALSE(failure) << failure->message;
    EXPECT_EQ(Copy(reader), expected.Bytes());
}

TEST_F(CaptureFileTest, WhatIsWrongIsToldApart) {
    const std::string frame(60, 'x');
    const auto good = [&] { return CaptureBytes().FileHeader().Record(1, 2, frame, 60); };
    const struct {
        const char* what;
        std::string bytes;
        CaptureFault fault;
        std::uint64_t framesBefore;
    } cases[] = {
        {"empty", "", CaptureFault::kNotACapture, 0},
        {"text", "not a capture at all, not at all", CaptureFault::kNotACapture, 0},
        {"compressed", "\x1F\x8B\x08 and so on, up to twenty-four", CaptureFault::kNotACapture, 0},
        {"old version", CaptureBytes().FileHeader(0xA1B2C3D4, 96, 1, 1).Bytes(),
         CaptureFault::kUnsupportedVersion, 0},
        {"pcapng of version 7", CaptureBytes().SectionHeader(7).Bytes(),
         CaptureFault::kUnsupportedVersion, 0},
        {"half a file header", CaptureBytes().FileHeader().Bytes().substr(0, 20),
         CaptureFault::kDamagedHeader, 0},
        {"loopback", CaptureBytes().FileHeader(0xA1B2C3D4, 96, 0).Bytes(), CaptureFault::kLinkType,
         0},
        {"ends in a record header", good().U32(1).U16(2).Bytes(), CaptureFault::kBrokenOff, 1},
        {"ends in a frame", good().U32(1).U32(2).U32(60).U32(60).Raw("xx").Bytes(),
         CaptureFault::kBrokenOff, 1},
        {"impossible length", good().U32(1).U32(2).U32(4325376).U32(60).Raw(frame).Bytes(),
         CaptureFault::kBrokenOff, 1},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.what);
        CaptureReader reader;
        auto failure = reader.Open(Store(test.bytes), false);
        if (!failure) {
            CaptureFrame read;
            ReadOutcome outcome;
            while ((outcome = reader.Next(read)) == ReadOutcome::kFrame) {
                EXPECT_EQ(read.capturedLength, 60u);
            }
            ASSERT_EQ(outcome, ReadOutcome::kFailed);
            failure = reader.failure();
        }
        EXPECT_EQ(failure->fault, test.fault) << failure->message;
        EXPECT_NE(failure->message.find(Path("in")), std::string::npos) << failure->message;
        EXPECT_EQ(reader.framesRead(), test.framesBefore);
    }
    CaptureReader directory;
    EXPECT_EQ(directory.Open(testing::TempDir(), false)->fault, CaptureFault::kCannotOpen);
    CaptureReader missing;
    EXPECT_EQ(missing.Open(Path("missing"), false)->fault, CaptureFault::kCannotOpen);
}

TEST_F(CaptureFileTest, WriterReportsFullDiskAndUnwritablePath) {
    CaptureWriter full;
    ASSERT_FALSE(full.Open("/dev/full", CaptureHeader()));
    const std::vector<std::uint8_t> frame(100000);
    for (int i = 0; i < 4; ++i) {
        full.Begin({1, 2}, 100000, 100000);
        full.Append(frame.data(), frame.size());
    }
    EXPECT_TRUE(full.HasFailed()) << "the failure shows only at the end";
    EXPECT_NE(full.Close(), std::nullopt);

    CaptureWriter small;  // all of it is still buffered when it is closed
    ASSERT_FALSE(small.Open("/dev/full", CaptureHeader()));
    EXPECT_NE(small.Close(), std::nullopt);

    CaptureWriter nowhere;
    EXPECT_TRUE(nowhere.Open(Path("missing/out"), CaptureHeader()));
}

}  // namespace
}  // namespace netsieve::tool
