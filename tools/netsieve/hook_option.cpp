#include "tools/netsieve/hook_option.h"

#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "client/exports.h"
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
    } kKinds[] = {{"drop", HookKind::kDrop},    {"count", HookKind::kCount},
                  {"log", HookKind::kLog},      {"delay", HookKind::kDelay},
                  {"hold", HookKind::kHold},    {"reply-arp", HookKind::kReplyArp},
                  {"driver", HookKind::kDriver}};
    for (const auto& entry : kKinds) {
        if (entry.word == word) {
            return entry.kind;
        }
    }
    Refuse(
        "{}: '{}' is no kind of hook; use drop:EXPR, count:EXPR, log, log:EXPR, delay:MS:EXPR, "
        "hold:EXPR:success, hold:EXPR:failure, reply-arp:IP=MAC or driver:PATH",
        text, word);
}

unsigned ParseClass(std::string_view digits, const HookOption& spec) {
    if (spec.kind == HookKind::kDriver) {
        Refuse("{}: a hook driver chooses its own priority; leave out @{}", spec.text, digits);
    }
    if (digits.size() != 1 || digits[0] < '0' || digits[0] > '0' + static_cast<int>(kLastClass)) {
        Refuse("{}: '{}' is no priority class; use 0 (first) to {} (last)", spec.text, digits,
               kLastClass);
    }
    return static_cast<unsigned>(digits[0] - '0');
}

void Compile(const std::string& expression, HookOption& spec) {
    auto filter = std::make_shared<FrameFilter>();
    if (const auto failure = filter->Compile(expression)) {
        Refuse("{}: the expression cannot be compiled: {}", spec.text, *failure);
    }
    spec.filter = std::move(filter);
}

/// The text before and after the last colon; an expression may have colons of its own.
std::pair<std::string, std::string> SplitAtLast(const std::string& text) {
    const std::size_t colon = text.rfind(':');
    return colon == text.npos ? std::pair(text, std::string())
                              : std::pair(text.substr(0, colon), text.substr(colon + 1));
}

/// Takes :overflow=WORD off the end of what is left of the hook's arguments.
void ParseOverflow(std::string& argument, HookOption& spec) {
    static constexpr std::string_view kWord = "overflow=";
    const auto [before, last] = SplitAtLast(argument);
    if (!last.starts_with(kWord)) {
        return;
    }
    const std::string choice = last.substr(kWord.size());
    if (choice != "drop" && choice != "pass") {
        Refuse("{}: '{}' is nothing to do with an overflow; use overflow=drop or overflow=pass",
               spec.text, choice);
    }
    spec.overflowDrops = choice == "drop";
    argument = before;
}

void ParseDelay(std::string argument, HookOption& spec) {
    constexpr std::uint32_t kLongest = 86'400'000;
    ParseOverflow(argument, spec);
    const std::size_t colon = argument.find(':');
    const std::string digits = argument.substr(0, colon);
    const auto [end, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), spec.delayMilliseconds);
    if (error != std::errc() || end != digits.data() + digits.size() ||
        spec.delayMilliseconds > kLongest) {
        Refuse("{}: '{}' is no delay; use delay:MS:EXPR with 0 to {} milliseconds", spec.text,
               digits, kLongest);
    }
    if (colon == argument.npos || colon + 1 == argument.size()) {
        Refuse("{}: the expression is missing after 'delay:{}:'", spec.text, digits);
    }
    Compile(argument.substr(colon + 1), spec);
}

void ParseHold(std::string argument, HookOption& spec) {
    ParseOverflow(argument, spec);
    const auto [expression, outcome] = SplitAtLast(argument);
    if (outcome != "success" && outcome != "failure") {
        Refuse("{}: how the frames end is missing; use hold:EXPR:success or hold:EXPR:failure",
               spec.text);
    }
    if (expression.empty()) {
        Refuse("{}: the expression is missing after 'hold:'", spec.text);
    }
    spec.releases = outcome == "success";
    Compile(expression, spec);
}

void ParseReplyArp(const std::string& argument, HookOption& spec) {
    const std::size_t equals = argument.find('=');
    const auto protocol = ParseIpv4(argument.substr(0, equals));
    const auto hardware =
        equals == argument.npos ? std::nullopt : ParseMac(argument.substr(equals + 1));
    if (!protocol || !hardware) {
        Refuse(
            "{}: '{}' is no answer; use reply-arp:IP=MAC, such as "
            "reply-arp:192.0.2.1=00:00:5e:00:53:01",
            spec.text, argument);
    }
    spec.answer = {*protocol, *hardware};
}

void ParseArgument(const std::string& argument, HookOption& spec) {
    switch (spec.kind) {
        case HookKind::kDelay:
            return ParseDelay(argument, spec);
        case HookKind::kHold:
            return ParseHold(argument, spec);
        case HookKind::kReplyArp:
            return ParseReplyArp(argument, spec);
        case HookKind::kDriver:
            spec.driverPath = argument;
            return;
        default:
            return Compile(argument, spec);
    }
}

/// The first bytes that tell a shared object from an image.
std::string ReadMagic(const HookOption& spec) {
    std::ifstream file(spec.driverPath, std::ios::binary);
    std::array<char, 4> magic{};
    if (!file || std::filesystem::is_directory(spec.driverPath)) {
        const int error = errno;
        Refuse("{}: cannot read the hook driver: {}", spec.text,
               file ? "it is a directory" : std::strerror(error));
    }
    file.read(magic.data(), magic.size());
    return {magic.data(), static_cast<std::size_t>(file.gcount())};
}

void CheckHookDriver(const HookOption& spec, const std::string& driver) {
    const std::string magic = ReadMagic(spec);
    const bool isObject = magic ==
                          "\x7F"
                          "ELF";
    const bool isImage = magic.starts_with("MZ");
    if (!isObject && !isImage) {
        Refuse("{}: the file is neither a shared object (.so) nor a driver image (.sys)",
               spec.text);
    }
    if (isImage && IsNative(driver)) {
        Refuse(
            "{}: the native driver cannot load a driver image; use the hook driver's shared "
            "object, or load the driver as an image with --driver",
            spec.text);
    }
    if (isObject && !IsNative(driver)) {
        Refuse(
            "{}: the driver image {} cannot load a shared object; use the hook driver's .sys, or "
            "use the native driver",
            spec.text, driver);
    }
}

}  // namespace

HookOption ParseHookOption(const std::string& text) {
    HookOption spec{.text = text};
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
               spec.kind == HookKind::kDriver     ? "the hook driver's path"
               : spec.kind == HookKind::kReplyArp ? "IP=MAC"
                                                  : "the expression",
               head);
    }
    if (!argument.empty()) {
        ParseArgument(argument, spec);
    }
    return spec;
}

void CheckHooks(const std::vector<HookOption>& hooks, const std::string& driver) {
    // One place stays free for the program's counting hook.
    if (hooks.size() >= HOOK_MODULE_LIMIT) {
        Refuse(
            "{} hooks are too many; of the {} that an adapter takes, one place is needed to count",
            hooks.size(), HOOK_MODULE_LIMIT);
    }
    for (auto hook = hooks.begin(); hook != hooks.end(); ++hook) {
        if (hook->kind != HookKind::kDriver) {
            continue;
        }
        CheckHookDriver(*hook, driver);
        for (auto other = hooks.begin(); other != hook; ++other) {
            if (other->kind == HookKind::kDriver &&
                std::filesystem::equivalent(other->driverPath, hook->driverPath)) {
                Refuse("{}: the hook driver is given twice; it can be loaded once", hook->text);
            }
        }
    }
}

}  // namespace netsieve::tool
