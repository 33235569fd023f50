// Calls of the exports in any order, with arguments that the header allows or that it says are
// refused: each answers what the header says, each hook is shown each frame as often as it is
// attached, and no rule is broken.

#include <fmt/format.h>

#include <cstdlib>
#include <memory>
#include <vector>

#include "tests/packet/pending_rig.h"

namespace netsieve::host {
namespace {

constexpr NTSTATUS kBadParameter = static_cast<NTSTATUS>(0xC000000D);
constexpr NTSTATUS kNoRoom = static_cast<NTSTATUS>(0xC0000004);
constexpr NTSTATUS kUnknownClass = static_cast<NTSTATUS>(0xC00000BB);
constexpr std::size_t kMostCalls = 24;

void Demand(bool holds, const char* what) {
    if (!holds) {
        fmt::print(stderr, "not so: {}\n", what);
        std::abort();
    }
}

struct ModelHook {
    std::u16string name;
    HOOK_FILTER* handle = nullptr;
    bool shown = false;     ///< has handlers: registered with the extended block
    bool attaches = false;  ///< in AttachNotify
    bool down = false;
    bool active = false;
    int attached = 0;
    int registrations = 0;
    int offers = 0;
    int detachNotified = 0;
};

class Caller {
  public:
    Caller(Scene& scene, const std::uint8_t* data, std::size_t size)
        : scene_(scene), data_(data), size_(size) {}

    void Run() {
        for (std::size_t calls = 0; size_ != 0 && calls < kMostCalls; ++calls) {
            Call(Take());
        }
        for (const auto& hook : hooks_) {
            while (hook->registrations != 0) {
                Deregister(*hook);
            }
        }
    }

  private:
    std::uint8_t Take() { return size_ == 0 ? 0 : (--size_, *data_++); }

    void Call(std::uint8_t what) {
        ModelHook* const hook = hooks_.empty() ? nullptr : hooks_[Take() % hooks_.size()].get();
        const bool usable = hook != nullptr && hook->registrations != 0;
        switch (what % 8) {
            case 0:
            case 1:
                return Register();
            case 2:
                return usable ? Deregister(*hook) : RefuseNothings();
            case 3:
                return usable ? SetState(*hook) : ITarnHKFlowControl(nullptr, Take());
            case 4:
                return usable ? Attach(*hook) : RefuseNothings();
            case 5:
                return usable ? Detach(*hook) : RefuseNothings();
            case 6:
                return AskVersion();
            default:
                return Pass();
        }
    }

    void Register() {
        const std::uint8_t shape = Take();
        auto hook = std::make_unique<ModelHook>();
        for (std::uint8_t length = Take() % 4; length != 0; --length) {
            hook->name += u"ab"[Take() % 2];
        }
        const bool terminated = (shape & 1) == 0;
        const bool room = (shape & 2) == 0;
        const bool buffer = (shape & 4) == 0;
        const bool extended = (shape & 8) == 0;
        hook->shown = extended;
        hook->attaches = (shape & 16) == 0;
        std::u16string text = hook->name + (terminated ? u'\0' : u'x');
        const auto bytes = static_cast<USHORT>(2 * hook->name.size());
        const UNICODE_STRING name{bytes, static_cast<USHORT>(bytes + (room ? 2 : 0)),
                                  buffer ? text.data() : nullptr};
        const NTSTATUS status =
            extended ? RegisterExtended(name, *hook) : RegisterBasic(name, *hook);
        const bool good = room && buffer && (terminated || !extended);
        Demand(status == (good ? STATUS_SUCCESS : kBadParameter), "a registration's status");
        if (!good) {
            Demand(hook->handle == nullptr, "nothing is written when it fails");
            return;
        }
        for (const auto& other : hooks_) {
            if (other->handle == hook->handle && !other->down) {
                Demand(hook->name.find(other->name) != std::u16string::npos,
                       "it contains that name");
                ++other->registrations;
                return;
            }
        }
        for (const auto& other : hooks_) {
            Demand(other->down || hook->name.find(other->name) == std::u16string::npos,
                   "a name that contains another joins it");
        }
        hook->registrations = 1;
        Demand(hook->attached == (hook->attaches ? 1 : 0), "the adapter is announced");
        hooks_.push_back(std::move(hook));
    }

    static VOID NTAPI OnAttach(FILTER_MODULE* module, HOOK_FILTER* handle, PVOID context) {
        auto* const hook = static_cast<ModelHook*>(context);
        if (hook->attaches) {
            Demand(ITarnHKAttachFilter(module, handle) == STATUS_SUCCESS, "it attaches when told");
            ++hook->attached;
        }
    }
    static VOID NTAPI OnDetach(FILTER_MODULE*, HOOK_FILTER*, PVOID context) {
        ++static_cast<ModelHook*>(context)->detachNotified;
    }
    static LONG NTAPI OnFrame(PVOID context, NIRP* nirp) {
        ++static_cast<ModelHook*>(context)->offers;
        Demand(ITarnHKGetBufferLength(nirp) == 60, "the frame's length");
        return HOOK_VERDICT_PASS;
    }

