// Any bytes as the stored list, and any names: the driver does what the model says and reads and
// writes nothing beside its buffers, which AddressSanitizer watches.

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>

#include "tests/config/boot_list_model.h"

namespace netsieve::host {
namespace {

// The list's type and length, the list, then names up to a NUL each, behind a byte that says
// whether to add or to remove. A length beyond all sizes stands for no list.
BootListCase CaseFrom(const std::uint8_t* data, std::size_t size) {
    const auto take = [&](void* to, std::size_t count) {
        const std::size_t taken = std::min(count, size);
        std::copy_n(data, taken, static_cast<std::uint8_t*>(to));
        data += taken;
        size -= taken;
    };
    BootListCase made{.type = 0, .list = {}, .steps = {}};
    std::uint8_t type = 0;
    std::uint16_t length = 0;
    take(&type, sizeof(type));
    take(&length, sizeof(length));
    made.type = type;
    if (length < 600) {
        made.list.emplace(length);
        take(made.list->data(), length);
    }
    while (size > 0) {
        std::uint8_t operation = 0;
        std::u16string name;
        take(&operation, sizeof(operation));
        char16_t character = 1;
        while (size > 0 && character != 0) {
            character = 0;
            take(&character, sizeof(character));
            name += character;
        }
        name.erase(std::min(name.find(u'\0'), name.size()));
        std::u16string repeated;
        for (int times = operation / 4; times >= 0; --times) {
            repeated += name;
        }
        made.steps.push_back({operation % 2 == 0, std::move(repeated)});
    }
    return made;
}

}  // namespace
}  // namespace netsieve::host

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace netsieve::host;
    const BootListCase steps = CaseFrom(data, size);
    ConfigRig rig;
    std::string difference;
    rig.Run([&] { difference = Compare(rig, steps); });
    if (!difference.empty() || !rig.machine().verifier().Silent()) {
        fmt::print(stderr, "{}\n{}", difference, rig.machine().verifier().Describe());
        std::abort();
    }
    return 0;
}
