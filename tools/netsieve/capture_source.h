// The bytes of a capture, from wherever they come.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "tools/netsieve/capture_format.h"

namespace netsieve::tool {

/// The bytes of a capture: a file, a pipe or standard input, with the first bytes looked at and put
/// back. Hands out a FILE for the capture library and can be taken back to its beginning.
class CaptureSource {
  public:
    CaptureSource() = default;
    ~CaptureSource();
    CaptureSource(const CaptureSource&) = delete;
    CaptureSource& operator=(const CaptureSource&) = delete;

    /// Opens `path` ("-" is standard input) and reads the file header. With `rewindable`, a source
    /// that cannot seek is first copied into an unlinked temporary file. Returns what went wrong,
    /// for a person, or nothing.
    std::optional<std::string> Open(const std::string& path, bool rewindable);

    /// A new stream over the whole source; the caller closes it, before the source goes. Null when
    /// memory is short. Only one stream may exist at a time, and a second one needs Rewind first.
    FILE* NewStream();

    /// Goes back to the first byte. Returns what went wrong, or nothing.
    std::optional<std::string> Rewind();

    const CaptureFormat& format() const { return format_; }
    bool IsEmpty() const { return peekedSize_ == 0; }

    /// Bytes taken out so far (buffers run ahead of the frames), and all there are when that can
    /// be known before the end.
    uint64_t position() const { return position_; }
    std::optional<uint64_t> size() const { return size_; }

    /// True if `path` names the very file that is being read, so that writing would destroy it.
    bool IsSameFile(const std::string& path) const;

  private:
    static ssize_t ReadCookie(void* cookie, char* buffer, size_t size);

    ssize_t Read(char* buffer, size_t size);
    std::optional<std::string> Peek();
    std::optional<std::string> Spool();
    void WidenSnapLength();

    int fd_ = -1;
    int64_t start_ = 0;  ///< standard input may already stand behind the file's beginning
    std::array<uint8_t, kFileHeaderSize> peeked_{};
    size_t peekedSize_ = 0;
    CaptureFormat format_;
    uint64_t position_ = 0;
    std::optional<uint64_t> size_;
    std::vector<char> streamBuffer_;
};

}  // namespace netsieve::tool
