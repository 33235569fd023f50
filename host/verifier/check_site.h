// Where a check of the verifier stands in the sources.
#pragma once

namespace netsieve::host {

/// A place in the host's sources. A function that reports a broken rule takes one as its last
/// parameter, `CheckSite site = CheckSite::Here()`, so that the place is its caller's; one that
/// reports on behalf of its callers hands theirs on.
struct CheckSite {
    const char* file = "";  ///< as the compiler was given it
    int line = 0;           ///< one of the lines of the call

    static constexpr CheckSite Here(const char* file = __builtin_FILE(),
                                    int line = __builtin_LINE()) {
        return {file, line};
    }
};

}  // namespace netsieve::host
