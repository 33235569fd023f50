#include "host/kernel/wide_text.h"

#include <iconv.h>

namespace netsieve::host {

namespace {

void AppendUtf8(std::string& text, char32_t point) {
    const unsigned trailing = point < 0x80 ? 0 : point < 0x800 ? 1 : point < 0x10000 ? 2 : 3;
    static constexpr unsigned char kLead[] = {0x00, 0xC0, 0xE0, 0xF0};
    text += static_cast<char>(kLead[trailing] | (point >> (6 * trailing)));
    for (unsigned left = trailing; left > 0; --left) {
        text += static_cast<char>(0x80 | ((point >> (6 * (left - 1))) & 0x3F));
    }
}

std::optional<std::string> Convert(const char* to, const char* from, std::string_view bytes) {
    const iconv_t converter = iconv_open(to, from);
    if (converter == reinterpret_cast<iconv_t>(-1)) {
        return std::nullopt;
    }
    std::string converted(bytes.size() * 2 + 4, '\0');  // no character grows by more
    char* input = const_cast<char*>(bytes.data());
    std::size_t inputLeft = bytes.size();
    char* output = converted.data();
    std::size_t outputLeft = converted.size();
    const bool whole =
        iconv(converter, &input, &inputLeft, &output, &outputLeft) != std::size_t(-1);
    iconv_close(converter);
    if (!whole) {
        return std::nullopt;
    }
    converted.resize(converted.size() - outputLeft);
    return converted;
}

}  // namespace

std::optional<std::string> Utf8FromWide(std::u16string_view wide) {
    return Convert("UTF-8", "UTF-16LE",
                   {reinterpret_cast<const char*>(wide.data()), wide.size() * sizeof(char16_t)});
}

std::string Utf8FromAnyWide(std::u16string_view wide) {
    const auto isHalf = [&](std::size_t i, unsigned first) {
        return i < wide.size() && wide[i] >= first && wide[i] < first + 0x400;
    };
    std::string text;
    for (std::size_t i = 0; i < wide.size(); ++i) {
        char32_t point = wide[i];
        if (isHalf(i, 0xD800) && isHalf(i + 1, 0xDC00)) {
            point = 0x10000 + ((point - 0xD800) << 10) + (wide[++i] - 0xDC00);
        } else if (isHalf(i, 0xD800) || isHalf(i, 0xDC00)) {
            point = 0xFFFD;
        }
        AppendUtf8(text, point);
    }
    return text;
}

std::optional<std::u16string> WideFromUtf8(std::string_view text) {
    const auto bytes = Convert("UTF-16LE", "UTF-8", text);
    if (!bytes) {
        return std::nullopt;
    }
    return std::u16string(reinterpret_cast<const char16_t*>(bytes->data()),
                          bytes->size() / sizeof(char16_t));
}

}  // namespace netsieve::host
