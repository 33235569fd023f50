// A stack that can be switched to, with what the sanitizers need to know of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace netsieve::host {

/// How much stack a flow has.
enum class StackSize : std::uint8_t {
    kKernel,  ///< a kernel thread's, and what the host needs on top: for what runs drivers alone
    kLarge,   ///< for what runs code of the host's user
};

/// One switchable flow of control on its own guarded stack. Stacks are pooled for the process: a
/// schedule search makes and ends millions of fibers.
///
/// A fiber that is destroyed before its entry routine has returned is dropped, not unwound: the
/// driver's frames have no unwinding to run.
class Fiber {
  public:
    using Entry = void (*)(void* argument);

    /// The flow of control that calls this: what the first switch leaves behind.
    static std::unique_ptr<Fiber> Adopt();
    /// A new flow that starts in `entry(argument)` when first switched to. `entry` must not return:
    /// it ends with a switch that says it is final.
    static std::unique_ptr<Fiber> Create(Entry entry, void* argument, StackSize size);
    ~Fiber();

    Fiber(const Fiber&) = delete;
    Fiber& operator=(const Fiber&) = delete;

    /// Leaves `from`, which must be the running one, and goes on in `to`. With `final` nothing will
    /// ever switch back to `from`.
    static void Switch(Fiber& from, Fiber& to, bool final);

  private:
    struct Impl;
    explicit Fiber(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

}  // namespace netsieve::host
