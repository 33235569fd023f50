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
    kDelay,     ///< holds it for a time
    kHold,      ///< holds it to the end of the capture
    kReplyArp,  ///< answers requests for one address
    kDriver,    ///< a hook filter of someone else
};

struct HookOption {
    std::string text;  ///< as it was given
    HookKind kind = HookKind::kCount;
    unsigned priorityClass = 0;                   ///< HOOK_CLASS_0 to 3, and 4 for the last
    std::shared_ptr<const FrameFilter> filter{};  ///< null selects every frame
    std::string driverPath{};                     ///< of a module
    std::uint32_t delayMilliseconds = 0;          ///< of kDelay
    bool releases = true;        ///< whether a held frame goes on its way in the end
    bool overflowDrops = false;  ///< whether one that the driver cannot hold is withheld instead
    ArpAnswer answer{};          ///< of kReplyArp

    /// Whether it takes frames over, to decide about them later.
    bool Holds() const { return kind == HookKind::kDelay || kind == HookKind::kHold; }
};

/// Reads one --hook and compiles its expression. Throws std::invalid_argument with what is wrong
/// with it.
HookOption ParseHookOption(const std::string& text);

/// Throws std::invalid_argument when the hooks cannot go together or not with `driver`: too many,
/// the same module twice, or a module that is no file of the kind the driver needs.
void CheckHooks(const std::vector<HookOption>& hooks, const std::string& driver);

}  // namespace netsieve::tool
