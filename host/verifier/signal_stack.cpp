#include "host/verifier/signal_stack.h"

#include <signal.h>
#include <sys/mman.h>

#include <cstddef>

namespace netsieve::host {

namespace {

/// In place while the thread lives.
class SignalStack {
  public:
    SignalStack() {
        memory_ = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory_ != MAP_FAILED) {
            const stack_t stack{.ss_sp = memory_, .ss_flags = 0, .ss_size = kSize};
            sigaltstack(&stack, &before_);
        }
    }
    ~SignalStack() {
        if (memory_ != MAP_FAILED) {
            sigaltstack(&before_, nullptr);
            munmap(memory_, kSize);
        }
    }
    SignalStack(const SignalStack&) = delete;
    SignalStack& operator=(const SignalStack&) = delete;

  private:
    static constexpr std::size_t kSize = 256 * 1024;  // a sanitizer's own handler runs here too
    void* memory_;
    stack_t before_{};
};

}  // namespace

void UseSignalStack() {
    thread_local const SignalStack stack;
}

}  // namespace netsieve::host
