// Tells a person at a terminal how far a long job is.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace netsieve::tool {

/// A progress bar on standard error. Silent when that is not a terminal, and during the first
/// moments, so that short jobs show nothing. Leaves an empty line behind.
class Progress {
  public:
    /// `total` is the job's size in the unit of Update's position; without it only the frames are
    /// shown.
    Progress(std::string label, std::optional<std::uint64_t> total);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// Whether anything is shown, terminal or not.
    void SetEnabled(bool enabled) { enabled_ = enabled_ && enabled; }

    /// Cheap enough for every frame.
    void Update(std::uint64_t frames, std::uint64_t position) {
        if (enabled_ && (frames & kFrameMask) == 0) {
            MaybeDraw(frames, position);
        }
    }

    /// Wipes the bar, before anything else is printed. More updates draw it again.
    void Clear();

  private:
    using Clock = std::chrono::steady_clock;

    static constexpr std::uint64_t kFrameMask = 255;

    void MaybeDraw(std::uint64_t frames, std::uint64_t position);

    std::string label_;
    std::optional<std::uint64_t> total_;
    bool enabled_;
    bool drawn_ = false;
    Clock::time_point nextDraw_;
};

}  // namespace netsieve::tool
