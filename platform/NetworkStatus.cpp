#include "platform/NetworkStatus.h"

#include <charconv>
#include <fstream>
#include <limits>
#include <sstream>
#include <vector>

namespace ovalto::platform {

namespace {

std::vector<std::string_view> fields(std::string_view line) {
    std::vector<std::string_view> result;
    std::size_t at = 0;
    while (at < line.size()) {
        auto start = line.find_first_not_of(" \t", at);
        if (start == std::string_view::npos) break;
        auto end = line.find_first_of(" \t", start);
        if (end == std::string_view::npos) end = line.size();
        result.push_back(line.substr(start, end - start));
        at = end;
    }
    return result;
}

std::optional<unsigned long> number(std::string_view text, int base) {
    unsigned long value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    return value;
}

} // namespace

NetworkStatus NetworkStatus::fromRouteTable(std::string_view table) {
    constexpr unsigned long routeUp = 0x1; // RTF_UP
    NetworkStatus status;
    unsigned long bestMetric = std::numeric_limits<unsigned long>::max();
    bool header = true;
    while (!table.empty()) {
        auto newline = table.find('\n');
        auto line = table.substr(0, newline);
        table = newline == std::string_view::npos ? std::string_view{} : table.substr(newline + 1);
        if (header) { // column titles
            header = false;
            continue;
        }
        auto columns = fields(line);
        if (columns.size() < 8) continue;
        auto destination = number(columns[1], 16), flags = number(columns[3], 16),
             metric = number(columns[6], 10), mask = number(columns[7], 16);
        if (!destination || !flags || !metric || !mask) continue;
        if (*destination != 0 || *mask != 0 || !(*flags & routeUp) || *metric >= bestMetric) continue;
        bestMetric = *metric;
        status.reachable = true;
        status.interfaceName = std::string(columns[0]);
        status.isWWAN = columns[0].starts_with("ww");
    }
    return status;
}

NetworkStatus NetworkStatus::current() {
    std::ifstream file("/proc/net/route");
    std::ostringstream text;
    text << file.rdbuf();
    return fromRouteTable(text.str());
}

} // namespace ovalto::platform
