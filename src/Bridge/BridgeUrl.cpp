#include "Bridge/BridgeUrl.h"

#include "Resources/ResourceType.h"

#include <algorithm>

namespace ovalto {

namespace {

constexpr std::string_view schemeSeparator = "://";

// The scheme of an absolute URI written as "<scheme>://…" when it is one of the loader's.
std::optional<std::string_view> resourceScheme(std::string_view uri) {
    auto end = uri.find(schemeSeparator);
    if (end == std::string_view::npos) return std::nullopt;
    auto scheme = uri.substr(0, end);
    if (!ResourceType::fromRawValue(scheme)) return std::nullopt;
    return scheme;
}

std::string mapped(std::string_view uri, std::string_view origin) {
    auto target = BridgeUrl::target(uri);
    return target ? std::string(origin) + *target : std::string(uri);
}

// Rewrites every URI="…" attribute of a tag line.
void mapAttributes(std::string_view line, std::string_view origin, std::string& out) {
    constexpr std::string_view key = "URI=\"";
    std::size_t at = 0;
    while (true) {
        auto found = line.find(key, at);
        // A match inside another attribute's name (…XURI=") is not this attribute.
        while (found != std::string_view::npos && found > 0 && line[found - 1] != ':' &&
               line[found - 1] != ',')
            found = line.find(key, found + 1);
        if (found == std::string_view::npos) break;
        auto valueBegin = found + key.size();
        auto valueEnd = line.find('"', valueBegin);
        if (valueEnd == std::string_view::npos) break;
        out.append(line.substr(at, valueBegin - at));
        out += mapped(line.substr(valueBegin, valueEnd - valueBegin), origin);
        at = valueEnd;
    }
    out.append(line.substr(at));
}

} // namespace

std::optional<std::string> BridgeUrl::target(std::string_view resourceUrl) {
    auto scheme = resourceScheme(resourceUrl);
    if (!scheme) return std::nullopt;
    // Blanks and control characters belong to no URL; such text is left as it was written.
    if (std::any_of(resourceUrl.begin(), resourceUrl.end(),
                    [](char c) { return static_cast<unsigned char>(c) <= 0x20 || c == 0x7f; }))
        return std::nullopt;
    auto rest = resourceUrl.substr(scheme->size() + schemeSeparator.size());
    rest = rest.substr(0, rest.find('#'));
    auto hostEnd = rest.find_first_of("/?");
    auto host = rest.substr(0, hostEnd);
    if (host.empty()) return std::nullopt;
    std::string target = "/";
    target.append(*scheme).append("/").append(host);
    if (hostEnd != std::string_view::npos) {
        // "ckey://k?x" has a query but no path: keep the slash that separates host and path.
        if (rest[hostEnd] == '?') target += '/';
        target.append(rest.substr(hostEnd));
    }
    return target;
}

std::optional<platform::Url> BridgeUrl::resource(std::string_view target) {
    // A request target carries no fragment, and one that did could not come back from target().
    if (target.empty() || target.front() != '/' || target.find('#') != std::string_view::npos)
        return std::nullopt;
    target.remove_prefix(1);
    auto schemeEnd = target.find('/');
    if (schemeEnd == std::string_view::npos) return std::nullopt;
    auto scheme = target.substr(0, schemeEnd);
    if (!ResourceType::fromRawValue(scheme)) return std::nullopt;
    auto rest = target.substr(schemeEnd + 1);
    auto hostEnd = rest.find_first_of("/?");
    auto host = rest.substr(0, hostEnd);
    if (host.empty()) return std::nullopt;
    std::string url(scheme);
    url.append(schemeSeparator).append(host);
    if (hostEnd != std::string_view::npos) {
        auto tail = rest.substr(hostEnd);
        // "/ckey/k/?x" came from "ckey://k?x".
        if (tail.size() >= 2 && tail[0] == '/' && tail[1] == '?') tail.remove_prefix(1);
        url.append(tail);
    }
    auto parsed = platform::Url::parse(url);
    if (!parsed || parsed->scheme() != scheme || !parsed->host()) return std::nullopt;
    return parsed;
}

std::string BridgeUrl::mapPlaylist(std::string_view playlist, std::string_view origin) {
    std::string out;
    out.reserve(playlist.size() + playlist.size() / 4);
    while (!playlist.empty()) {
        auto end = playlist.find('\n');
        auto line = playlist.substr(0, end);
        auto newline = end == std::string_view::npos ? std::string_view() : playlist.substr(end, 1);
        playlist = end == std::string_view::npos ? std::string_view() : playlist.substr(end + 1);
        std::string_view carriageReturn;
        if (!line.empty() && line.back() == '\r') {
            carriageReturn = line.substr(line.size() - 1);
            line.remove_suffix(1);
        }
        if (line.starts_with("#")) {
            mapAttributes(line, origin, out);
        } else {
            auto begin = line.find_first_not_of(" \t");
            auto last = line.find_last_not_of(" \t");
            if (begin == std::string_view::npos) {
                out.append(line);
            } else {
                out.append(line.substr(0, begin));
                out += mapped(line.substr(begin, last + 1 - begin), origin);
                out.append(line.substr(last + 1));
            }
        }
        out.append(carriageReturn).append(newline);
    }
    return out;
}

} // namespace ovalto
