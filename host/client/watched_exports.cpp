#include "host/client/watched_exports.h"

#include "host/client/watched_call.h"

namespace netsieve::host {

namespace {

DriverExports g_image;

struct Watched {
    std::string_view name;
    void* function;
    void (*setOriginal)(void* address);
};

#define NETSIEVE_WATCHED_ENTRY(name)                                             \
    {#name,                                                                      \
     reinterpret_cast<void*>(                                                    \
         &WatchedCall<g_image, &DriverExports::name, &ClientWatch::name>::Call), \
     [](void* address) { g_image.name = reinterpret_cast<decltype(g_image.name)>(address); }},
const Watched kWatched[] = {NETSIEVE_CLIENT_EXPORTS(NETSIEVE_WATCHED_ENTRY)};
#undef NETSIEVE_WATCHED_ENTRY

}  // namespace

void* WatchedExport(std::string_view name, void* address) {
    if (address == nullptr || !ClientWatch::IsOn()) {
        return address;
    }
    for (const Watched& watched : kWatched) {
        if (watched.name == name) {
            watched.setOriginal(address);
            return watched.function;
        }
    }
    return address;
}

}  // namespace netsieve::host
