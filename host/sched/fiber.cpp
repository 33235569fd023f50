#include "host/sched/fiber.h"

#include <sys/mman.h>

#include <boost/context/detail/fcontext.hpp>
#include <new>
#include <vector>

#include "host/sanitizers.h"
#include "host/sched/context.h"
#include "host/sched/happens_before.h"

#ifdef NETSIEVE_ASAN
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#include <sanitizer/lsan_interface.h>
#endif
#ifdef NETSIEVE_TSAN
#include <sanitizer/tsan_interface.h>
#endif

namespace netsieve::host {

namespace {

using boost::context::detail::fcontext_t;
using boost::context::detail::jump_fcontext;
using boost::context::detail::make_fcontext;
using boost::context::detail::transfer_t;

// Sanitizers make frames several times larger; the pages are only touched when used.
constexpr std::size_t kLargeStack = 512 * 1024;
// What the host's own calls need below a driver's: reports, and the registry's libraries, most.
constexpr std::size_t kHostRoom = 40 * 1024;
constexpr std::size_t kKernelStack = kSanitized ? kLargeStack : kKernelStackSize + kHostRoom;
// A frame with large arrays may reach far below the stack before it touches anything.
constexpr std::size_t kGuardSize = 64 * 1024;

struct Stack {
    char* base = nullptr;  // lowest usable byte, the guard above the mapping's start
    void* sanitizerFiber = nullptr;
};

constexpr std::size_t BytesOf(StackSize size) {
    return size == StackSize::kKernel ? kKernelStack : kLargeStack;
}

std::vector<Stack>& StackPool(StackSize size) {
    thread_local std::vector<Stack> pools[2];
    return pools[static_cast<std::size_t>(size)];
}

#ifdef NETSIEVE_TSAN
thread_local void* g_adopted = nullptr;  // ThreadSanitizer's fiber of the flow that was adopted
#endif

// A flow ends in the middle of its functions. ThreadSanitizer's record of them would grow with each
// flow on the same stack, until it runs over, so that each gets a fiber of its own there.
void BeginSanitizerFiber([[maybe_unused]] Stack& stack) {
#ifdef NETSIEVE_TSAN
    // What makes a fiber happens before it. It is made on behalf of whoever adopted the thread: the
    // context that runs at this moment may have nothing to do with the new one.
    void* const current = __tsan_get_current_fiber();
    __tsan_switch_to_fiber(g_adopted, __tsan_switch_to_fiber_no_sync);
    stack.sanitizerFiber = __tsan_create_fiber(0);
    __tsan_switch_to_fiber(current, __tsan_switch_to_fiber_no_sync);
#endif
}

// Of a flow that was dropped nothing tells that it is over but that its fiber is destroyed.
void EndSanitizerFiber([[maybe_unused]] Stack& stack, [[maybe_unused]] bool ended) {
#ifdef NETSIEVE_TSAN
    if (!ended) {
        void* const current = __tsan_get_current_fiber();
        __tsan_switch_to_fiber(stack.sanitizerFiber, __tsan_switch_to_fiber_no_sync);
        NoteRelease(stack.base);
        __tsan_switch_to_fiber(current, __tsan_switch_to_fiber_no_sync);
        NoteAcquire(stack.base);
    }
    __tsan_destroy_fiber(stack.sanitizerFiber);
#endif
}

Stack TakeStack(StackSize size) {
    const std::size_t bytes = BytesOf(size);
    std::vector<Stack>& pool = StackPool(size);
    if (!pool.empty()) {
        Stack stack = pool.back();
        pool.pop_back();
        BeginSanitizerFiber(stack);
#ifdef NETSIEVE_TSAN
        // As new memory: of what the last flow did in its frames nothing may be left.
        mmap(stack.base, bytes, PROT_READ | PROT_WRITE,
             MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0);
#endif
#ifdef NETSIEVE_ASAN
        __asan_unpoison_memory_region(stack.base, bytes);
#endif
        return stack;
    }
    void* mapping = mmap(nullptr, bytes + kGuardSize, PROT_READ | PROT_WRITE,
                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (mapping == MAP_FAILED) {
        throw std::bad_alloc();
    }
    mprotect(mapping, kGuardSize, PROT_NONE);
    Stack stack;
    stack.base = static_cast<char*>(mapping) + kGuardSize;
    BeginSanitizerFiber(stack);
#ifdef NETSIEVE_ASAN
    __lsan_register_root_region(stack.base, bytes);
#endif
    return stack;
}

}  // namespace

struct Fiber::Impl {
    Stack stack;
    StackSize kind = StackSize::kLarge;
    bool adopted = false;
    bool ended = false;
    fcontext_t context = nullptr;
    Entry entry = nullptr;
    void* argument = nullptr;
    // What AddressSanitizer switches to and from.
    void* fakeStack = nullptr;
    const void* bottom = nullptr;
    std::size_t size = 0;

