#include "tools/netsieve/frame_filter.h"

#include <pcap/pcap.h>

namespace netsieve::tool {
namespace {

// What a program answers for a frame it selects; any number but 0 would do.
constexpr int kSnapLength = 262144;

// What tcpdump compiles with when it reads a file.
constexpr int kOptimise = 1;
constexpr bpf_u_int32 kNoNetmask = 0;

}  // namespace

FrameFilter::FrameFilter() = default;

FrameFilter::~FrameFilter() {
    if (program_ != nullptr) {
        pcap_freecode(program_.get());
    }
}

std::optional<std::string> FrameFilter::Compile(const std::string& expression) {
    pcap_t* const library = pcap_open_dead(DLT_EN10MB, kSnapLength);
    if (library == nullptr) {
        return "out of memory";
    }
    auto program = std::make_unique<bpf_program>();
    std::optional<std::string> failure;
    if (pcap_compile(library, program.get(), expression.c_str(), kOptimise, kNoNetmask) == 0) {
        program_ = std::move(program);
    } else {
        failure = pcap_geterr(library);
    }
    pcap_close(library);
    return failure;
}

bool FrameFilter::Matches(const std::uint8_t* bytes, std::uint32_t length) const {
    pcap_pkthdr header{};
    header.caplen = length;
    header.len = length;
    return pcap_offline_filter(program_.get(), &header, bytes) != 0;
}

}  // namespace netsieve::tool
