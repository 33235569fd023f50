#include "tools/netsieve/injection_feed.h"

#include <cstring>

namespace netsieve::tool {
namespace {

constexpr std::uint32_t kShortest = 2 * kMacLength;
constexpr std::uint32_t kLongest = 65535;

}  // namespace

std::optional<CaptureFailure> InjectionFeed::Open(const std::string& path) {
    auto failure = reader_.Open(path, false);
    if (!failure) {
        Read();
    }
    return failure;
}

std::optional<CaptureStamp> InjectionFeed::NextDue() const {
    return waiting_ ? std::optional(next_.stamp) : std::nullopt;
}

void InjectionFeed::Advance(const MacAddress& adapter, bool sent) {
    ++counts_.frames;
    if (sent) {
        ++counts_.sent;
    } else if (next_.capturedLength < kShortest || next_.capturedLength > kLongest) {
        ++counts_.badLength;
    } else if (std::memcmp(next_.bytes + kMacLength, adapter.data(), kMacLength) != 0) {
        ++counts_.otherSource;
    } else {
        ++counts_.refused;
    }
    Read();
}

void InjectionFeed::Read() {
    const ReadOutcome outcome = reader_.Next(next_);
    waiting_ = outcome == ReadOutcome::kFrame;
    if (outcome == ReadOutcome::kFailed) {
        failure_ = reader_.failure();
    }
}

}  // namespace netsieve::tool
