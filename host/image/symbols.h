// What functions and variables of this process are called.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace netsieve::host {

struct Symbol {
    std::string name;        ///< as the source has it, with its namespaces
    std::size_t offset = 0;  ///< of the address in what the name denotes
};

/// What a native function or variable is called, static ones included; none where a driver image
/// or no object file lies, or where the symbols were stripped. Reads the files that the process is
/// made of: for reports, never in a signal handler.
std::optional<Symbol> SymbolAt(const void* address);

}  // namespace netsieve::host
