#include "tools/netsieve/mac_address.h"

#include <gtest/gtest.h>

#include <string>

namespace netsieve::tool {
namespace {

TEST(MacAddressTest, ParsesBothForms) {
    const MacAddress expected = {0x00, 0x00, 0x5E, 0x00, 0x53, 0xAF};
    EXPECT_EQ(ParseMac("00:00:5e:00:53:af"), expected);
    EXPECT_EQ(ParseMac("00-00-5E-00-53-AF"), expected);
    EXPECT_EQ(FormatMac(expected), "00:00:5e:00:53:af");
    for (const char* wrong : {"", "00:00:5e:00:53", "00:00:5e:00:53:a", "00:00:5e:00:53:af:",
                              "00:00-5e:00:53:af", "00:00:5e:00:53:ag", "0x:00:5e:00:53:af",
                              "00005e0053af00000", "+1:00:5e:00:53:af", "00:00:5e:00:53: f"}) {
        EXPECT_EQ(ParseMac(wrong), std::nullopt) << wrong;
    }
}

/// The vote of frames given as pairs of addresses, each address by one character: '*' is a
/// group's, '0' the zero address.
class MacVoteTest : public testing::Test {
  protected:
    static std::string Address(char name) {
        return name == '*'   ? "\xFF\xFF\xFF\xFF\xFF\xFF"
               : name == '0' ? std::string(6, '\0')
                             : std::string("\x02\x00\x00\x00\x00", 5) + name;
    }
    void Frame(char destination, char source, std::uint32_t length = 60) {
        std::string bytes = Address(destination) + Address(source);
        bytes.resize(60);
        CaptureFrame frame;
        frame.bytes = reinterpret_cast<const std::uint8_t*>(bytes.data());
        frame.capturedLength = length;
        vote_.Count(frame);
    }
    std::string Result() const {
        const auto winner = vote_.Result();
        return winner ? static_cast<char>(winner->address[5]) + std::to_string(winner->frames)
                      : "none";
    }

    MacVote vote_;
};

TEST_F(MacVoteTest, GroupZeroAndShortFramesDoNotVote) {
    Frame('*', '0');
    Frame('0', '*');
    Frame('a', 'b', 13);
    EXPECT_EQ(Result(), "none");
    Frame('*', 'c', 14);
    EXPECT_EQ(Result(), "c1");
}

TEST_F(MacVoteTest, MostFramesWinAndTiesGoToTheFirst) {
    Frame('a', 'b');
    Frame('b', 'a');
    EXPECT_EQ(Result(), "a2") << "a tie";
    Frame('c', 'c');
    Frame('c', 'c');
    EXPECT_EQ(Result(), "a2") << "a frame from c to c counts once";
    Frame('*', 'c');
    EXPECT_EQ(Result(), "c3");
}

}  // namespace
}  // namespace netsieve::tool
