// Capture files built byte by byte, so that the reader is not tested with what the writer wrote.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace netsieve::tool {

/// Appends fields in one byte order.
class CaptureBytes {
  public:
    explicit CaptureBytes(bool bigEndian = false) : bigEndian_(bigEndian) {}

    CaptureBytes& U16(std::uint16_t value) { return Number(value, 2); }
    CaptureBytes& U32(std::uint32_t value) { return Number(value, 4); }
    CaptureBytes& Raw(const std::string& bytes) {
        bytes_ += bytes;
        return *this;
    }

    CaptureBytes& FileHeader(std::uint32_t magic = 0xA1B2C3D4,
                             std::uint32_t snapLength = 65535,
                             std::uint32_t linkWord = 1,
                             std::uint16_t major = 2) {
        return U32(magic).U16(major).U16(4).U32(7).U32(9).U32(snapLength).U32(linkWord);
    }
    /// The section header of a pcapng file.
    CaptureBytes& SectionHeader(std::uint16_t major) {
        return U32(0x0A0D0D0A).U32(28).U32(0x1A2B3C4D).U16(major).U16(0).U32(~0u).U32(~0u).U32(28);
    }
    CaptureBytes& Record(std::uint32_t seconds,
                         std::uint32_t fraction,
                         const std::string& frame,
                         std::uint32_t originalLength) {
        return U32(seconds)
            .U32(fraction)
            .U32(static_cast<std::uint32_t>(frame.size()))
            .U32(originalLength)
            .Raw(frame);
    }

    const std::string& Bytes() const { return bytes_; }

  private:
    CaptureBytes& Number(std::uint32_t value, unsigned size) {
        for (unsigned i = 0; i < size; ++i) {
            const unsigned shift = 8 * (bigEndian_ ? size - 1 - i : i);
            bytes_ += static_cast<char>(value >> shift);
        }
        return *this;
    }

    bool bigEndian_;
    std::string bytes_;
};

/// Everything odd that a classic file may hold and a replay must keep.
inline CaptureBytes OddCapture(bool bigEndian, std::uint32_t magic) {
    CaptureBytes file(bigEndian);
    // A snap length below the frames' and bits above the link type.
    file.FileHeader(magic, 31, 0x14000001);
    file.Record(100, 999999, std::string(60, 'a'), 1514)
        .Record(99, 0, std::string(80066, 'b'), 80066)  // back in time, longer than 16 bits
        .Record(99, 0, "", 0)
        .Record(99, 1, "", 262144)
        .Record(0xFFFFFFF0, 1, std::string(34, 'c'), 32)   // captured more than there was
        .Record(101, 50266112, std::string(14, 'd'), 14);  // microseconds beyond 32 bits of nano
    return file;
}

}  // namespace netsieve::tool
