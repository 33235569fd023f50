// Picks frames by an expression, as tcpdump does.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

struct bpf_program;

namespace netsieve::tool {

/// A compiled expression over Ethernet frames. Immutable once compiled: any thread may ask it.
class FrameFilter {
  public:
    FrameFilter();
    ~FrameFilter();
    FrameFilter(const FrameFilter&) = delete;
    FrameFilter& operator=(const FrameFilter&) = delete;

    /// Compiles `expression`, once per filter. Returns what is wrong with it, or nothing.
    std::optional<std::string> Compile(const std::string& expression);

    /// True when the expression selects the frame. `length` counts as the length on the wire too.
    bool Matches(const std::uint8_t* bytes, std::uint32_t length) const;

  private:
    std::unique_ptr<bpf_program> program_;
};

}  // namespace netsieve::tool
