#include "tools/netsieve/capture_writer.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

namespace netsieve::tool {
namespace {

constexpr size_t kBufferSize = 256 * 1024;

struct FileHeader {
    uint32_t magic;
    uint16_t major;
    uint16_t minor;
    uint32_t zone;
    uint32_t accuracy;
    uint32_t snapLength;
    uint32_t linkWord;
};
static_assert(sizeof(FileHeader) == kFileHeaderSize);

struct RecordHeader {
    uint32_t seconds;
    uint32_t fraction;
    uint32_t capturedLength;
    uint32_t originalLength;
};
static_assert(sizeof(RecordHeader) == 16);

}  // namespace

CaptureWriter::~CaptureWriter() {
    if (fd_ >= 0) {
        close(fd_);
    }
}

std::optional<std::string> CaptureWriter::Open(const std::string& path,
                                               const CaptureHeader& header) {
    name_ = path == "-" ? "standard output" : path;
    fd_ = path == "-" ? fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3)
                      : open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd_ < 0) {
        return fmt::format("cannot write {}: {}", name_, std::strerror(errno));
    }
    precision_ = header.precision;
    buffer_.resize(kBufferSize);
    const FileHeader fileHeader{precision_ == TimePrecision::kNanoseconds ? 0xA1B23C4D : 0xA1B2C3D4,
                                2,
                                4,
                                header.zone,
                                header.accuracy,
                                header.snapLength,
                                header.linkWord};
    Append(reinterpret_cast<const uint8_t*>(&fileHeader), sizeof fileHeader);
    return std::nullopt;
}

bool CaptureWriter::CanRepresent(const CaptureStamp& stamp) {
    // Negative seconds are what the library makes of the upper half of the 32 bits.
    return stamp.seconds >= std::numeric_limits<int32_t>::min() &&
           stamp.seconds <= std::numeric_limits<uint32_t>::max();
}

void CaptureWriter::Begin(const CaptureStamp& stamp,
                          uint32_t capturedLength,
                          uint32_t originalLength) {
    const int64_t fraction =
        precision_ == TimePrecision::kNanoseconds ? stamp.nanoseconds : stamp.nanoseconds / 1000;
    const RecordHeader record{static_cast<uint32_t>(stamp.seconds), static_cast<uint32_t>(fraction),
                              capturedLength, originalLength};
    Append(reinterpret_cast<const uint8_t*>(&record), sizeof record);
    ++framesWritten_;
}

void CaptureWriter::Append(const uint8_t* bytes, size_t size) {
    while (size > 0 && !HasFailed()) {
        if (used_ == buffer_.size()) {
            Flush();
        }
        const size_t take = std::min(size, buffer_.size() - used_);
        std::memcpy(buffer_.data() + used_, bytes, take);
        used_ += take;
        bytes += take;
        size -= take;
    }
}

std::optional<std::string> CaptureWriter::Close() {
    Flush();
    // Network file systems report a full disk only here.
    if (fd_ >= 0 && close(fd_) != 0) {
        Fail("close");
    }
    fd_ = -1;
    return HasFailed() ? std::optional(failure_) : std::nullopt;
}

void CaptureWriter::Flush() {
    size_t done = 0;
    while (done < used_ && !HasFailed()) {
        const ssize_t written = write(fd_, buffer_.data() + done, used_ - done);
        if (written > 0) {
            done += static_cast<size_t>(written);
        } else if (written == 0 || errno != EINTR) {
            Fail("write");
        }
    }
    used_ = 0;
}

void CaptureWriter::Fail(const char* action) {
    if (!HasFailed()) {
        failure_ = fmt::format("cannot {} {}: {}", action, name_, std::strerror(errno));
    }
}

}  // namespace netsieve::tool
