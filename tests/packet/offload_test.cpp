// Frames whose checksums, tags and segmentation are left to the adapter, as on real networks: what
// is on the wire and what the protocol gets is the capture again, byte for byte, only if their
// out-of-band data is still there, also with a clone that a hook had re-injected.
#include "host/ndis/offload.h"

#include <pcap/pcap.h>

#include <cstdlib>
#include <filesystem>

#include "tests/packet/pending_rig.h"

namespace netsieve::host {
namespace {

// The sample, and the captures in the folder that NETSIEVE_CAPTURES names, as far as they are of
// Ethernet and whole.
std::vector<std::string> Captures() {
    std::vector<std::string> paths = {NETSIEVE_SAMPLE_CAPTURE};
    if (const char* const folder = std::getenv("NETSIEVE_CAPTURES")) {
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            paths.push_back(entry.path());
        }
    }
    return paths;
}

std::vector<FrameBytes> ReadCapture(const std::string& path) {
    std::vector<FrameBytes> frames;
    char error[PCAP_ERRBUF_SIZE];
    pcap_t* const capture = pcap_open_offline(path.c_str(), error);
    pcap_pkthdr* header = nullptr;
    const u_char* bytes = nullptr;
    while (capture != nullptr && pcap_datalink(capture) == DLT_EN10MB &&
           pcap_next_ex(capture, &header, &bytes) == 1) {
        frames.emplace_back(bytes, bytes + header->caplen);
    }
    if (capture != nullptr) {
        pcap_close(capture);
    }
    return frames;
}

// Half of the frames on a VLAN, with a priority.
void AddTags(std::vector<FrameBytes>& frames) {
    const std::uint8_t tag[] = {0x81, 0x00, 0xA0, 0x2A};
    for (std::size_t i = 0; i < frames.size(); ++i) {
        if (i / 20 % 2 == 0 && frames[i].size() >= 14) {
            frames[i].insert(frames[i].begin() + 12, std::begin(tag), std::end(tag));
        }
    }
}

// What a hook does with every frame, and which way the frames go: sent with large sends of version
// 1 or 2, or received.
struct Case {
    const char* name;
    bool hold;
    unsigned version;  ///< 0: received
};

class Offload : public testing::TestWithParam<Case> {
  protected:
    // Through a hook that lets frames pass, or holds a few and has them re-injected in their order.
    void Replay(const std::vector<FrameBytes>& frames) {
        OnScene(
            [&](Scene& scene) {
                std::vector<NIRP*> held;
                const auto release = [&] {
                    for (NIRP* nirp : std::exchange(held, {})) {
                        EXPECT_EQ(ITarnHKCompleteRequest(nirp, STATUS_SUCCESS), STATUS_SUCCESS);
                    }
                };
                TestHook hook([&](NIRP* nirp) -> LONG {
                    if (!GetParam().hold || ITarnHKMarkPending(nirp) != STATUS_SUCCESS) {
                        return HOOK_VERDICT_PASS;
                    }
                    held.push_back(nirp);
                    return HOOK_VERDICT_PENDING;
                });
                std::vector<FrameBytes> arrived;
                Listen(scene, arrived);
                for (std::size_t at = 0; at < frames.size();) {
                    at += GetParam().version == 0 ? Indicate(scene, frames[at])
                                                  : Send(scene, std::span(frames).subspan(at));
                    // A frame that is not offered, being too long or empty, passes the held ones.
                    if (held.size() >= 8 || at == frames.size() || !IsOffered(frames[at])) {
                        release();
                    }
                }
                ASSERT_EQ(arrived.size(), frames.size());
                for (std::size_t i = 0; i < frames.size(); ++i) {
                    ASSERT_EQ(arrived[i], frames[i]) << "frame " << i + 1;
                }
            },
            {.systemSize = MmLargeSystem});
    }

    static bool IsOffered(const FrameBytes& frame) {
        return !frame.empty() && frame.size() <= 65535;
    }

