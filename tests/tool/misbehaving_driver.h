// A filter driver that can be told to go wrong. It takes the real driver's place in a test program.
#pragma once

namespace netsieve::tool {

enum class Misbehaviour {
    kNone,
    kRefusesToStart,
    kRefusesToBind,
    kCompletesUnsent,  ///< every second sent list goes back without having been on the wire
    kKeepsAList,       ///< the first received list is never handed on
    kMiscounts,        ///< received lists go up with a wrong count
    kSendsTwice,       ///< injects a list of its own for the second list sent
};

/// Set it before the driver is loaded.
extern Misbehaviour g_misbehaviour;

}  // namespace netsieve::tool
