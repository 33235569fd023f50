#include "host/kernel/wide_text.h"

#include <iconv.h>

namespace netsieve::host {

namespace {

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

std::optional<std::u16string> WideFromUtf8(std::string_view text) {
    const auto bytes = Convert("UTF-16LE", "UTF-8", text);
    if (!bytes) {
        return std::nullopt;
    }
    return std::u16string(reinterpret_cast<const char16_t*>(bytes->data()),
                          bytes->size() / sizeof(char16_t));
}

}  // namespace netsieve::host
