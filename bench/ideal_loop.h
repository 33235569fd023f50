// The reference: the least work of a driver that shows a copy of each frame to a hook.
#pragma once

#include <cstddef>

namespace netsieve::bench {

/// Nanoseconds of one round of the ideal loop for a frame of `size` bytes, on this machine and in
/// this process: one lock pair, allocate, copy the frame, one indirect call, free. Measured on the
/// first call for a size, taken from memory after that.
double IdealNanoseconds(std::size_t size);

/// Time that the calling thread has spent on a processor, in nanoseconds: what a path costs also
/// when the machine is busy with other things.
double ThreadNanoseconds();

}  // namespace netsieve::bench