    static void Listen(Scene& scene, std::vector<FrameBytes>& arrived) {
        scene.stack.adapter().onSend = [&](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG) {
            for (; chain != nullptr; chain = chain->Next) {
                std::ranges::move(WireFramesOf(*chain), std::back_inserter(arrived));
            }
        };
        scene.stack.protocol().onReceive = [&](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG,
                                               ULONG) {
            for (; chain != nullptr; chain = chain->Next) {
                arrived.push_back(
                    AsReceived(NblFactory::BytesOf(*chain->FirstNetBuffer), OffloadInfoOf(*chain)));
            }
        };
        scene.stack.protocol().onSendComplete = [&](PNET_BUFFER_LIST chain, ULONG) {
            for (; chain != nullptr; chain = chain->Next) {
                ExpectAnswered(*chain);
            }
        };
    }

    // A request names its segment size; an answer of version 2 has none, and one of version 1
    // counts bytes, which no segment size of the captures equals.
    static void ExpectAnswered(const NET_BUFFER_LIST& nbl) {
        NDIS_TCP_LARGE_SEND_OFFLOAD_NET_BUFFER_LIST_INFO info{};
        info.Value = OffloadInfoOf(nbl).largeSend;
        if (info.Transmit.Type == NDIS_TCP_LARGE_SEND_OFFLOAD_V2_TYPE) {
            EXPECT_EQ(info.LsoV2TransmitComplete.Reserved, 0u);
        }
    }

    // One frame, or as many as make one large send; how many.
    std::size_t Send(Scene& scene, std::span<const FrameBytes> frames) {
        FrameBytes frame;
        OffloadInfo info;
        std::size_t count =
            LeaveSegmentation(frames.first(std::min<std::size_t>(40, frames.size())),
                              GetParam().version, frame, info);
        if (count == 0) {
            count = 1;
            frame = frames.front();
            info = LeaveToAdapter(frame);
        }
        Count(info);
        PNET_BUFFER_LIST const nbl = scene.sends.Make(std::span<const std::uint8_t>(frame));
        SetOffloadInfo(*nbl, info);
        scene.stack.protocol().Send(nbl);
        return count;
    }

    std::size_t Indicate(Scene& scene, FrameBytes frame) {
        const OffloadInfo info = OffloadReceive(frame);
        Count(info);
        PNET_BUFFER_LIST const nbl = scene.receives.Make(std::span<const std::uint8_t>(frame));
        SetOffloadInfo(*nbl, info);
        EXPECT_TRUE(scene.stack.adapter().Indicate(nbl));
        return 1;
    }

    void Count(const OffloadInfo& info) {
        checksums_ += info.checksum != nullptr ? 1 : 0;
        tags_ += info.tag != nullptr ? 1 : 0;
        largeSends_ += info.largeSend != nullptr ? 1 : 0;
    }

    int checksums_ = 0;
    int tags_ = 0;
    int largeSends_ = 0;
};

TEST_P(Offload, TheFarEndHasTheCaptureAgain) {
    for (const std::string& path : Captures()) {
        SCOPED_TRACE(path);
        std::vector<FrameBytes> frames = ReadCapture(path);
        for (FrameBytes& frame : frames) {
            if (GetParam().version == 0 && frame.size() >= 6) {
                std::fill_n(frame.begin(), 6, std::uint8_t{0xFF});  // for the hook to see it
            }
        }
        AddTags(frames);
        Replay(frames);
    }
    EXPECT_GT(checksums_, 100);
    EXPECT_GT(tags_, 50);
    EXPECT_EQ(largeSends_ > 5, GetParam().version != 0) << largeSends_;
}

INSTANTIATE_TEST_SUITE_P(Ways,
                         Offload,
                         testing::Values(Case{"PassedSendsVersion1", false, 1},
                                         Case{"PassedSendsVersion2", false, 2},
                                         Case{"PassedReceives", false, 0},
                                         Case{"HeldSendsVersion1", true, 1},
                                         Case{"HeldSendsVersion2", true, 2},
                                         Case{"HeldReceives", true, 0}),
                         [](const auto& made) { return std::string(made.param.name); });

}  // namespace
}  // namespace netsieve::host
