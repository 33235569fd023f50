#include "tools/netsieve/hook_spec.h"

#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string_view>

#include "hook/exports.h"
#include "tools/netsieve/driver_exports.h"

namespace netsieve::tool {
namespace {

constexpr unsigned kLastClass = HOOK_CLASS_3 + 1;

template <typename... Args>
[[noreturn]] void Refuse(fmt::format_string<Args...> format, Args&&... args) {
    throw std::invalid_argument(fmt::format(format, std::forward<Args>(args)...));
}

HookKind ParseKind(std::string_view word, const std::string& text) {
    static constexpr struct {
        std::string_view word;
        HookKind kind;
    } kKinds[] = {{"drop", HookKind::kDrop},
                  {"count", HookKind::kCount},
                  {"log", HookKind::kLog},
                  {"module", HookKind::kModule}};
    for (const auto& entry : kKinds) {
        if (entry.word == word) {
            return entry.kind;
        }
    }
    Refuse("{}: '{}' is no kind of hook; use drop:EXPR, count:EXPR, log, log:EXPR or module:PATH",
           text, word);
}

unsigned ParseClass(std::string_view digits, const HookSpec& spec) {
    if (spec.kind == HookKind::kModule) {
        Refuse("{}: a module chooses its own priority; leave out @{}", spec.text, digits);
    }
    if (digits.size() != 1 || digits[0] < '0' || digits[0] > '0' + static_cast<int>(kLastClass)) {
        Refuse("{}: '{}' is no priority class; use 0 (first) to {} (last)", spec.text, digits,
               kLastClass);
    }
    return static_cast<unsigned>(digits[0] - '0');
}

void Compile(const std::string& expression, HookSpec& spec) {
    auto filter = std::make_shared<FrameFilter>();
    if (const auto failure = filter->Compile(expression)) {
        Refuse("{}: the expression cannot be compiled: {}", spec.text, *failure);
    }
    spec.filter = std::move(filter);
}

/// The first bytes that tell a shared object from an image.
std::string ReadMagic(const HookSpec& spec) {
    std::ifstream file(spec.modulePath, std::ios::binary);
    std::array<char, 4> magic{};
    if (!file || std::filesystem::is_directory(spec.modulePath)) {
        const int error = errno;
        Refuse("{}: cannot read the module: {}", spec.text,
               file ? "it is a directory" : std::strerror(error));
    }
    file.read(magic.data(), magic.size());
    return {magic.data(), static_cast<std::size_t>(file.gcount())};
}

void CheckModule(const HookSpec& spec, const std::string& driver) {
    const std::string magic = ReadMagic(spec);
    const bool isObject = magic ==
                          "\x7F"
                          "ELF";
    const bool isImage = magic.starts_with("MZ");
    if (!isObject && !isImage) {
        Refuse("{}: the module is neither a shared object (.so) nor a driver image (.sys)",
               spec.text);
    }
    if (isImage && IsNative(driver)) {
        Refuse(
            "{}: the native driver cannot take a driver image; give it the module's shared "
            "object, or load the driver as an image with --driver",
            spec.text);
    }
    if (isObject && !IsNative(driver)) {
        Refuse(
            "{}: the driver image {} cannot take a shared object; give it the module's .sys, or "
            "use the native driver",
            spec.text, driver);
    }
}

}  // namespace

HookSpec ParseHookSpec(const std::string& text) {
    HookSpec spec{.text = text};
    const std::size_t colon = text.find(':');
    const std::string_view head = std::string_view(text).substr(0, colon);
    const std::string argument = colon == text.npos ? std::string() : text.substr(colon + 1);
    const std::size_t at = head.find('@');
    spec.kind = ParseKind(head.substr(0, at), text);
    if (at != head.npos) {
        spec.priorityClass = ParseClass(head.substr(at + 1), spec);
    }
    if (argument.empty() && (spec.kind != HookKind::kLog || colon != text.npos)) {
        Refuse("{}: {} is missing after '{}:'", text,
               spec.kind == HookKind::kModule ? "the module's path" : "the expression", head);
    }
    if (spec.kind == HookKind::kModule) {
        spec.modulePath = argument;
    } else if (!argument.empty()) {
        Compile(argument, spec);
    }
    return spec;
}

void CheckHooks(const std::vector<HookSpec>& hooks, const std::string& driver) {
    // One place stays free for the hook that watches on the program's own account.
    if (hooks.size() >= HOOK_MODULE_LIMIT) {
        Refuse("{} hooks are too many; an adapter takes {}", hooks.size(), HOOK_MODULE_LIMIT - 1);
    }
    for (auto hook = hooks.begin(); hook != hooks.end(); ++hook) {
        if (hook->kind != HookKind::kModule) {
            continue;
        }
        CheckModule(*hook, driver);
        for (auto other = hooks.begin(); other != hook; ++other) {
            if (other->kind == HookKind::kModule &&
                std::filesystem::equivalent(other->modulePath, hook->modulePath)) {
                Refuse("{}: the module is given twice; it can be loaded once", hook->text);
            }
        }
    }
}

}  // namespace netsieve::tool
