// Freed memory that is kept back for a while, so that a late use is noticed.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <deque>
#include <functional>
#include <string>

#include "host/sched/scheduler.h"

namespace netsieve::host {

/// Holds freed host memory, filled with a pattern, until newer frees push it out. A write in the
/// meantime shows as a broken pattern; under AddressSanitizer any access stops the program.
class Quarantine {
  public:
    /// `onWrite` is told what a block was when its pattern is found broken; `release` frees one.
    explicit Quarantine(std::function<void(const std::string& what)> onWrite,
                        void (*release)(void* allocation) = &std::free);
    ~Quarantine();

    /// Takes a block that `release` can free. `data`..`size` is the part that its user knew.
    void Add(void* allocation, void* data, std::size_t size, std::string what);
    /// Checks and releases everything.
    void Drain();

  private:
    struct Entry {
        void* allocation;
        void* data;
        std::size_t size;
        std::string what;
    };
    void Release(const Entry& entry);

    std::function<void(const std::string&)> onWrite_;
    void (*release_)(void*);
    HostMutex mutex_;
    std::deque<Entry> entries_;
    std::size_t bytes_ = 0;
};

}  // namespace netsieve::host
