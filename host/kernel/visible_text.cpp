#include "host/kernel/visible_text.h"

#include <fmt/format.h>

namespace netsieve::host {

std::string VisibleText(std::string_view text) {
    std::string visible;
    visible.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        // U+0080 to U+009F, which UTF-8 spells with this byte in front.
        constexpr unsigned char kLead = 0xC2;
        const bool second = i > 0 && static_cast<unsigned char>(text[i - 1]) == kLead;
        const bool control = byte < 0x20 || byte == 0x7F || (second && byte >= 0x80 && byte < 0xA0);
        if (control && byte != '\n' && byte != '\t') {
            if (second) {
                visible.pop_back();
            }
            visible += fmt::format("\\x{:02X}", byte);
        } else {
            visible += text[i];
        }
    }
    return visible;
}

}  // namespace netsieve::host
