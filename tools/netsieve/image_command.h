// The command `netsieve image`.
#pragma once

#include "tools/netsieve/exit_status.h"

namespace CLI {
class App;
}

namespace netsieve::tool {

/// Adds the command to `app`. When the user chose it, it runs while `app` parses and leaves its
/// exit status in `status`, which must live as long.
void AddImageCommand(CLI::App& app, ExitStatus& status);

}  // namespace netsieve::tool
