#include "host/image/import_resolver.h"

#include <algorithm>

namespace netsieve::host {
namespace {

// ASCII only: the kernel's module names are, and the process's locale must not matter.
char LowerCase(char character) {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character + ('a' - 'A'))
                                                : character;
}

std::pair<std::string, std::string> MakeKey(std::string_view dll, std::string_view name) {
    std::string module(dll);
    std::transform(module.begin(), module.end(), module.begin(), LowerCase);
    return {std::move(module), std::string(name)};
}

}  // namespace

bool SameModuleName(std::string_view left, std::string_view right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char a, char b) { return LowerCase(a) == LowerCase(b); });
}

void ImportTable::Add(std::string_view dll, std::string_view name, void* address) {
    addresses_[MakeKey(dll, name)] = address;
}

void* ImportTable::Resolve(std::string_view dll, std::string_view name) const {
    auto found = addresses_.find(MakeKey(dll, name));
    return found == addresses_.end() ? nullptr : found->second;
}

void ImportChain::Add(const ImportResolver& resolver) {
    resolvers_.push_back(&resolver);
}

void* ImportChain::Resolve(std::string_view dll, std::string_view name) const {
    for (const ImportResolver* resolver : resolvers_) {
        if (void* address = resolver->Resolve(dll, name)) {
            return address;
        }
    }
    return nullptr;
}

}  // namespace netsieve::host
