// What the user says of one hook: --hook KIND[@CLASS][:ARGUMENT].
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tools/netsieve/frame_filter.h"

namespace netsieve::tool {

enum class HookKind : std::uint8_t {
    kDrop,    ///< withholds what its expression selects
    kCount,   ///< counts it
    kLog,     ///< prints a line for it
    kModule,  ///< a hook filter of someone else
};

struct HookSpec {
    std::string text;  ///< as it was given
    HookKind kind = HookKind::kCount;
    unsigned priorityClass = 0;                   ///< HOOK_CLASS_0 to 3, and 4 for the last
    std::shared_ptr<const FrameFilter> filter{};  ///< null selects every frame
    std::string modulePath{};                     ///< of a module
};

/// Reads one --hook and compiles its expression. Throws std::invalid_argument with what is wrong
/// with it.
HookSpec ParseHookSpec(const std::string& text);

/// Throws std::invalid_argument when the hooks cannot go together or not with `driver`: too many,
/// the same module twice, or a module that is no file of the kind the driver needs.
void CheckHooks(const std::vector<HookSpec>& hooks, const std::string& driver);

}  // namespace netsieve::tool
