// Any bytes as a capture: refused with a reason, or frames within the file; and what was written of
// them reads back the same.

#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "tools/netsieve/capture_reader.h"
#include "tools/netsieve/capture_writer.h"

namespace netsieve::tool {
namespace {

struct Frame {
    CaptureStamp stamp;
    std::vector<std::uint8_t> bytes;
    std::uint32_t original;
    bool operator==(const Frame&) const = default;
};

/// A file of this process alone.
class MemoryFile {
  public:
    explicit MemoryFile(const char* name) : fd_(memfd_create(name, 0)) {}
    ~MemoryFile() { close(fd_); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;
    std::string path() const { return fmt::format("/proc/self/fd/{}", fd_); }
    void Fill(const std::uint8_t* data, std::size_t size) const {
        if (ftruncate(fd_, 0) != 0 || pwrite(fd_, data, size, 0) != static_cast<ssize_t>(size)) {
            std::abort();
        }
    }

  private:
    int fd_;
};

void Demand(bool holds, const char* what) {
    if (!holds) {
        fmt::print(stderr, "not so: {}\n", what);
        std::abort();
    }
}

/// Reads to the end, or to where the file breaks off.
std::vector<Frame> ReadAll(CaptureReader& reader) {
    std::vector<Frame> frames;
    CaptureFrame frame;
    ReadOutcome outcome = reader.Next(frame);
    for (; outcome == ReadOutcome::kFrame; outcome = reader.Next(frame)) {
        frames.push_back(
            {frame.stamp, {frame.bytes, frame.bytes + frame.capturedLength}, frame.originalLength});
    }
    Demand(outcome == ReadOutcome::kEnd || !reader.failure().message.empty(), "a reason is given");
    Demand(reader.framesRead() == frames.size(), "frames are counted");
    return frames;
}

}  // namespace
}  // namespace netsieve::tool

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace netsieve::tool;
    static const MemoryFile input("in");
    static const MemoryFile output("out");
    input.Fill(data, size);
    CaptureReader reader;
    if (const auto failure = reader.Open(input.path(), true)) {
        Demand(!failure->message.empty(), "a refusal has a reason");
        return 0;
    }
    const std::vector<Frame> frames = ReadAll(reader);
    std::size_t sum = 0;
    bool representable = true;
    for (const Frame& frame : frames) {
        sum += frame.bytes.size();
        representable = representable && CaptureWriter::CanRepresent(frame.stamp);
    }
    Demand(sum <= size, "frames lie in the file");
    Demand(!reader.Rewind() && ReadAll(reader) == frames, "a second pass is the first");
    if (!representable) {
        return 0;
    }
    CaptureWriter writer;
    Demand(!writer.Open(output.path(), reader.header()), "the output opens");
    for (const Frame& frame : frames) {
        writer.Begin(frame.stamp, static_cast<std::uint32_t>(frame.bytes.size()), frame.original);
        writer.Append(frame.bytes.data(), frame.bytes.size());
    }
    Demand(!writer.Close(), "the output closes");
    CaptureReader again;
    if (const auto failure = again.Open(output.path(), false)) {
        Demand(false, failure->message.c_str());
    }
    Demand(ReadAll(again) == frames, "what was written reads back the same");
    return 0;
}
