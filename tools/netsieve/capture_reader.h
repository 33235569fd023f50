// Reads the frames of a capture.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "tools/netsieve/capture_format.h"
#include "tools/netsieve/capture_source.h"

struct pcap;

namespace netsieve::tool {

/// A frame's time as the capture has it. The nanoseconds are kept apart from the seconds and are
/// not normalised, so that a stamp with a fraction above a second leaves as it came.
struct CaptureStamp {
    int64_t seconds = 0;
    int64_t nanoseconds = 0;

    int64_t TotalNanoseconds() const { return seconds * 1'000'000'000 + nanoseconds; }
    /// The time so much later.
    CaptureStamp After(std::chrono::nanoseconds time) const {
        const int64_t sum = nanoseconds + time.count();
        return {seconds + sum / 1'000'000'000, sum % 1'000'000'000};
    }
    bool operator==(const CaptureStamp&) const = default;
};

/// One frame of a capture. The bytes belong to the reader and are good until its next call.
struct CaptureFrame {
    CaptureStamp stamp;
    const uint8_t* bytes = nullptr;
    uint32_t capturedLength = 0;
    uint32_t originalLength = 0;  ///< on the wire; unrelated to the captured length in odd files
};

enum class CaptureFault {
    kCannotOpen,
    kNotACapture,
    kUnsupportedVersion,
    kDamagedHeader,
    kLinkType,
    kBrokenOff,  ///< frames were delivered, or could have been, before reading stopped
};

/// What is wrong with a capture, with a message for a person that names the file.
struct CaptureFailure {
    CaptureFault fault;
    std::string message;
};

enum class ReadOutcome { kFrame, kEnd, kFailed };

/// Reads the Ethernet frames of a pcap or pcapng file with nanosecond stamps. Memory does not grow
/// with the capture.
class CaptureReader {
  public:
    CaptureReader() = default;
    ~CaptureReader();
    CaptureReader(const CaptureReader&) = delete;
    CaptureReader& operator=(const CaptureReader&) = delete;

    /// Opens `path` ("-" is standard input), once per reader. `rewindable` promises a second pass:
    /// a pipe is then kept in a temporary file. Returns what is wrong, or nothing.
    std::optional<CaptureFailure> Open(const std::string& path, bool rewindable);

    /// Starts the next pass over the same frames. Only after Open with `rewindable`.
    std::optional<CaptureFailure> Rewind();

    /// Fills `frame` with the next frame. After kFailed, failure() says why; kEnd and kFailed are
    /// final until Rewind.
    ReadOutcome Next(CaptureFrame& frame);

    /// The failure that the last kFailed was about.
    const CaptureFailure& failure() const { return *failure_; }

    /// What the output's file header has to be, so that an unchanged classic file in this machine's
    /// byte order comes out byte for byte. Valid after Open.
    const CaptureHeader& header() const { return header_; }
    bool IsPcapng() const { return source_.format().kind == CaptureFormat::Kind::kPcapng; }

    uint64_t framesRead() const { return framesRead_; }
    const CaptureSource& source() const { return source_; }

  private:
    std::optional<CaptureFailure> OpenLibrary();
    CaptureFailure OpenFailure(const char* libraryWords) const;

    CaptureSource source_;
    std::string name_;
    pcap* library_ = nullptr;
    CaptureHeader header_;
    uint64_t framesRead_ = 0;
    std::optional<CaptureFailure> failure_;
};

}  // namespace netsieve::tool
