// Text that a signal handler can put together.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace netsieve::host {

/// A text of bounded length, built without allocating, locking or formatting routines. What does
/// not fit is cut off.
class SignalText {
  public:
    SignalText& operator<<(std::string_view text);
    /// In decimal.
    SignalText& operator<<(std::uint64_t number);
    /// "0x7f00".
    SignalText& Hex(std::uint64_t number);
    SignalText& Hex(const void* address);

    std::string_view View() const { return {buffer_.data(), size_}; }
    /// Writes it to a file descriptor and empties it.
    void Write(int descriptor);

  private:
    SignalText& Digits(std::uint64_t number, unsigned base);

    std::array<char, 2048> buffer_{};
    std::size_t size_ = 0;
};

}  // namespace netsieve::host
