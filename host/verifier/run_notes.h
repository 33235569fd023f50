// What the one who runs a machine is doing, for the report of a crash.
#pragma once

#include <cstdint>
#include <string_view>

namespace netsieve::host {

class SignalText;

/// Says what is in hand from now on: "frame", 17. `what` is a literal. Any thread, any time; costs
/// two stores.
void NoteStep(const char* what, std::uint64_t number);

/// Says how this run is repeated: a command line, or what to set for a test. The text is copied and
/// cut off after a thousand characters; an empty one says nothing. Between runs.
void NoteReplay(std::string_view how);

/// Appends the lines that the notes make, if any. Safe in a signal handler.
void AppendRunNotes(SignalText& text);

}  // namespace netsieve::host
