#include "tools/netsieve/capture_source.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <stdio_ext.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace netsieve::tool {
namespace {

constexpr size_t kBufferSize = 256 * 1024;

// The largest captured length the capture library takes for Ethernet.
constexpr uint32_t kLargestSnapLength = 262144;

ssize_t ReadOnce(int fd, char* buffer, size_t size) {
    ssize_t got;
    do {
        got = read(fd, buffer, size);
    } while (got < 0 && errno == EINTR);
    return got;
}

bool WriteAll(int fd, const char* bytes, size_t size) {
    while (size > 0) {
        const ssize_t written = write(fd, bytes, size);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false;
        }
        bytes += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

int OpenUnlinkedFile(std::string& directory) {
    const char* configured = std::getenv("TMPDIR");
    directory = configured != nullptr && *configured != '\0' ? configured : "/tmp";
    std::string path = directory + "/netsieve-XXXXXX";
    const int fd = mkostemp(path.data(), O_CLOEXEC);
    if (fd >= 0) {
        unlink(path.c_str());
    }
    return fd;
}

std::string LastError() {
    return std::strerror(errno);
}

}  // namespace

CaptureSource::~CaptureSource() {
    if (fd_ >= 0) {
        close(fd_);
    }
}

std::optional<std::string> CaptureSource::Open(const std::string& path, bool rewindable) {
    fd_ = path == "-" ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3)
                      : open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) {
        return LastError();
    }
    start_ = lseek(fd_, 0, SEEK_CUR);
    if (start_ < 0 && rewindable) {
        if (auto failure = Spool()) {
            return failure;
        }
    }
    struct stat status {};
    if (fstat(fd_, &status) == 0 && S_ISREG(status.st_mode)) {
        size_ = static_cast<uint64_t>(std::max<int64_t>(status.st_size - start_, 0));
    }
    return Peek();
}

FILE* CaptureSource::NewStream() {
    cookie_io_functions_t functions{};
    functions.read = ReadCookie;
    FILE* stream = fopencookie(this, "r", functions);
    if (stream == nullptr) {
        return nullptr;
    }
    streamBuffer_.resize(kBufferSize);
    setvbuf(stream, streamBuffer_.data(), _IOFBF, streamBuffer_.size());
    // One thread reads; the lock of every call would cost as much as copying a small frame.
    __fsetlocking(stream, FSETLOCKING_BYCALLER);
    return stream;
}

std::optional<std::string> CaptureSource::Rewind() {
    if (lseek(fd_, start_, SEEK_SET) < 0) {
        return LastError();
    }
    return Peek();
}

bool CaptureSource::IsSameFile(const std::string& path) const {
    struct stat ours {};
    struct stat other {};
    return fstat(fd_, &ours) == 0 && stat(path.c_str(), &other) == 0 && S_ISREG(ours.st_mode) &&
           ours.st_dev == other.st_dev && ours.st_ino == other.st_ino;
}

ssize_t CaptureSource::ReadCookie(void* cookie, char* buffer, size_t size) {
    return static_cast<CaptureSource*>(cookie)->Read(buffer, size);
}

ssize_t CaptureSource::Read(char* buffer, size_t size) {
    if (position_ < peekedSize_) {
        const size_t take = std::min(size, peekedSize_ - static_cast<size_t>(position_));
        std::memcpy(buffer, peeked_.data() + position_, take);
        position_ += take;
        return static_cast<ssize_t>(take);
    }
    const ssize_t got = ReadOnce(fd_, buffer, size);
    if (got > 0) {
        position_ += static_cast<uint64_t>(got);
    }
    return got;
}

std::optional<std::string> CaptureSource::Peek() {
    position_ = 0;
    peekedSize_ = 0;
    while (peekedSize_ < peeked_.size()) {
        const ssize_t got = ReadOnce(fd_, reinterpret_cast<char*>(peeked_.data()) + peekedSize_,
                                     peeked_.size() - peekedSize_);
        if (got < 0) {
            return LastError();
        }
        if (got == 0) {
            break;
        }
        peekedSize_ += static_cast<size_t>(got);
    }
    format_ = Identify({peeked_.data(), peekedSize_});
    WidenSnapLength();
    return std::nullopt;
}

// The capture library cuts a frame that is longer than the snap length in the file header. The
// bytes are in the file, though, and a replay must not lose any: the library is shown the largest
// snap length there is. The format keeps the file's own for the output.
void CaptureSource::WidenSnapLength() {
    if (format_.kind != CaptureFormat::Kind::kClassic || !format_.complete ||
        format_.header.snapLength >= kLargestSnapLength) {
        return;
    }
    const uint32_t widened =
        format_.swapped ? __builtin_bswap32(kLargestSnapLength) : kLargestSnapLength;
    std::memcpy(peeked_.data() + kSnapLengthOffset, &widened, sizeof widened);
}

std::optional<std::string> CaptureSource::Spool() {
    std::string directory;
    const int spool = OpenUnlinkedFile(directory);
    if (spool < 0) {
        return fmt::format("no temporary file in {} to keep the input for a second pass: {}",
                           directory, LastError());
    }
    std::vector<char> buffer(kBufferSize);
    ssize_t got;
    while ((got = ReadOnce(fd_, buffer.data(), buffer.size())) > 0) {
        if (!WriteAll(spool, buffer.data(), static_cast<size_t>(got))) {
            const std::string reason = LastError();
            close(spool);
            return fmt::format(
                "cannot keep the input in {} for a second pass: {}; name the adapter's address "
                "to need only one",
                directory, reason);
        }
    }
    const int error = errno;
    close(fd_);
    fd_ = spool;
    start_ = 0;
    if (got < 0) {
        return std::string(std::strerror(error));
    }
    return lseek(fd_, 0, SEEK_SET) < 0 ? std::optional(LastError()) : std::nullopt;
}

}  // namespace netsieve::tool
