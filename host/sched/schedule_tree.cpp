#include "host/sched/schedule_tree.h"

#include <fmt/format.h>

#include <algorithm>
#include <sstream>

#include "host/signal_text.h"

namespace netsieve::host {

void ScheduleTree::Follow(const std::string& name) {
    following_ = true;
    std::istringstream text(name);
    std::size_t pick = 0;
    std::uint32_t context = 0;
    char between = 0;
    while (text >> pick >> between >> context) {
        named_[pick] = context;
        text >> between;
    }
}

std::size_t ScheduleTree::PickNamed(std::span<const std::uint32_t> enabled, std::size_t first) {
    const auto named = named_.find(depth_);
    if (named == named_.end()) {
        return first;
    }
    const auto it = std::find(enabled.begin(), enabled.end(), named->second);
    diverged_ |= it == enabled.end();
    return diverged_ ? first : static_cast<std::size_t>(it - enabled.begin());
}

std::size_t ScheduleTree::Pick(std::span<const std::uint32_t> enabled, std::size_t current) {
    const bool canGoOn = current != Strategy::kNone;
    const std::size_t first = canGoOn ? current : 0;
    if (depth_ == nodes_.size()) {
        const bool branches =
            open_ && !following_ && (!canGoOn || spent_ < preemptions_) && !diverged_;
        nodes_.push_back({.enabled = enabled.size(),
                          .choices = branches ? enabled.size() : 1,
                          .choice = 0,
                          .taken = 0});
    }
    Node& node = nodes_[depth_];
    diverged_ |= node.enabled != enabled.size();
    std::size_t pick = first;
    if (following_) {
        pick = PickNamed(enabled, first);
        node.choice = pick == first ? 0 : 1;
    } else if (node.choice != 0 && !diverged_) {
        pick = node.choice <= first ? node.choice - 1 : node.choice;
    }
    node.taken = enabled[pick];
    spent_ += canGoOn && pick != current ? 1 : 0;
    ++depth_;
    return pick;
}

bool ScheduleTree::Advance() {
    nodes_.resize(std::min(nodes_.size(), depth_));
    depth_ = 0;
    spent_ = 0;
    open_ = true;
    while (!nodes_.empty() && nodes_.back().choice + 1 == nodes_.back().choices) {
        nodes_.pop_back();
    }
    if (nodes_.empty() || following_ || diverged_) {
        return false;
    }
    ++nodes_.back().choice;
    return true;
}

std::string ScheduleTree::name() const {
    std::string name;
    for (std::size_t pick = 0; pick < depth_; ++pick) {
        if (nodes_[pick].choice != 0) {
            name += fmt::format("{}{}:{}", name.empty() ? "" : ",", pick, nodes_[pick].taken);
        }
    }
    return name.empty() ? "-" : name;
}

void ScheduleTree::AppendName(SignalText& text) const {
    const char* between = "";
    for (std::size_t pick = 0; pick < depth_; ++pick) {
        if (nodes_[pick].choice != 0) {
            text << between << std::uint64_t{pick} << ":" << std::uint64_t{nodes_[pick].taken};
            between = ",";
        }
    }
    if (*between == '\0') {
        text << "-";
    }
}

}  // namespace netsieve::host
