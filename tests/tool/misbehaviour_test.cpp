// What a replay says of a driver that goes wrong.
#include <gtest/gtest.h>

#include <functional>

#include "tests/tool/capture_bytes.h"
#include "tests/tool/replay_runner.h"
#include "tests/verifier/small_filter.h"

namespace netsieve::tool {
namespace {

using host::SmallFilter;

NTSTATUS g_entryStatus = STATUS_SUCCESS;

using Spoil = std::function<void(SmallFilter&)>;

/// Four frames, sent and received in turn, and what has to be said of the driver.
struct Expectation {
    const char* what;
    Spoil spoil;
    ExitStatus status;
    const char* words;
    std::uint64_t framesOut;
};

/// Every second sent NBL goes back without having been on the wire.
void CompleteUnsent(SmallFilter& filter) {
    filter.send = [&filter, sent = 0](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER port,
                                      ULONG flags) mutable {
        if (++sent % 2 == 0) {
            NdisFSendNetBufferListsComplete(filter.handle, chain, 0);
        } else {
            NdisFSendNetBufferLists(filter.handle, chain, port, flags);
        }
    };
}

/// The first received NBL is never passed on.
void KeepAnNbl(SmallFilter& filter) {
    filter.receive = [&filter, received = 0](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER port,
                                             ULONG count, ULONG flags) mutable {
        if (++received != 1) {
            NdisFIndicateReceiveNetBufferLists(filter.handle, chain, port, count, flags);
        }
    };
}

void Miscount(SmallFilter& filter) {
    filter.receive = [&filter](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER port, ULONG count,
                               ULONG flags) {
        NdisFIndicateReceiveNetBufferLists(filter.handle, chain, port, count + 1, flags);
    };
}

/// An NBL of the filter's own goes out before the second one sent, and is freed when it returns.
void SendTwice(SmallFilter& filter) {
    filter.send = [&filter, sent = 0](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER port,
                                      ULONG flags) mutable {
        if (++sent == 2) {
            NET_BUFFER_LIST_POOL_PARAMETERS parameters{};
            parameters.Header = {NDIS_OBJECT_TYPE_DEFAULT, 1, sizeof(parameters)};
            parameters.fAllocateNetBuffer = TRUE;
            parameters.PoolTag = 0x74736574;
            const NET_BUFFER& buffer = *chain->FirstNetBuffer;
            PNET_BUFFER_LIST const copy = NdisAllocateNetBufferAndNetBufferList(
                NdisAllocateNetBufferListPool(filter.handle, &parameters), 0, 0, buffer.MdlChain,
                buffer.DataOffset, buffer.stDataLength);
            copy->SourceHandle = filter.handle;
            NdisFSendNetBufferLists(filter.handle, copy, 0, 0);
        }
        NdisFSendNetBufferLists(filter.handle, chain, port, flags);
    };
    filter.sendComplete = [&filter](PNET_BUFFER_LIST chain, ULONG flags) {
        if (chain->SourceHandle == filter.handle) {
            NDIS_HANDLE const pool = chain->NdisPoolHandle;
            NdisFreeNetBufferList(chain);
            NdisFreeNetBufferListPool(pool);
        } else {
            NdisFSendNetBufferListsComplete(filter.handle, chain, flags);
        }
    };
}

ReplayRunner RunFourFrames(const Spoil& spoil) {
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
    SmallFilter filter;
    spoil(filter);
    return {capture.Bytes(), options};
}

TEST(MisbehaviourTest, IsReportedForWhatItIs) {
    const Expectation cases[] = {
        {"nothing wrong", [](SmallFilter&) {}, ExitStatus::kClean, "everything was given back", 4},
        {"refuses to start", [](SmallFilter&) { g_entryStatus = STATUS_INSUFFICIENT_RESOURCES; },
         ExitStatus::kDriverNotLoaded, "", 0},
        {"refuses to bind",
         [](SmallFilter& filter) { filter.attach = [] { return NDIS_STATUS_RESOURCES; }; },
         ExitStatus::kDriverNotLoaded, "", 0},
        {"completes unsent", &CompleteUnsent, ExitStatus::kFramesLost,
         "3 passed, 1 withheld, 0 injected, 0 lost; everything was given back; the account does "
         "not balance",
         3},
        {"keeps an NBL", &KeepAnNbl, ExitStatus::kRuleBroken,
         "1 lost; not given back: 1 outstanding NBL(s)", 3},
        {"miscounts", &Miscount, ExitStatus::kRuleBroken, "NblCount", 4},
        {"sends twice", &SendTwice, ExitStatus::kClean, "1 injected", 5},
    };
    for (const Expectation& test : cases) {
        SCOPED_TRACE(test.what);
        g_entryStatus = STATUS_SUCCESS;
        const ReplayRunner run = RunFourFrames(test.spoil);
        const std::string summary = FormatReport(run.report);
        EXPECT_EQ(run.report.Status(), test.status) << summary;
        EXPECT_NE(summary.find(test.words), std::string::npos) << summary;
        constexpr std::size_t kRecord = 16 + 60;
        EXPECT_EQ(run.output.size(), test.framesOut == 0 ? 0 : 24 + test.framesOut * kRecord);
    }
}

TEST(MisbehaviourTest, ACrashSaysAtWhichFrame) {
    const auto crash = [](SmallFilter& filter) {
        filter.receive = [](PNET_BUFFER_LIST, NDIS_PORT_NUMBER, ULONG, ULONG) {
            std::uintptr_t address = 0x40;
            asm("" : "+r"(address));  // or the compiler would know better
            static_cast<void>(*reinterpret_cast<volatile UCHAR*>(address));
        };
    };
    EXPECT_DEATH(RunFourFrames(crash), "NETSIEVE read from address 0x40\n.*step:   frame 2\n");
}

TEST(MisbehaviourTest, AnInjectedFrameHasTheCapturesTime) {
    const ReplayRunner run = RunFourFrames(&SendTwice);
    // The second sent frame is the third of the capture, at one second; its copy comes before it.
    ASSERT_GE(run.output.size(), 24 + 4 * 76u);
    EXPECT_EQ(run.output.substr(24 + 2 * 76, 76), run.output.substr(24 + 3 * 76, 76));
}

}  // namespace
}  // namespace netsieve::tool

/// Takes the real driver's place in this program.
extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath) {
    using namespace netsieve;
    return tool::g_entryStatus != STATUS_SUCCESS
               ? tool::g_entryStatus
               : host::SmallFilter::Source().entry(driverObject, registryPath);
}
