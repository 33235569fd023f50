// The generator behind every choice that a seed must reproduce.
#pragma once

#include <cstdint>

namespace netsieve::host {

/// SplitMix64: small, fast, and the same sequence on every platform and library version.
class Random {
  public:
    explicit Random(std::uint64_t seed) : state_(seed) {}

    std::uint64_t Next() {
        state_ += 0x9E3779B97F4A7C15ull;
        std::uint64_t mixed = state_;
        mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9ull;
        mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EBull;
        return mixed ^ (mixed >> 31);
    }

    /// A number below `bound`, which must not be 0.
    std::uint64_t Below(std::uint64_t bound) {
        return static_cast<std::uint64_t>((static_cast<unsigned __int128>(Next()) * bound) >> 64);
    }

    /// True once in `n` draws on average.
    bool OneIn(std::uint64_t n) { return Below(n) == 0; }

  private:
    std::uint64_t state_;
};

}  // namespace netsieve::host
