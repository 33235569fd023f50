// Writes frames to a capture.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/netsieve/capture_format.h"
#include "tools/netsieve/capture_reader.h"

namespace netsieve::tool {

/// Writes a classic capture in this machine's byte order: to a file, "-" for standard output, a
/// device or a pipe. Every failure (a full disk, a reader that went away) is kept and reported by
/// Close; after the first one nothing more is written.
class CaptureWriter {
  public:
    CaptureWriter() = default;
    ~CaptureWriter();
    CaptureWriter(const CaptureWriter&) = delete;
    CaptureWriter& operator=(const CaptureWriter&) = delete;

    /// Creates or overwrites `path` and writes the file header. Returns what is wrong, for a
    /// person, or nothing.
    std::optional<std::string> Open(const std::string& path, const CaptureHeader& header);

    /// False for a time the format has no room for: it keeps 32 bits of seconds.
    static bool CanRepresent(const CaptureStamp& stamp);

    /// Starts a frame whose stamp can be represented; exactly `capturedLength` bytes must follow
    /// through Append, in any number of pieces.
    void Begin(const CaptureStamp& stamp, uint32_t capturedLength, uint32_t originalLength);
    void Append(const uint8_t* bytes, size_t size);

    bool HasFailed() const { return !failure_.empty(); }
    uint64_t framesWritten() const { return framesWritten_; }

    /// Writes what is buffered and closes. Returns the first thing that went wrong, or nothing.
    std::optional<std::string> Close();

  private:
    void Flush();
    void Fail(const char* action);

    int fd_ = -1;
    std::string name_;
    TimePrecision precision_ = TimePrecision::kMicroseconds;
    std::vector<uint8_t> buffer_;
    size_t used_ = 0;
    uint64_t framesWritten_ = 0;
    std::string failure_;
};

}  // namespace netsieve::tool
