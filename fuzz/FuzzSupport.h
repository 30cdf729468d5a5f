#pragma once

// Helpers shared by the libFuzzer targets: a failed invariant aborts with a message, so that
// libFuzzer records the input.

#include "PlayList/AttributeList.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace ovalto::fuzz {

[[noreturn]] inline void fail(const char* what, std::string_view detail = {}) {
    std::fprintf(stderr, "invariant broken: %s\n%.*s\n", what, static_cast<int>(detail.size()),
                 detail.data());
    std::abort();
}

inline void check(bool condition, const char* what, std::string_view detail = {}) {
    if (!condition) fail(what, detail);
}

inline std::vector<std::string_view> splitLines(std::string_view text) {
    std::vector<std::string_view> lines;
    for (std::size_t start = 0;;) {
        const auto end = text.find('\n', start);
        lines.push_back(text.substr(start, end - start));
        if (end == std::string_view::npos) return lines;
        start = end + 1;
    }
}

inline bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

// A quoted value that found its closing quote: "…" with no quote inside.
inline bool isClosedQuote(std::string_view value) {
    return value.size() >= 2 && value.front() == '"' && value.back() == '"' &&
           value.substr(1, value.size() - 2).find('"') == std::string_view::npos;
}

// A quoted value without its closing quote: it took the rest of its line.
inline bool isOpenQuote(std::string_view value) {
    return !value.empty() && value.front() == '"' && value.find('"', 1) == std::string_view::npos;
}

// Whether `list`, written back as name=value elements joined with ",", reads again as the same
// list. Names are read trimmed of commas, then of whitespace, so a name that still starts or ends
// with either would change; an open quote swallows everything after it, so it must come last;
// and when the written line is trimmed (`trimmedLine`), a last value ending in a blank would lose
// it.
inline bool roundTrips(const AttributeList& list, bool trimmedLine) {
    std::size_t position = 0;
    for (const auto& [name, value] : list) {
        ++position;
        if (!name.empty() &&
            (name.front() == ',' || name.back() == ',' || isSpace(name.front()) || isSpace(name.back())))
            return false;
        if (isOpenQuote(value) && position != list.size()) return false;
        if (trimmedLine && position == list.size() && !value.empty() &&
            (value.back() == ' ' || value.back() == '\t'))
            return false;
    }
    return true;
}

inline std::string written(const AttributeList& list) {
    std::string text;
    bool first = true;
    for (const auto& [name, value] : list) {
        if (!first) text += ',';
        first = false;
        text += name + "=" + value;
    }
    return text;
}

} // namespace ovalto::fuzz
