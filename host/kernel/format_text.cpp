#include "host/kernel/format_text.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "host/kernel/wide_text.h"

namespace netsieve::host {

namespace {

enum class Size : std::uint8_t { kNone, kChar, kShort, kLong, kLongLong };

/// One conversion: "%-8.*I64x" without its arguments.
struct Conversion {
    std::string flags;
    bool left = false;
    int width = 0;
    int precision = -1;
    Size size = Size::kNone;
    bool wide = false;  ///< the w prefix
    char letter = 0;
};

/// Takes arguments in order. Each has a place of eight bytes, whatever it is.
class Arguments {
  public:
    explicit Arguments(__builtin_ms_va_list list) : list_(list) {}
    std::uint64_t Next() { return __builtin_va_arg(list_, std::uint64_t); }
    int NextInt() { return static_cast<int>(Next()); }
    template <typename Value>
    const Value* NextPointer() {
        return reinterpret_cast<const Value*>(Next());
    }

  private:
    __builtin_ms_va_list list_;
};

/// A number in the format, or the argument that a star stands for.
int ParseNumber(const char*& at, Arguments& arguments) {
    if (*at == '*') {
        ++at;
        return arguments.NextInt();
    }
    int number = 0;
    for (constexpr int kMost = 100'000; *at >= '0' && *at <= '9'; ++at) {
        number = std::min(number * 10 + (*at - '0'), kMost);
    }
    return number;
}

Size ParseSize(const char*& at, bool& wide) {
    Size size = Size::kNone;
    for (;; ++at) {
        if (*at == 'h') {
            size = size == Size::kShort ? Size::kChar : Size::kShort;
        } else if (*at == 'l') {
            size = size == Size::kLong ? Size::kLongLong : Size::kLong;
        } else if (*at == 'w') {
            wide = true;
        } else if (*at == 'I') {
            const std::string_view bits(at + 1, std::strlen(at + 1));
            const bool narrow = bits.starts_with("32");
            at += narrow || bits.starts_with("64") ? 2 : 0;
            size = narrow ? Size::kLong : Size::kLongLong;
        } else if (*at != 'L') {
            return size;
        }
    }
}

/// `at` stands behind the percent sign, and behind the conversion afterwards.
Conversion Parse(const char*& at, Arguments& arguments) {
    Conversion conversion;
    for (; *at != '\0' && std::strchr("-+ #0", *at) != nullptr; ++at) {
        conversion.flags += *at;
        conversion.left = conversion.left || *at == '-';
    }
    conversion.width = ParseNumber(at, arguments);
    if (conversion.width < 0) {
        conversion.flags += '-';
        conversion.left = true;
        conversion.width = -conversion.width;
    }
    if (*at == '.') {
        conversion.precision = ParseNumber(++at, arguments);
    }
    conversion.size = ParseSize(at, conversion.wide);
    conversion.letter = *at;
    at += *at == '\0' ? 0 : 1;
    return conversion;
}

std::string Pad(std::string text, const Conversion& conversion) {
    const auto width = static_cast<std::size_t>(conversion.width);
    if (text.size() < width) {
        text.insert(conversion.left ? text.size() : 0, width - text.size(), ' ');
    }
    return text;
}

// A single l is 32 bits on the platform.
std::uint64_t Narrow(std::uint64_t value, Size size, bool isSigned) {
    const unsigned bits = size == Size::kChar       ? 8
                          : size == Size::kShort    ? 16
                          : size == Size::kLongLong ? 64
                                                    : 32;
    const unsigned unused = 64 - bits;
    return isSigned
               ? static_cast<std::uint64_t>(static_cast<std::int64_t>(value << unused) >> unused)
               : value << unused >> unused;
}

std::string Number(const Conversion& conversion, std::uint64_t value) {
    const bool isSigned = conversion.letter == 'd' || conversion.letter == 'i';
    const std::string format = "%" + conversion.flags + "*.*ll" + conversion.letter;
    const unsigned long long narrowed = Narrow(value, conversion.size, isSigned);
    const auto print = [&](char* to, std::size_t size) {
        return static_cast<std::size_t>(std::snprintf(to, size, format.c_str(), conversion.width,
                                                      conversion.precision, narrowed));
    };
    std::string text(print(nullptr, 0), '\0');
    print(text.data(), text.size() + 1);
    return text;
}

bool IsWide(const Conversion& conversion) {
    if (conversion.size == Size::kShort) {
        return false;
    }
    return conversion.wide || conversion.size == Size::kLong || conversion.letter == 'S' ||
           conversion.letter == 'C';
}

/// The characters of a string with an end mark, or as many as the precision allows to be read.
template <typename Character>
std::basic_string_view<Character> Terminated(const Character* text, int precision) {
    std::size_t size = 0;
    while ((precision < 0 || size < static_cast<std::size_t>(precision)) && text[size] != 0) {
        ++size;
    }
    return {text, size};
}

std::string String(const Conversion& conversion, const void* text) {
    if (text == nullptr) {
        return Pad("(null)", conversion);
    }
    if (IsWide(conversion)) {
        return Pad(
            Utf8FromAnyWide(Terminated(static_cast<const char16_t*>(text), conversion.precision)),
            conversion);
    }
    return Pad(std::string(Terminated(static_cast<const char*>(text), conversion.precision)),
               conversion);
}

/// ANSI_STRING and UNICODE_STRING have the same layout; their lengths are in bytes.
std::string CountedString(const Conversion& conversion, const UNICODE_STRING* text) {
    if (text == nullptr || text->Buffer == nullptr) {
        return Pad("(null)", conversion);
    }
    const std::size_t most =
        conversion.precision < 0 ? ~std::size_t{0} : static_cast<std::size_t>(conversion.precision);
    if (IsWide(conversion)) {
        return Pad(Utf8FromAnyWide({text->Buffer, std::min(text->Length / sizeof(WCHAR), most)}),
                   conversion);
    }
    return Pad(
        {reinterpret_cast<const char*>(text->Buffer), std::min<std::size_t>(text->Length, most)},
        conversion);
}

std::string Character(const Conversion& conversion, std::uint64_t value) {
    if (IsWide(conversion)) {
        const auto character = static_cast<char16_t>(value);
        return Pad(Utf8FromAnyWide({&character, 1}), conversion);
    }
    return Pad(std::string(1, static_cast<char>(value)), conversion);
}

std::string Pointer(const Conversion& conversion, std::uint64_t value) {
    char digits[17];
    std::snprintf(digits, sizeof(digits), "%016llX", static_cast<unsigned long long>(value));
    return Pad(digits, conversion);
}

/// A letter that the kernel cannot print, as are those of floating point, takes its argument too.
std::string Convert(const Conversion& conversion, std::string_view spelling, Arguments& arguments) {
    switch (conversion.letter) {
        case 'd':
        case 'i':
        case 'o':
        case 'u':
        case 'x':
        case 'X':
            return Number(conversion, arguments.Next());
        case 'c':
        case 'C':
            return Character(conversion, arguments.Next());
        case 's':
        case 'S':
            return String(conversion, arguments.NextPointer<void>());
        case 'Z':
            return CountedString(conversion, arguments.NextPointer<UNICODE_STRING>());
        case 'p':
            return Pointer(conversion, arguments.Next());
        case '%':
            return "%";
        case '\0':
            return std::string(spelling);
        default:
            arguments.Next();
            return std::string(spelling);
    }
}

}  // namespace

FormattedText FormatText(const char* format, __builtin_ms_va_list list) {
    Arguments arguments(list);
    FormattedText result;
    for (const char* at = format; *at != '\0';) {
        if (*at != '%') {
            result.text += *at++;
            continue;
        }
        const char* const start = at++;
        const Conversion conversion = Parse(at, arguments);
        const std::string_view spelling(start, static_cast<std::size_t>(at - start));
        result.text += Convert(conversion, spelling, arguments);
        result.wide = result.wide ||
                      (std::strchr("cCsSZ", conversion.letter) != nullptr && IsWide(conversion));
    }
    return result;
}

}  // namespace netsieve::host
