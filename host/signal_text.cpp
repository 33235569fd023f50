#include "host/signal_text.h"

#include <unistd.h>

#include <algorithm>
#include <iterator>

namespace netsieve::host {

SignalText& SignalText::operator<<(std::string_view text) {
    const std::size_t take = std::min(text.size(), buffer_.size() - size_);
    std::copy_n(text.begin(), take, buffer_.begin() + static_cast<std::ptrdiff_t>(size_));
    size_ += take;
    return *this;
}

SignalText& SignalText::operator<<(std::uint64_t number) {
    return Digits(number, 10);
}

SignalText& SignalText::Hex(std::uint64_t number) {
    return (*this << "0x").Digits(number, 16);
}

SignalText& SignalText::Hex(const void* address) {
    return Hex(reinterpret_cast<std::uintptr_t>(address));
}

SignalText& SignalText::Digits(std::uint64_t number, unsigned base) {
    char digits[20];
    char* at = std::end(digits);
    do {
        *--at = "0123456789abcdef"[number % base];
        number /= base;
    } while (number != 0);
    return *this << std::string_view(at, static_cast<std::size_t>(std::end(digits) - at));
}

void SignalText::Write(int descriptor) {
    std::size_t done = 0;
    while (done < size_) {
        const ssize_t written = write(descriptor, buffer_.data() + done, size_ - done);
        if (written <= 0) {
            break;
        }
        done += static_cast<std::size_t>(written);
    }
    size_ = 0;
}

}  // namespace netsieve::host
