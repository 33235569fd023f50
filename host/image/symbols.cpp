#include "host/image/symbols.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <elfutils/libdwfl.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

namespace netsieve::host {

namespace {

struct EndDwfl {
    void operator()(Dwfl* dwfl) const { dwfl_end(dwfl); }
};

/// A view of the object files that are mapped now.
std::unique_ptr<Dwfl, EndDwfl> ViewOfProcess() {
    static char* noDebugPath = nullptr;
    static const Dwfl_Callbacks callbacks = {.find_elf = &dwfl_linux_proc_find_elf,
                                             .find_debuginfo = &dwfl_standard_find_debuginfo,
                                             .section_address = nullptr,
                                             .debuginfo_path = &noDebugPath};
    std::unique_ptr<Dwfl, EndDwfl> view(dwfl_begin(&callbacks));
    if (view == nullptr || dwfl_linux_proc_report(view.get(), getpid()) != 0 ||
        dwfl_report_end(view.get(), nullptr, nullptr) != 0) {
        return nullptr;
    }
    return view;
}

std::string Demangled(const char* name) {
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> plain(
        abi::__cxa_demangle(name, nullptr, nullptr, &status), &std::free);
    return status == 0 ? plain.get() : name;
}

// Zeroed variables lie behind what is mapped from the file, so that it is found by its start.
Dwfl_Module* ModuleOf(Dwfl* view, const void* address) {
    Dl_info info{};
    return dladdr(address, &info) == 0
               ? nullptr
               : dwfl_addrmodule(view, reinterpret_cast<Dwarf_Addr>(info.dli_fbase));
}

}  // namespace

std::optional<Symbol> SymbolAt(const void* address) {
    const auto view = ViewOfProcess();
    const auto value = reinterpret_cast<Dwarf_Addr>(address);
    Dwfl_Module* const module = view == nullptr ? nullptr : ModuleOf(view.get(), address);
    if (module == nullptr) {
        return std::nullopt;
    }
    GElf_Off offset = 0;
    GElf_Sym symbol{};
    const char* const name =
        dwfl_module_addrinfo(module, value, &offset, &symbol, nullptr, nullptr, nullptr);
    // Without a size the name is only that of the nearest symbol ahead.
    if (name == nullptr || (symbol.st_size != 0 && offset >= symbol.st_size)) {
        return std::nullopt;
    }
    return Symbol{.name = Demangled(name), .offset = offset};
}

}  // namespace netsieve::host
