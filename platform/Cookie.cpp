#include "platform/Cookie.h"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <mutex>

namespace ovalto::platform {

namespace {

using Clock = std::chrono::system_clock;

std::string lowered(std::string_view text) {
    std::string out(text);
    for (char& c : out)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
        text.remove_suffix(1);
    return text;
}

bool isTokenChar(unsigned char c) {
    return c > 0x20 && c < 0x7f &&
           std::string_view("()<>@,;:\\\"/[]?={}").find(static_cast<char>(c)) == std::string_view::npos;
}

// Repeated "Set-Cookie" fields arrive joined with ", ", and "Expires" dates contain ", " too
// ("Expires=Wed, 21 Oct 2037 …"): a comma continues the cookie only inside an Expires value
// and when no "name=" follows it; every other comma starts a new piece.
std::vector<std::string_view> splitJoinedCookies(std::string_view joined) {
    std::vector<std::string_view> parts;
    std::size_t start = 0;
    std::size_t attribute = 0; // where the current attribute begins
    for (std::size_t i = 0; i < joined.size(); ++i) {
        if (joined[i] == ';') attribute = i + 1;
        if (joined[i] != ',') continue;
        std::size_t j = i + 1;
        while (j < joined.size() && joined[j] == ' ')
            ++j;
        std::size_t k = j;
        while (k < joined.size() && isTokenChar(static_cast<unsigned char>(joined[k])))
            ++k;
        const bool nameFollows = k > j && k < joined.size() && joined[k] == '=';
        std::string_view current = joined.substr(attribute, i - attribute);
        while (!current.empty() && current.front() == ' ')
            current.remove_prefix(1);
        constexpr std::string_view expires = "expires=";
        const bool inExpires =
            current.size() >= expires.size() &&
            std::equal(expires.begin(), expires.end(), current.begin(),
                       [](char a, char b) { return a == std::tolower(static_cast<unsigned char>(b)); }) &&
            current.find(',') == std::string_view::npos;
        if (nameFollows || !inExpires) {
            parts.push_back(joined.substr(start, i - start));
            start = j;
            attribute = j;
        }
    }
    parts.push_back(joined.substr(start));
    return parts;
}

// The directory of the request path, the default path of a cookie set without one.
std::string defaultPath(const Url& url) {
    const std::string path = url.path();
    if (path.empty() || path.front() != '/') return "/";
    const auto slash = path.rfind('/');
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool domainMatches(const std::string& host, const std::string& domain) {
    return host == domain || (host.size() > domain.size() && host.ends_with(domain) &&
                              host[host.size() - domain.size() - 1] == '.');
}

bool pathMatches(std::string_view requestPath, std::string_view cookiePath) {
    if (requestPath.empty()) requestPath = "/";
    if (requestPath == cookiePath) return true;
    return requestPath.starts_with(cookiePath) &&
           (cookiePath.ends_with('/') || requestPath[cookiePath.size()] == '/');
}

bool isExpired(const Cookie& cookie, Clock::time_point now) {
    return cookie.expires && *cookie.expires <= now;
}

std::optional<Cookie> parseSetCookie(std::string_view text, const Url& url) {
    std::vector<std::string_view> pieces;
    for (std::size_t start = 0;;) {
        const auto semicolon = text.find(';', start);
        pieces.push_back(
            trimmed(text.substr(start, semicolon == std::string_view::npos ? semicolon : semicolon - start)));
        if (semicolon == std::string_view::npos) break;
        start = semicolon + 1;
    }
    const auto equals = pieces.front().find('=');
    if (equals == std::string_view::npos) return std::nullopt;
    auto value = trimmed(pieces.front().substr(equals + 1));
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
        value = value.substr(1, value.size() - 2);
    auto cookie = Cookie::make(std::string(trimmed(pieces.front().substr(0, equals))), std::string(value));
    if (!cookie) return std::nullopt;

    const std::string host = lowered(url.host().value_or(""));
    cookie->domain = host;
    cookie->path = defaultPath(url);
    std::optional<Clock::time_point> maxAgeExpiry;
    for (std::size_t i = 1; i < pieces.size(); ++i) {
        const auto attributeEquals = pieces[i].find('=');
        const std::string name = lowered(trimmed(pieces[i].substr(0, attributeEquals)));
        const std::string_view argument = attributeEquals == std::string_view::npos
                                              ? std::string_view()
                                              : trimmed(pieces[i].substr(attributeEquals + 1));
        if (name == "domain" && !argument.empty()) {
            std::string domain = lowered(argument);
            if (domain.front() == '.') domain.erase(0, 1);
            // A server may not set cookies for a domain its host does not belong to.
            if (domain.empty() || !domainMatches(host, domain)) return std::nullopt;
            cookie->domain = "." + domain;
        } else if (name == "path" && argument.starts_with('/')) {
            cookie->path = std::string(argument);
        } else if (name == "max-age") {
            long long seconds = 0;
            auto [end, error] = std::from_chars(argument.data(), argument.data() + argument.size(), seconds);
            if (error == std::errc() && end == argument.data() + argument.size()) {
                seconds = std::clamp(seconds, -1LL, 100LL * 365 * 24 * 3600);
                maxAgeExpiry =
                    seconds <= 0 ? Clock::time_point{} : Clock::now() + std::chrono::seconds(seconds);
            }
        } else if (name == "expires") {
            const std::string date(argument);
            const time_t when = curl_getdate(date.c_str(), nullptr);
            if (when != -1) cookie->expires = Clock::from_time_t(when);
        } else if (name == "secure") {
            cookie->secure = true;
        } else if (name == "httponly") {
            cookie->httpOnly = true;
        }
    }
    // Max-Age wins over Expires.
    if (maxAgeExpiry) cookie->expires = maxAgeExpiry;
    return cookie;
}

} // namespace

std::optional<Cookie> Cookie::make(std::string name, std::string value, std::string domain,
                                   std::string path) {
    // Names are taken as given (a blank included, as a "Cookie" header piece may carry one);
    // only what cannot be written back into a header is refused.
    if (name.empty() || std::any_of(name.begin(), name.end(), [](char c) {
            const auto u = static_cast<unsigned char>(c);
            return u < 0x20 || u == 0x7f || c == '=' || c == ';';
        }))
        return std::nullopt;
    if (std::any_of(value.begin(), value.end(), [](char c) {
            const auto u = static_cast<unsigned char>(c);
            return u < 0x20 || u == 0x7f || c == ';';
        }))
        return std::nullopt;
    Cookie cookie;
    cookie.name = std::move(name);
    cookie.value = std::move(value);
    cookie.domain = std::move(domain);
    cookie.path = path.empty() ? "/" : std::move(path);
    return cookie;
}

std::vector<Cookie> Cookie::cookies(const HeaderFields& headers, const Url& url) {
    std::vector<Cookie> result;
    const auto joined = headers.value("Set-Cookie");
    if (!joined) return result;
    for (const auto text : splitJoinedCookies(*joined)) {
        if (auto cookie = parseSetCookie(text, url)) result.push_back(std::move(*cookie));
    }
    return result;
}

std::string Cookie::headerValue(std::string_view written, const std::vector<Cookie>& more) {
    std::string header;
    std::vector<std::string_view> names;
    const auto add = [&](std::string_view name, std::string_view piece) {
        if (std::find(names.begin(), names.end(), name) != names.end()) return;
        names.push_back(name);
        if (!header.empty()) header += "; ";
        header += piece;
    };
    for (std::size_t start = 0; start <= written.size();) {
        auto end = written.find(';', start);
        if (end == std::string_view::npos) end = written.size();
        const auto piece = trimmed(written.substr(start, end - start));
        // A piece without "=" is sent as written; its whole text names it.
        if (!piece.empty()) add(trimmed(piece.substr(0, piece.find('='))), piece);
        start = end + 1;
    }
    std::vector<std::string> pieces; // `names` refers into them
    pieces.reserve(more.size());
    for (const auto& cookie : more) {
        const auto name = trimmed(cookie.name);
        pieces.push_back(std::string(name) + "=" + cookie.value);
        add(std::string_view(pieces.back()).substr(0, name.size()), pieces.back());
    }
    return header;
}

bool Cookie::matches(const Url& url) const {
    if (!domain.empty()) {
        const std::string host = lowered(url.host().value_or(""));
        const std::string wanted = lowered(domain);
        // A leading dot marks a domain cookie, which subdomains see too; otherwise the host must match.
        if (wanted.front() == '.' ? !domainMatches(host, wanted.substr(1)) : host != wanted) return false;
    }
    if (secure && !url.hasScheme("https")) return false;
    const std::string requestPath = url.path();
    return pathMatches(requestPath, path);
}

struct CookieStorage::Impl {
    mutable std::mutex mutex;
    std::vector<Cookie> cookies; // in the order they were stored
};

CookieStorage::CookieStorage()
    : impl_(std::make_shared<Impl>()) {}

CookieStorage& CookieStorage::shared() {
    static CookieStorage storage;
    return storage;
}

void CookieStorage::setCookies(const std::vector<Cookie>& cookies, const Url& url) {
    const auto now = Clock::now();
    std::lock_guard lock(impl_->mutex);
    for (Cookie cookie : cookies) {
        if (cookie.domain.empty()) {
            if (!url.host()) continue;
            cookie.domain = lowered(*url.host());
        }
        // A cookie replaces the one with the same name, domain and path; an expired one just removes it.
        std::erase_if(impl_->cookies, [&](const Cookie& stored) {
            return stored.name == cookie.name && lowered(stored.domain) == lowered(cookie.domain) &&
                   stored.path == cookie.path;
        });
        if (!isExpired(cookie, now)) impl_->cookies.push_back(std::move(cookie));
    }
}

std::vector<Cookie> CookieStorage::cookies(const Url& url) const {
    const auto now = Clock::now();
    std::vector<Cookie> result;
    {
        std::lock_guard lock(impl_->mutex);
        for (const auto& cookie : impl_->cookies) {
            if (!isExpired(cookie, now) && cookie.matches(url)) result.push_back(cookie);
        }
    }
    // More specific paths first, as user agents send them.
    std::stable_sort(result.begin(), result.end(),
                     [](const Cookie& a, const Cookie& b) { return a.path.size() > b.path.size(); });
    return result;
}

std::string CookieStorage::headerValue(const Url& url, std::string_view written) const {
    return Cookie::headerValue(written, cookies(url));
}

void CookieStorage::removeAll() {
    std::lock_guard lock(impl_->mutex);
    impl_->cookies.clear();
}

} // namespace ovalto::platform
