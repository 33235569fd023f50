// The kernel's formatting against the C library's, where they agree by definition: d i u o x X c s
// and %% with flags, width, precision and sizes of 16, 32 and 64 bits.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "host/machine.h"

extern "C" int NTAPI NetsieveRuntime_sprintf(char* buffer, const char* format, ...);

namespace {

class Bytes {
  public:
    Bytes(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
    std::uint8_t Take() { return size_ == 0 ? 0 : (--size_, *data_++); }
    std::uint64_t Take64() {
        std::uint64_t value = 0;
        for (int i = 0; i < 8; ++i) {
            value = value << 8 | Take();
        }
        return value;
    }

  private:
    const std::uint8_t* data_;
    std::size_t size_;
};

// A precision of its own only where one is asked for: C leaves the flag 0 without meaning then.
std::string Specification(Bytes& bytes) {
    std::string text = "%";
    const std::uint8_t flags = bytes.Take();
    for (int bit = 0; bit < 4; ++bit) {
        text += (flags >> bit & 1) != 0 ? std::string(1, "-+ #"[bit]) : "";
    }
    const std::uint8_t shape = bytes.Take();
    if ((shape & 1) != 0) {
        text += std::to_string(1 + shape / 4 % 20);
    }
    if ((shape & 2) != 0) {
        text += "." + std::to_string(shape / 8 % 20);
    }
    return text;
}

void Compare(const std::string& format, std::uint64_t value) {
    char ours[128];
    char theirs[128];
    const int length = NetsieveRuntime_sprintf(ours, format.c_str(), value);
    std::string c = format;  // a single l is 32 bits wide there, and I64 is ll
    if (const std::size_t at = c.find("I64"); at != std::string::npos) {
        c.replace(at, 3, "ll");
    } else if (const std::size_t l = c.find('l'); l != std::string::npos) {
        c.erase(l, 1);
    }
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wformat-nonliteral"
#pragma clang diagnostic ignored "-Wformat-security"
    const int expected = std::snprintf(theirs, sizeof(theirs), c.c_str(), value);
#pragma clang diagnostic pop
    if (length != expected || std::strcmp(ours, theirs) != 0) {
        std::fprintf(stderr, "%s of %llx: '%s' (%d), and '%s' (%d) by the C library\n",
                     format.c_str(), static_cast<unsigned long long>(value), ours, length, theirs,
                     expected);
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static netsieve::host::Machine machine;
    Bytes bytes(data, size);
    const std::string specification = Specification(bytes);
    const char* const sizes[] = {"", "h", "l", "I64"};
    const char conversion = "diuoxX"[bytes.Take() % 6];
    Compare("[" + specification + sizes[bytes.Take() % 4] + conversion + "]", bytes.Take64());
    char string[24] = {};
    std::generate_n(string, sizeof(string) - 1, [&] { return static_cast<char>(bytes.Take()); });
    if (specification.find_first_of("+ #") == std::string::npos) {
        Compare("[" + specification + "s]", reinterpret_cast<std::uint64_t>(string));
        Compare("[%%" + specification.substr(0, specification.find('.')) + "c]",
                'a' + string[0] % 26);
    }
    return 0;
}
