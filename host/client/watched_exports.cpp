#include "host/client/watched_exports.h"

#include <mutex>

#include "host/client/watched_call.h"

namespace netsieve::host {

namespace {

DriverExports g_image;
/// A client may be bound while another calls. So what is there already is not written again: a
/// caller has been bound, under this lock, before it reads.
std::mutex g_binding;

template <typename Function>
void SetOriginal(Function& original, void* address) {
    if (original != reinterpret_cast<Function>(address)) {
        original = reinterpret_cast<Function>(address);
    }
}

struct Watched {
    std::string_view name;
    void* function;
    void (*setOriginal)(void* address);
};

#define NETSIEVE_WATCHED_ENTRY(name)                                             \
    {#name,                                                                      \
     reinterpret_cast<void*>(                                                    \
         &WatchedCall<g_image, &DriverExports::name, &ClientWatch::name>::Call), \
     [](void* address) { SetOriginal(g_image.name, address); }},
const Watched kWatched[] = {NETSIEVE_CLIENT_EXPORTS(NETSIEVE_WATCHED_ENTRY)};
#undef NETSIEVE_WATCHED_ENTRY

}  // namespace

void* WatchedExport(std::string_view name, void* address) {
    if (address == nullptr || !ClientWatch::IsOn()) {
        return address;
    }
    for (const Watched& watched : kWatched) {
        if (watched.name == name) {
            const std::lock_guard<std::mutex> lock(g_binding);
            watched.setOriginal(address);
            return watched.function;
        }
    }
    return address;
}

}  // namespace netsieve::host