    static NTSTATUS RegisterExtended(const UNICODE_STRING& name, ModelHook& hook) {
        HOOK_FILTER_REGISTRATION_EX block{};
        block.Name = name;
        block.AttachNotify = &OnAttach;
        block.DetachNotify = &OnDetach;
        block.SendHandler = &OnFrame;
        block.ReceiveHandler = &OnFrame;
        return ITarnHKRegisterFilterEx(&block, &hook, &hook.handle);
    }
    static NTSTATUS RegisterBasic(const UNICODE_STRING& name, ModelHook& hook) {
        HOOK_FILTER_REGISTRATION block{};
        block.Name = name;
        block.AttachNotify = &OnAttach;
        block.DetachNotify = &OnDetach;
        return ITarnHKRegisterFilter(&block, &hook, 0, &hook.handle);
    }

    void Deregister(ModelHook& hook) {
        const bool told = !hook.down && hook.attached != 0;
        const int before = hook.detachNotified;
        Demand(ITarnHKDeregisterFilter(hook.handle) == STATUS_SUCCESS, "a deregistration succeeds");
        Demand(hook.detachNotified == before + (told ? 1 : 0), "one DetachNotify when it goes");
        hook.down = true;
        --hook.registrations;
    }

    void SetState(ModelHook& hook) {
        const ULONG state = HOOK_STATE_ACTIVE - 1 + Take() % 6;
        ITarnHKFlowControl(hook.handle, state);
        hook.active = state == HOOK_STATE_ACTIVE || state == HOOK_STATE_RESUMED;
    }

    void Attach(ModelHook& hook) {
        const NTSTATUS status = ITarnHKAttachFilter(scene_.module, hook.handle);
        Demand((status == STATUS_SUCCESS) == !hook.down, "a hook that is down is not attached");
        hook.attached += hook.down ? 0 : 1;
    }

    void Detach(ModelHook& hook) {
        Demand(ITarnHKDettachFilter(scene_.module, hook.handle) == STATUS_SUCCESS, "it detaches");
        hook.attached -= hook.attached > 0 && !hook.down ? 1 : 0;
    }

    void RefuseNothings() {
        HOOK_FILTER* handle = nullptr;
        const HOOK_FILTER_REGISTRATION_EX block{};
        Demand(ITarnHKRegisterFilterEx(nullptr, nullptr, &handle) == kBadParameter &&
                   ITarnHKRegisterFilterEx(&block, nullptr, nullptr) == kBadParameter &&
                   ITarnHKAttachFilter(scene_.module, nullptr) != STATUS_SUCCESS &&
                   ITarnHKMarkPending(nullptr) != STATUS_SUCCESS &&
                   ITarnHKGetBuffer(nullptr) == nullptr && ITarnHKGetBufferLength(nullptr) == 0 &&
                   ITarnHKSendPacket(nullptr, nullptr, Take()) == STATUS_SUCCESS,
               "what is missing is refused");
    }

    // In memory of exactly the size that is said, which AddressSanitizer watches.
    void AskVersion() {
        const std::uint8_t classes = Take();
        ULONG size = Take() % 16;
        const ULONG room = size;
        const auto buffer = std::make_unique<char[]>(room);
        if (classes % 4 == 0) {
            const LONG unknown = 8 + classes;
            Demand(
                ITarnHKSystemInformationEx(nullptr, unknown, buffer.get(), &size) == kUnknownClass,
                "an unknown class is refused");
            return;
        }
        const NTSTATUS status =
            ITarnHKSystemInformationEx(nullptr, SYSINFO_CLASS_VERSION, buffer.get(), &size);
        Demand(status == (room > 8 ? STATUS_SUCCESS : kNoRoom), "the version needs its room");
    }

    void Pass() {
        const bool send = Take() % 2 == 0;
        std::vector<int> before;
        for (const auto& hook : hooks_) {
            before.push_back(hook->offers);
        }
        scene_.Pass(send, {MakeFrame(1)});
        for (std::size_t i = 0; i < hooks_.size(); ++i) {
            const ModelHook& hook = *hooks_[i];
            const bool shown = hook.shown && hook.active && !hook.down;
            Demand(hook.offers - before[i] == (shown ? hook.attached : 0),
                   "each is shown the frame as often as it is attached");
        }
    }

    Scene& scene_;
    const std::uint8_t* data_;
    std::size_t size_;
    std::vector<std::unique_ptr<ModelHook>> hooks_;  ///< each the context of its callbacks
};

}  // namespace
}  // namespace netsieve::host

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace netsieve::host;
    Machine machine;
    const RunResult result = machine.Run([&] {
        {
            Scene scene(machine);
            Caller(scene, data, size).Run();
        }
        machine.UnloadDriver("NETSIEVE");
    });
    machine.ndis().ReportLostNbls();
    const Accounting stock = TakeStock(machine);
    if (!result.completed || !machine.verifier().Silent() || !stock.Balanced()) {
        fmt::print(stderr, "{}{}{}\n", result.abandonReason, machine.verifier().Describe(),
                   stock.Describe());
        std::abort();
    }
    return 0;
}
