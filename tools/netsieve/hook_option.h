// What the user says of one hook: --hook KIND[@CLASS][:ARGUMENTS].
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tools/netsieve/arp_reply.h"
#include "tools/netsieve/frame_filter.h"

namespace netsieve::tool {

enum class HookKind : std::uint8_t {
    kDrop,      ///< withholds what its expression selects
    kCount,     ///< counts it
    kLog,       ///< prints a line for it
    kDelay,     ///< marks it pending for a time
    kHold,      ///< marks it pending to the end of the capture
    kReplyArp,  ///< answers requests for one address
    kDriver,    ///< a hook driver
};

struct HookOption {
    std::string text;  ///< as it was given
    HookKind kind = HookKind::kCount;
    unsigned priorityClass = 0;                   ///< HOOK_CLASS_0 to 3, and 4 for the last
    std::shared_ptr<const FrameFilter> filter{};  ///< null selects every frame
    std::string driverPath{};                     ///< of kDriver
    std::uint32_t delayMilliseconds = 0;          ///< of kDelay
    bool releases = true;        ///< whether a held frame is completed with success
    bool overflowDrops = false;  ///< whether a frame that cannot be held is withheld instead
    ArpAnswer answer{};          ///< of kReplyArp

    /// Whether it marks frames pending.
    bool Holds() const { return kind == HookKind::kDelay || kind == HookKind::kHold; }
};

/// Reads one --hook and compiles its expression. Throws std::invalid_argument with what is wrong
/// with it.
HookOption ParseHookOption(const std::string& text);

/// Throws std::invalid_argument when the hooks cannot go together or not with `driver`: too many,
/// the same hook driver twice, or a hook driver of another kind than the driver needs.
void CheckHooks(const std::vector<HookOption>& hooks, const std::string& driver);

}  // namespace netsieve::tool