    static Impl* switchedFrom;  // set by the side that leaves, read by the side that arrives

    void Arrive(transfer_t transfer) {
        Impl* previous = switchedFrom;
        previous->context = transfer.fctx;
#ifdef NETSIEVE_ASAN
        const void* oldBottom = nullptr;
        std::size_t oldSize = 0;
        __sanitizer_finish_switch_fiber(fakeStack, &oldBottom, &oldSize);
        if (previous->adopted) {
            previous->bottom = oldBottom;
            previous->size = oldSize;
        }
#endif
    }

    static void Trampoline(transfer_t transfer) {
        Impl* self = static_cast<Impl*>(transfer.data);
        self->Arrive(transfer);
        self->entry(self->argument);
        __builtin_trap();  // an entry routine ends with a final switch
    }
};

Fiber::Impl* Fiber::Impl::switchedFrom = nullptr;

Fiber::Fiber(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

std::unique_ptr<Fiber> Fiber::Adopt() {
    auto impl = std::make_unique<Impl>();
    impl->adopted = true;
#ifdef NETSIEVE_TSAN
    g_adopted = __tsan_get_current_fiber();
    impl->stack.sanitizerFiber = g_adopted;
#endif
    return std::unique_ptr<Fiber>(new Fiber(std::move(impl)));
}

std::unique_ptr<Fiber> Fiber::Create(Entry entry, void* argument, StackSize size) {
    auto impl = std::make_unique<Impl>();
    const std::size_t bytes = BytesOf(size);
    impl->stack = TakeStack(size);
    impl->kind = size;
    impl->entry = entry;
    impl->argument = argument;
    impl->bottom = impl->stack.base;
    impl->size = bytes;
    impl->context = make_fcontext(impl->stack.base + bytes, bytes, &Impl::Trampoline);
    return std::unique_ptr<Fiber>(new Fiber(std::move(impl)));
}

Fiber::~Fiber() {
#ifdef NETSIEVE_ASAN
    // The frames of a dropped flow still own memory: without their stack it would count as leaked.
    const bool reuse = impl_->ended;
#else
    const bool reuse = true;
#endif
    if (!impl_->adopted && reuse) {
        EndSanitizerFiber(impl_->stack, impl_->ended);
        StackPool(impl_->kind).push_back(impl_->stack);
    }
}

void Fiber::Switch(Fiber& from, Fiber& to, bool final) {
    Impl& source = *from.impl_;
    Impl& target = *to.impl_;
#ifdef NETSIEVE_ASAN
    __sanitizer_start_switch_fiber(final ? nullptr : &source.fakeStack, target.bottom, target.size);
#endif
#ifdef NETSIEVE_TSAN
    // An edge at each switch would order all that contexts do, with locks or without.
    __tsan_switch_to_fiber(target.stack.sanitizerFiber,
                           g_unseenCodeRuns ? 0 : __tsan_switch_to_fiber_no_sync);
#endif
    source.ended = final;
    Impl::switchedFrom = &source;
    const transfer_t transfer = jump_fcontext(target.context, &target);
    source.Arrive(transfer);
}

}  // namespace netsieve::host
