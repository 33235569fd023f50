#include "tools/netsieve/capture_format.h"

#include <cstring>

namespace netsieve::tool {
namespace {

constexpr uint32_t kMagicMicroseconds = 0xA1B2C3D4;
constexpr uint32_t kMagicNanoseconds = 0xA1B23C4D;
constexpr uint32_t kMagicModified = 0xA1B2CD34;   // longer record headers
constexpr uint32_t kMagicModified2 = 0xA1B234CD;  // longer still
constexpr uint32_t kMagicRotated = 0xA12B3C4D;    // a maker's own number for the usual format
constexpr uint32_t kSectionHeader = 0x0A0D0D0A;   // the same in both byte orders
constexpr uint32_t kSectionByteOrder = 0x1A2B3C4D;

// Reads fields in the file's byte order. The caller sees to it that they lie inside.
class FieldReader {
  public:
    explicit FieldReader(std::span<const uint8_t> bytes) : bytes_(bytes) {}

    void Swap() { swapped_ = true; }

    uint16_t Get16(size_t offset) const {
        uint16_t value;
        std::memcpy(&value, bytes_.data() + offset, sizeof value);
        return swapped_ ? __builtin_bswap16(value) : value;
    }

    uint32_t Get32(size_t offset) const {
        uint32_t value;
        std::memcpy(&value, bytes_.data() + offset, sizeof value);
        return swapped_ ? __builtin_bswap32(value) : value;
    }

  private:
    std::span<const uint8_t> bytes_;
    bool swapped_ = false;
};

bool IsClassicMagic(uint32_t magic) {
    switch (magic) {
        case kMagicMicroseconds:
        case kMagicNanoseconds:
        case kMagicModified:
        case kMagicModified2:
        case kMagicRotated:
            return true;
        default:
            return false;
    }
}

bool IsCompressed(std::span<const uint8_t> bytes) {
    static constexpr uint8_t kGzip[] = {0x1F, 0x8B};
    static constexpr uint8_t kXz[] = {0xFD, '7', 'z', 'X'};
    static constexpr uint8_t kZstd[] = {0x28, 0xB5, 0x2F, 0xFD};
    static constexpr uint8_t kBzip2[] = {'B', 'Z', 'h'};
    const auto starts = [&](std::span<const uint8_t> magic) {
        return bytes.size() >= magic.size() &&
               std::memcmp(bytes.data(), magic.data(), magic.size()) == 0;
    };
    return starts(kGzip) || starts(kXz) || starts(kZstd) || starts(kBzip2);
}

CaptureFormat ClassicFormat(const FieldReader& fields, bool swapped, bool complete) {
    CaptureFormat format;
    format.kind = CaptureFormat::Kind::kClassic;
    format.swapped = swapped;
    format.complete = complete;
    if (fields.Get32(0) == kMagicNanoseconds) {
        format.header.precision = TimePrecision::kNanoseconds;
    }
    if (!complete) {
        return format;
    }
    format.versionKnown = fields.Get16(4) == 2 && fields.Get16(6) <= 4;
    format.header.zone = fields.Get32(8);
    format.header.accuracy = fields.Get32(12);
    format.header.snapLength = fields.Get32(kSnapLengthOffset);
    format.header.linkWord = fields.Get32(20);
    return format;
}

CaptureFormat PcapngFormat(FieldReader fields, size_t size) {
    CaptureFormat format;
    format.kind = CaptureFormat::Kind::kPcapng;
    format.header.precision = TimePrecision::kNanoseconds;
    if (size < 16) {
        return format;
    }
    if (fields.Get32(8) != kSectionByteOrder) {
        fields.Swap();
        format.swapped = true;
    }
    format.complete = true;
    const uint16_t minor = fields.Get16(14);
    format.versionKnown = fields.Get16(12) == 1 && (minor == 0 || minor == 2);
    return format;
}

}  // namespace

CaptureFormat Identify(std::span<const uint8_t> firstBytes) {
    CaptureFormat format;
    if (IsCompressed(firstBytes)) {
        format.kind = CaptureFormat::Kind::kCompressed;
        return format;
    }
    if (firstBytes.size() < 4) {
        return format;
    }
    FieldReader fields(firstBytes);
    const uint32_t magic = fields.Get32(0);
    if (magic == kSectionHeader) {
        return PcapngFormat(fields, firstBytes.size());
    }
    const bool swapped = !IsClassicMagic(magic);
    if (swapped) {
        if (!IsClassicMagic(__builtin_bswap32(magic))) {
            return format;
        }
        fields.Swap();
    }
    return ClassicFormat(fields, swapped, firstBytes.size() >= kFileHeaderSize);
}

}  // namespace netsieve::tool
