#include "host/verifier/run_notes.h"

#include <algorithm>
#include <array>
#include <atomic>

#include "host/signal_text.h"

namespace netsieve::host {

namespace {

std::atomic<const char*> g_step = nullptr;
std::atomic<std::uint64_t> g_stepNumber = 0;
std::array<char, 1000> g_replay{};
std::atomic<std::size_t> g_replaySize = 0;

}  // namespace

void NoteStep(const char* what, std::uint64_t number) {
    g_stepNumber.store(number, std::memory_order_relaxed);
    g_step.store(what, std::memory_order_relaxed);
}

void NoteReplay(std::string_view how) {
    g_replaySize = 0;
    const std::size_t size = std::min(how.size(), g_replay.size());
    std::copy_n(how.begin(), size, g_replay.begin());
    g_replaySize = size;
}

void AppendRunNotes(SignalText& text) {
    if (const char* const step = g_step.load(std::memory_order_relaxed)) {
        text << "    step:   " << step << " " << g_stepNumber.load(std::memory_order_relaxed)
             << "\n";
    }
    if (const std::size_t size = g_replaySize) {
        text << "    replay: " << std::string_view(g_replay.data(), size) << "\n";
    }
}

}  // namespace netsieve::host
