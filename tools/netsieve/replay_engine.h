// Drives the frames of a capture through the driver on a host machine.
#pragma once

#include <cstdio>
#include <functional>

#include "tools/netsieve/capture_reader.h"
#include "tools/netsieve/capture_writer.h"
#include "tools/netsieve/injection_feed.h"
#include "tools/netsieve/progress.h"
#include "tools/netsieve/replay_options.h"
#include "tools/netsieve/replay_report.h"

namespace netsieve::tool {

/// What a replay reads and writes. All of it stays the caller's.
struct ReplayJob {
    CaptureReader& reader;  ///< open and at its beginning
    /// Called once, when the driver is up and before the first frame: only then is an existing
    /// output overwritten. Returns the writer, or null when the frames are not to be written.
    std::function<CaptureWriter*()> openOutput;
    Progress& progress;
    FILE* log = stdout;             ///< output of log hooks
    InjectionFeed* feed = nullptr;  ///< open; null when nothing is injected
};

/// Replays every frame that `job.reader` still has through one adapter with the address
/// `adapter.address`, and notes in `report` what became of them. The report's adapters, hooks,
/// trace, verifier and accounting are filled in, and the input failure when reading stops early.
/// One replay at a time in a process.
void Replay(const ReplayOptions& options,
            const AdapterReport& adapter,
            const ReplayJob& job,
            ReplayReport& report);

}  // namespace netsieve::tool
