// The checks of the host, as its sources have them.
#pragma once

#include <string>
#include <vector>

namespace netsieve::host {

/// A call of a function that takes the place of its caller (CheckSite), and does not hand on that
/// of another.
struct CheckCall {
    std::string file;  ///< below the top of the tree: "host/kernel/timers.cpp"
    int firstLine;     ///< of the statement
    int lastLine;      ///< of the call
    std::string text;
};

/// All of them in the sources below `tree`/host, by file and line.
std::vector<CheckCall> FindCheckCalls(const std::string& tree);

}  // namespace netsieve::host
