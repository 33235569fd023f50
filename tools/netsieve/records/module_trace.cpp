#include "tools/netsieve/records/module_trace.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>

#include "module/trace_log.h"
#include "tools/netsieve/records/driver_structures.h"

namespace netsieve::tool {
namespace {

struct TraceLine {
    std::uint32_t number;
    std::string text;
};

/// "[number label->site]", or nothing for the rest of a line that was overwritten in part.
std::optional<TraceLine> ParseLine(std::string_view text) {
    if (text.size() < 2 || text.front() != '[' || !text.ends_with("]\n")) {
        return std::nullopt;
    }
    std::int32_t number = 0;
    const auto [end, error] = std::from_chars(text.data() + 1, text.data() + text.size(), number);
    if (error != std::errc() || *end != ' ') {
        return std::nullopt;
    }
    return TraceLine{static_cast<std::uint32_t>(number),
                     std::string(text.substr(0, text.size() - 1))};
}

}  // namespace

std::vector<std::string> ReadModuleTrace(const host::FilterModule& module) {
    const FILTER_MODULE* const driverModule = DriverModuleOf(module);
    if (driverModule == nullptr || driverModule->TraceBuffer == nullptr) {
        return {};
    }
    std::string_view ring(reinterpret_cast<const char*>(driverModule->TraceBuffer),
                          TRACE_BUFFER_SIZE);
    std::vector<TraceLine> lines;
    for (std::size_t end = 0; (end = ring.find('\0')) != ring.npos; ring.remove_prefix(end + 1)) {
        std::string_view piece = ring.substr(0, end);
        piece.remove_prefix(std::min(piece.size(), piece.rfind('[')));
        if (auto line = ParseLine(piece); line && line->number < driverModule->TraceSequence) {
            lines.push_back(std::move(*line));
        }
    }
    std::sort(lines.begin(), lines.end(), [](const TraceLine& left, const TraceLine& right) {
        return left.number < right.number;
    });
    std::vector<std::string> texts;
    texts.reserve(lines.size());
    for (TraceLine& line : lines) {
        texts.push_back(std::move(line.text));
    }
    return texts;
}

}  // namespace netsieve::tool
