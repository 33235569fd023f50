#include "tools/netsieve/progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

namespace netsieve::tool {
namespace {

constexpr auto kInterval = std::chrono::milliseconds(100);
constexpr unsigned kBarWidth = 30;

}  // namespace

Progress::Progress(std::string label, std::optional<std::uint64_t> total)
    : label_(std::move(label)),
      total_(total),
      enabled_(isatty(STDERR_FILENO) == 1),
      nextDraw_(Clock::now() + kInterval) {}

Progress::~Progress() {
    Clear();
}

void Progress::Clear() {
    if (drawn_) {
        std::fputs("\r\033[K", stderr);
        drawn_ = false;
    }
}

void Progress::MaybeDraw(std::uint64_t frames, std::uint64_t position) {
    const auto now = Clock::now();
    if (now < nextDraw_) {
        return;
    }
    nextDraw_ = now + kInterval;
    drawn_ = true;
    std::string line = fmt::format("\r\033[K{} ", label_);
    if (total_ && *total_ > 0) {
        const double part = std::min(1.0, static_cast<double>(position) / double(*total_));
        const auto filled = static_cast<unsigned>(part * kBarWidth);
        line += fmt::format("[{:#<{}}{:.<{}}] {:3.0f}% ", "", filled, "", kBarWidth - filled,
                            part * 100);
    }
    line += fmt::format("{} frames", frames);
    std::fputs(line.c_str(), stderr);
}

}  // namespace netsieve::tool
