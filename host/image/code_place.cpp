#include "host/image/code_place.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <fmt/format.h>
#include <link.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <optional>
#include <span>

#include "host/image/symbols.h"

namespace netsieve::host {

namespace {

constexpr std::size_t kMost = 64;

// A slot is free while its size is 0.
struct Slot {
    std::atomic<std::size_t> size = 0;
    std::atomic<const char*> driver = nullptr;
    std::atomic<std::uintptr_t> start = 0;
    std::atomic<ImageRange::Kind> kind = ImageRange::Kind::kImage;
};
Slot g_slots[kMost];

/// The addresses of the object that `code` lies in.
struct Stretch {
    std::uintptr_t code;
    std::uintptr_t start = 0;
    std::uintptr_t end = 0;
};

int FindStretch(dl_phdr_info* object, std::size_t, void* argument) {
    auto& stretch = *static_cast<Stretch*>(argument);
    std::uintptr_t start = 0;
    std::uintptr_t end = 0;
    // In the order of their addresses.
    for (const auto& header : std::span(object->dlpi_phdr, object->dlpi_phnum)) {
        if (header.p_type == PT_LOAD) {
            const std::uintptr_t first = object->dlpi_addr + header.p_vaddr;
            start = end == 0 ? first : start;
            end = first + header.p_memsz;
        }
    }
    if (stretch.code < start || stretch.code >= end) {
        return 0;
    }
    stretch.start = start;
    stretch.end = end;
    return 1;
}

const Slot* SlotOf(const void* code) {
    const auto address = reinterpret_cast<std::uintptr_t>(code);
    for (const Slot& slot : g_slots) {
        if (slot.start != 0 && address - slot.start < slot.size) {
            return &slot;
        }
    }
    return nullptr;
}

}  // namespace

ImageRange::ImageRange(const char* driver, const void* start, std::size_t size, Kind kind)
    : slot_(0) {
    std::size_t free = 0;
    while (slot_ < kMost && !g_slots[slot_].size.compare_exchange_strong(free, 1)) {
        free = 0;
        ++slot_;
    }
    if (slot_ < kMost) {
        g_slots[slot_].driver = driver;
        g_slots[slot_].kind = kind;
        g_slots[slot_].start = reinterpret_cast<std::uintptr_t>(start);
        g_slots[slot_].size = size;
    }
}

ImageRange::~ImageRange() {
    if (slot_ < kMost) {
        g_slots[slot_].start = 0;
        g_slots[slot_].size = 0;
    }
}

bool LiesInImage(const void* code) {
    const Slot* const slot = SlotOf(code);
    return slot != nullptr && slot->kind == ImageRange::Kind::kImage;
}

bool LiesInProgram(const void* code) {
    Dl_info info{};
    Dl_info own{};
    return dladdr(code, &info) != 0 &&
           dladdr(reinterpret_cast<const void*>(&LiesInProgram), &own) != 0 &&
           info.dli_fbase == own.dli_fbase;
}

std::pair<const void*, std::size_t> SharedObjectOf(const void* code) {
    if (LiesInProgram(code)) {
        return {};
    }
    Stretch stretch{.code = reinterpret_cast<std::uintptr_t>(code)};
    dl_iterate_phdr(&FindStretch, &stretch);
    return {reinterpret_cast<const void*>(stretch.start), stretch.end - stretch.start};
}

CodeLocation LocateCode(const void* code) {
    const auto address = reinterpret_cast<std::uintptr_t>(code);
    const Slot* const slot = SlotOf(code);
    const char* const driver = slot == nullptr ? nullptr : slot->driver.load();
    if (slot != nullptr && slot->kind == ImageRange::Kind::kImage) {
        return {.driver = driver, .name = driver, .offset = address - slot->start};
    }
    // Neither allocates nor formats; its lock is one that a thread may take again.
    Dl_info info{};
    if (dladdr(code, &info) == 0 || info.dli_fname == nullptr) {
        return {};
    }
    const char* const slash = std::strrchr(info.dli_fname, '/');
    CodeLocation location{.driver = driver,
                          .name = slash == nullptr ? info.dli_fname : slash + 1,
                          .offset = address - reinterpret_cast<std::uintptr_t>(info.dli_fbase)};
    if (info.dli_sname != nullptr) {
        location.symbol = info.dli_sname;
        location.symbolOffset = address - reinterpret_cast<std::uintptr_t>(info.dli_saddr);
    }
    return location;
}

std::string CodePlace(const void* code) {
    const CodeLocation location = LocateCode(code);
    if (location.name == nullptr) {
        return fmt::format("{}, where no code is known", code);
    }
    std::string text = fmt::format("{}+{:#x}", location.name, location.offset);
    if (const std::optional<Symbol> symbol = SymbolAt(code)) {
        text += fmt::format(" ({}+{:#x})", symbol->name, symbol->offset);
    }
    return text;
}

std::string PlaceName(const void* address) {
    const CodeLocation location = LocateCode(address);
    if (location.name == nullptr) {
        return {};
    }
    const std::optional<Symbol> symbol = SymbolAt(address);
    if (!symbol) {
        return fmt::format("{}+{:#x}", location.name, location.offset);
    }
    return fmt::format("{}!{}", location.name, symbol->name) +
           (symbol->offset == 0 ? "" : fmt::format("+{:#x}", symbol->offset));
}

std::string CallStack() {
    void* frames[64];
    const int count = backtrace(frames, static_cast<int>(std::size(frames)));
    std::string text;
    for (int i = 1; i < count; ++i) {
        text += CodePlace(frames[i]) + "\n";
    }
    return text;
}

}  // namespace netsieve::host
