#include "host/kernel/quarantine.h"

#include <algorithm>
#include <cstring>

#include "host/memory_poison.h"

namespace netsieve::host {

namespace {

constexpr unsigned char kFreedPattern = 0xDD;
constexpr std::size_t kMostBytes = 4 * 1024 * 1024;
constexpr std::size_t kMostEntries = 4096;

}  // namespace

Quarantine::Quarantine(std::function<void(const std::string&)> onWrite, void (*release)(void*))
    : onWrite_(std::move(onWrite)), release_(release) {}

Quarantine::~Quarantine() {
    Drain();
}

void Quarantine::Add(void* allocation, void* data, std::size_t size, std::string what) {
    std::memset(data, kFreedPattern, size);
    PoisonMemory(data, size);
    HostLock lock(mutex_);
    entries_.push_back({allocation, data, size, std::move(what)});
    bytes_ += size;
    while (bytes_ > kMostBytes || entries_.size() > kMostEntries) {
        Release(entries_.front());
        bytes_ -= entries_.front().size;
        entries_.pop_front();
    }
}

void Quarantine::Drain() {
    HostLock lock(mutex_);
    for (const Entry& entry : entries_) {
        Release(entry);
    }
    entries_.clear();
    bytes_ = 0;
}

void Quarantine::Release(const Entry& entry) {
    UnpoisonMemory(entry.data, entry.size);
    const auto* bytes = static_cast<const unsigned char*>(entry.data);
    if (std::any_of(bytes, bytes + entry.size,
                    [](unsigned char byte) { return byte != kFreedPattern; })) {
        onWrite_(entry.what);
    }
    release_(entry.allocation);
}

}  // namespace netsieve::host
