#include "host/image/code_place.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <fmt/format.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <iterator>

namespace netsieve::host {

namespace {

constexpr std::size_t kMost = 64;

// A slot is free while its size is 0.
struct Slot {
    std::atomic<std::size_t> size = 0;
    std::atomic<const char*> name = nullptr;
    std::atomic<std::uintptr_t> start = 0;
};
Slot g_slots[kMost];

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

ImageRange::ImageRange(const char* name, const void* start, std::size_t size) : slot_(0) {
    std::size_t free = 0;
    while (slot_ < kMost && !g_slots[slot_].size.compare_exchange_strong(free, 1)) {
        free = 0;
        ++slot_;
    }
    if (slot_ < kMost) {
        g_slots[slot_].name = name;
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
    return SlotOf(code) != nullptr;
}

CodeLocation LocateCode(const void* code) {
    const auto address = reinterpret_cast<std::uintptr_t>(code);
    if (const Slot* const slot = SlotOf(code)) {
        return {.name = slot->name, .offset = address - slot->start};
    }
    // Neither allocates nor formats; its lock is one that a thread may take again.
    Dl_info info{};
    if (dladdr(code, &info) == 0 || info.dli_fname == nullptr) {
        return {};
    }
    const char* const slash = std::strrchr(info.dli_fname, '/');
    CodeLocation location{.name = slash == nullptr ? info.dli_fname : slash + 1,
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
    if (location.symbol != nullptr) {
        text += fmt::format(" ({}+{:#x})", location.symbol, location.symbolOffset);
    }
    return text;
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
