// The hooks that a benchmark's frames are offered to.
#pragma once

#include <memory>
#include <vector>

#include "client/exports.h"

namespace netsieve::bench {

/// Active hooks, for as long as the object lives.
class Hooks {
  public:
    Hooks() = default;
    ~Hooks();
    Hooks(const Hooks&) = delete;
    Hooks& operator=(const Hooks&) = delete;

    /// Attached to every adapter there is, or only to the one with this number. Throws when the
    /// hook cannot be registered.
    void Add(HOOK_PACKET_HANDLER handler, int adapter = -1);

  private:
    /// Where a hook attaches: everywhere, or to the adapter that is announced as this one.
    struct Place {
        int wanted = -1;
        int announced = 0;
    };
    static VOID NTAPI AttachHere(FILTER_MODULE* module, HOOK_FILTER* hook, PVOID context);

    std::vector<HOOK_FILTER*> hooks_;
    std::vector<std::unique_ptr<Place>> places_;
};

}  // namespace netsieve::bench
