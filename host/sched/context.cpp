#include "host/sched/context.h"

#include <fmt/format.h>

#include "host/image/code_place.h"

namespace netsieve::host {

constinit thread_local Context* t_context = nullptr;

std::string Context::Describe() const {
    static constexpr const char* kKinds[] = {"thread", "dpc", "worker"};
    return fmt::format("{} {} ({}) on processor {}", kKinds[static_cast<int>(kind)], id, name,
                       processor);
}

std::string Context::DescribeCalls() const {
    std::string text;
    for (const CallFrame* call = frame; call != nullptr; call = call->outer) {
        text += fmt::format(", in {}", call->routine);
        if (call->IsHookCallback()) {
            text += fmt::format(" of hook '{}' ({})", call->hookName, PlaceName(call->code));
        }
    }
    return text;
}

}  // namespace netsieve::host
