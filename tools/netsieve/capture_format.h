// What a capture file is, told from its first bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace netsieve::tool {

enum class TimePrecision { kMicroseconds, kNanoseconds };

/// The fields of a classic capture's file header that are carried from the input to the output, in
/// host byte order and exactly as the file has them: `linkWord` with the bits above the link type,
/// `snapLength` even where it is 0 or below the frames' length.
struct CaptureHeader {
    TimePrecision precision = TimePrecision::kMicroseconds;
    uint32_t zone = 0;
    uint32_t accuracy = 0;
    uint32_t snapLength = 262144;
    uint32_t linkWord = 1;
};

/// What the first bytes of a file say about it.
struct CaptureFormat {
    enum class Kind { kUnknown, kClassic, kPcapng, kCompressed };

    Kind kind = Kind::kUnknown;
    bool swapped = false;   ///< the other byte order than this machine's
    bool complete = false;  ///< the header is there to its end
    bool versionKnown = false;
    CaptureHeader header;  ///< of a complete classic file only, but for the precision
};

/// The length of the classic file header, and as many bytes as Identify looks at.
constexpr size_t kFileHeaderSize = 24;
constexpr size_t kSnapLengthOffset = 16;

/// Tells the format from a file's first bytes (up to kFileHeaderSize, fewer when the file is
/// shorter). Reads nothing else and never fails: what is not recognised is kUnknown.
CaptureFormat Identify(std::span<const uint8_t> firstBytes);

}  // namespace netsieve::tool
