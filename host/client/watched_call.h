// One export as a client is bound to it.
#pragma once

#include "host/client/client_watch.h"
#include "host/client/driver_exports.h"

namespace netsieve::host {

/// The export `kExport` of the driver whose exports `kDriver` holds, in the form that tells the
/// machine's watch of the call; without a watch it is the export itself.
template <const DriverExports& kDriver, auto kExport, auto kWatch>
struct WatchedCall;

template <const DriverExports& kDriver,
          typename Result,
          typename... Arguments,
          Result (NTAPI* DriverExports::*kExport)(Arguments...),
          Result (ClientWatch::*kWatch)(const DriverExports&, Arguments...)>
struct WatchedCall<kDriver, kExport, kWatch> {
    /// Inlined, so that the return address is the client's.
    [[gnu::always_inline]] static inline Result From(const void* client, Arguments... arguments) {
        ClientWatch* const watch = ClientWatch::ForCall(client);
        return watch == nullptr ? (kDriver.*kExport)(arguments...)
                                : (watch->*kWatch)(kDriver, arguments...);
    }
    static Result NTAPI Call(Arguments... arguments) {
        return From(__builtin_return_address(0), arguments...);
    }
};

}  // namespace netsieve::host
