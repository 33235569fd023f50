#include "tests/verifier/check_calls.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

namespace netsieve::host {

namespace {

/// A source with blanks in place of comments and of what is between quotes.
std::string ReadCode(const std::filesystem::path& path) {
    std::stringstream stream;
    stream << std::ifstream(path).rdbuf();
    std::string text = stream.str();
    static const std::regex kNoCode(R"re(//[^\n]*|"(\\.|[^"\\\n])*"|'(\\.|[^'\\\n])')re");
    for (auto it = std::sregex_iterator(text.begin(), text.end(), kNoCode);
         it != std::sregex_iterator(); ++it) {
        std::fill_n(text.begin() + it->position(), it->length(), ' ');
    }
    return text;
}

std::size_t ClosingParenthesis(const std::string& text, std::size_t opening) {
    int depth = 0;
    std::size_t at = opening;
    do {
        depth += text[at] == '(' ? 1 : text[at] == ')' ? -1 : 0;
    } while (depth != 0 && ++at < text.size());
    return at;
}

int LineOf(const std::string& text, std::size_t at) {
    return 1 + static_cast<int>(
                   std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(at), '\n'));
}

std::set<std::string> NamesThatTakeASite(const std::string& text) {
    static const std::regex kDeclaration(
        R"((\w+)\((?:[^;{]|\{\})*?CheckSite site = CheckSite::Here\(\))");
    std::set<std::string> names;
    for (auto it = std::sregex_iterator(text.begin(), text.end(), kDeclaration);
         it != std::sregex_iterator(); ++it) {
        names.insert((*it)[1]);
    }
    return names;
}

}  // namespace

std::vector<CheckCall> FindCheckCalls(const std::string& tree) {
    std::map<std::string, std::string> sources;
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(tree + "/host")) {
        const std::filesystem::path& path = entry.path();
        if (path.extension() == ".h" || path.extension() == ".cpp") {
            std::string& text = sources[path.lexically_relative(tree).generic_string()];
            text = ReadCode(path);
            names.merge(NamesThatTakeASite(text));
        }
    }
    static const std::regex kCall(R"(\b(\w+)\()");
    static const std::regex kHandsOn(R"(,\s*site\)$)");
    std::vector<CheckCall> calls;
    for (const auto& [file, text] : sources) {
        for (auto it = std::sregex_iterator(text.begin(), text.end(), kCall);
             it != std::sregex_iterator(); ++it) {
            const auto begin = static_cast<std::size_t>(it->position());
            const std::size_t end = ClosingParenthesis(text, begin + (*it)[1].length());
            const std::string call = text.substr(begin, end + 1 - begin);
            const bool declares = call.find("CheckSite site") != std::string::npos;
            const bool handsOn = std::regex_search(call, kHandsOn);
            if (names.contains((*it)[1]) && !declares && !handsOn) {
                const std::size_t statement = text.find_last_of(";{}", begin);
                const std::size_t first = text.find_first_not_of(" \n", statement + 1);
                calls.push_back({file, LineOf(text, first), LineOf(text, end), call});
            }
        }
    }
    return calls;
}

}  // namespace netsieve::host
