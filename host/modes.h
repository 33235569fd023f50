// How the machine runs, for what has no time to ask it.
#pragma once

namespace netsieve::host {

/// True when the machine runs on real threads without the verifier: the data path then takes the
/// shortest way. Set by the machine.
extern bool g_plainMode;
/// True when the machine's verifier is on. Set by the machine.
extern bool g_verifyMode;

}  // namespace netsieve::host
