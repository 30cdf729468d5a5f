#include "platform/Url.h"

#include <uriparser/Uri.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <vector>

namespace ovalto::platform {

namespace {

// Owns the members that uriparser allocates for one parsed URI.
class UriHolder {
public:
    UriHolder() = default;
    ~UriHolder() {
        if (owned_) uriFreeUriMembersA(&uri_);
    }
    UriHolder(const UriHolder&) = delete;
    UriHolder& operator=(const UriHolder&) = delete;

    bool parse(std::string_view text) {
        const char* error = nullptr;
        owned_ = uriParseSingleUriExA(&uri_, text.data(), text.data() + text.size(), &error) == URI_SUCCESS;
        return owned_;
    }
    bool resolve(const UriHolder& reference, const UriHolder& base) {
        owned_ = uriAddBaseUriA(&uri_, &reference.uri_, &base.uri_) == URI_SUCCESS;
        return owned_;
    }
    UriUriA& uri() { return uri_; }
    const UriUriA& uri() const { return uri_; }

private:
    UriUriA uri_{};
    bool owned_ = false;
};

// uriparser lets spaces and control characters through in places; a URL never contains them.
bool isPlausible(std::string_view text) {
    if (text.empty()) return false;
    for (unsigned char c : text) {
        if (c <= 0x20 || c >= 0x7f) return false;
    }
    return true;
}

std::optional<std::string> rangeText(const UriTextRangeA& range) {
    if (range.first == nullptr) return std::nullopt;
    return std::string(range.first, range.afterLast);
}

std::size_t rangeLength(const UriTextRangeA& range) {
    return range.first == nullptr ? 0 : static_cast<std::size_t>(range.afterLast - range.first);
}

// The text of a URI that uriparser has put together (a resolved reference), written out without
// any normalisation: every component is copied from the texts it came from.
std::optional<std::string> writtenText(const UriHolder& holder) {
    const UriUriA& uri = holder.uri();
    int required = 0;
    if (uriToStringCharsRequiredA(&uri, &required) != URI_SUCCESS) return std::nullopt;
    std::vector<char> buffer(static_cast<std::size_t>(required) + 1);
    if (uriToStringA(buffer.data(), &uri, required + 1, nullptr) != URI_SUCCESS) return std::nullopt;
    std::string text(buffer.data());
    if (uri.hostData.ip6 != nullptr) {
        // uriparser writes IPv6 addresses out in full; put back the address as it was written.
        const std::string written = "[" + std::string(uri.hostText.first, uri.hostText.afterLast) + "]";
        std::string full = "[";
        for (int i = 0; i < 16; i += 2) {
            static constexpr char hex[] = "0123456789abcdef";
            if (i > 0) full += ':';
            for (int j = i; j < i + 2; ++j) {
                full += hex[uri.hostData.ip6->data[j] >> 4];
                full += hex[uri.hostData.ip6->data[j] & 0xf];
            }
        }
        full += ']';
        if (auto at = text.find(full); at != std::string::npos) text.replace(at, full.size(), written);
    }
    return text;
}

std::string percentDecoded(std::string_view text) {
    std::string decoded(text);
    uriUnescapeInPlaceExA(decoded.data(), URI_FALSE, URI_BR_DONT_TOUCH);
    decoded.resize(std::strlen(decoded.c_str()));
    return decoded;
}

// Escapes what may not appear in a path (or query) but leaves existing escapes alone, so that
// a component can be given as URI text.
std::string escapedComponent(std::string_view text, bool query) {
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : text) {
        const bool allowed = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                             std::strchr("-._~!$&'()*+,;=:@/%", c) != nullptr || (query && c == '?');
        if (allowed && c != '\0') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 0xf];
        }
    }
    return out;
}

// A relative reference that makes a valid URL when it replaces the last path segment: path
// characters (RFC 3986 pchar, with well-formed percent escapes, and "/") and an optional query of
// the same characters and "?". Dot segments are text like any other, since nothing is normalised.
// One pass; on success `question` is where the query's "?" stands (npos when there is none).
bool isPathReference(std::string_view reference, std::size_t& question) {
    static constexpr auto plain = [] {
        std::array<bool, 256> table{};
        for (unsigned char c = 'a'; c <= 'z'; ++c)
            table[c] = true;
        for (unsigned char c = 'A'; c <= 'Z'; ++c)
            table[c] = true;
        for (unsigned char c = '0'; c <= '9'; ++c)
            table[c] = true;
        for (unsigned char c : std::string_view("-._~!$&'()*+,;=:@/"))
            table[c] = true;
        return table;
    }();
    const auto isHex = [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    };
    if (reference.starts_with('/')) return false;
    question = std::string_view::npos;
    for (std::size_t i = 0; i < reference.size(); ++i) {
        const auto c = static_cast<unsigned char>(reference[i]);
        if (plain[c]) continue;
        if (c == '%') {
            if (i + 2 >= reference.size() || !isHex(reference[i + 1]) || !isHex(reference[i + 2]))
                return false;
            i += 2;
        } else if (c == '?') {
            if (question == std::string_view::npos) question = i;
        } else {
            return false;
        }
    }
    return true;
}

// Whether every "%" in `text` starts an escape of two hexadecimal digits.
bool hasWellFormedEscapes(std::string_view text) {
    const auto isHex = [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    };
    for (auto at = text.find('%'); at != std::string_view::npos; at = text.find('%', at + 1)) {
        if (at + 2 >= text.size() || !isHex(text[at + 1]) || !isHex(text[at + 2])) return false;
    }
    return true;
}

} // namespace

// Builds the value from the text as it stands, taking every component from uriparser's ranges.
struct UrlBuilder {
    static std::optional<Url> make(std::string text) {
        UriHolder holder;
        if (!holder.parse(text)) return std::nullopt;
        const UriUriA& uri = holder.uri();
        Url url;
        // Components are kept as places in `text`, which uriparser's ranges point into.
        const auto part = [&](const UriTextRangeA& range) {
            Url::Part result;
            if (range.first != nullptr) {
                result.begin = static_cast<std::size_t>(range.first - text.data());
                result.length = rangeLength(range);
            }
            return result;
        };
        url.scheme_ = part(uri.scheme);
        url.host_ = part(uri.hostText);
        if (url.host_.length == 0) url.host_ = {};
        if (auto port = rangeText(uri.portText); port && !port->empty()) {
            int value = 0;
            auto [end, error] = std::from_chars(port->data(), port->data() + port->size(), value);
            if (error == std::errc() && end == port->data() + port->size()) url.port_ = value;
        }
        url.query_ = part(uri.query);
        url.fragment_ = part(uri.fragment);

        // Empty segments may point outside the text, so the path is located by its length,
        // counted back from the query and fragment.
        std::size_t pathLength = 0;
        std::size_t segments = 0;
        for (const UriPathSegmentA* segment = uri.pathHead; segment != nullptr; segment = segment->next) {
            pathLength += rangeLength(segment->text);
            ++segments;
        }
        if (segments > 1) pathLength += segments - 1;
        if (uri.absolutePath || (uri.hostText.first != nullptr && segments > 0)) ++pathLength;
        std::size_t end = text.size();
        if (url.fragment_) end -= url.fragment_.length + 1;
        if (url.query_) end -= url.query_.length + 1;
        url.pathEnd_ = end;
        url.pathBegin_ = end - pathLength;
        url.text_ = std::make_shared<const std::string>(std::move(text));
        return url;
    }
};

std::optional<Url> Url::parse(std::string_view text) {
    if (!isPlausible(text)) return std::nullopt;
    return UrlBuilder::make(std::string(text));
}

std::optional<Url> Url::parse(std::string_view reference, const Url& base) {
    if (!isPlausible(reference) || !base.scheme_) return std::nullopt;
    UriHolder relative;
    UriHolder absoluteBase;
    UriHolder resolved;
    if (!relative.parse(reference) || !absoluteBase.parse(base.text()) ||
        !resolved.resolve(relative, absoluteBase))
        return std::nullopt;
    auto written = writtenText(resolved);
    if (!written) return std::nullopt;
    return UrlBuilder::make(std::move(*written));
}

Url Url::fileUrl(std::string_view path) {
    std::error_code error;
    std::filesystem::path absolute =
        path.empty() ? std::filesystem::current_path(error) : std::filesystem::absolute(path, error);
    const std::string native = error ? std::string(path) : absolute.string();
    // uriparser's documented bound for the converted text.
    std::vector<char> buffer(8 + 3 * native.size() + 1);
    if (uriUnixFilenameToUriStringA(native.c_str(), buffer.data()) == URI_SUCCESS) {
        if (auto url = parse(buffer.data())) return *url;
    }
    return *parse("file:///");
}

std::optional<std::string> Url::component(const Part& part) const {
    if (!part) return std::nullopt;
    return text().substr(part.begin, part.length);
}

bool Url::hasScheme(std::string_view lowerCase) const {
    if (!scheme_ || scheme_.length != lowerCase.size()) return false;
    for (std::size_t i = 0; i < lowerCase.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(text()[scheme_.begin + i])) != lowerCase[i]) return false;
    }
    return true;
}

std::string Url::path() const {
    return percentDecoded(rawPath());
}

namespace {

std::string lastComponentOf(std::string path) {
    if (path.empty() || path == "/") return path;
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

} // namespace

std::string Url::lastPathComponent() const {
    return lastComponentOf(path());
}

std::string Url::encodedLastPathComponent() const {
    return lastComponentOf(std::string(rawPath()));
}

Url Url::deletingLastPathComponent() const {
    std::string path(rawPath());
    if (path != "/" && !path.empty()) {
        while (path.size() > 1 && path.back() == '/')
            path.pop_back();
        const auto slash = path.rfind('/');
        path = slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
        if (path.empty() && !scheme_ && !host_) path = "./";
    }
    if (scheme_ && path.starts_with('/')) {
        // A shorter absolute path of the same URL is a URL as it stands: no second parse (the
        // redirect of every segment takes its master's directory).
        Url url;
        url.text_ = std::make_shared<const std::string>(text().substr(0, pathBegin_) + path);
        url.scheme_ = scheme_;
        url.host_ = host_;
        url.port_ = port_;
        url.pathBegin_ = pathBegin_;
        url.pathEnd_ = url.text_->size();
        return url;
    }
    auto url = parse(text().substr(0, pathBegin_) + path);
    return url ? *url : *this;
}

Url Url::appendingPathComponent(std::string_view component) const {
    std::optional<std::string_view> fragment;
    if (auto hash = component.find('#'); hash != std::string_view::npos) {
        fragment = component.substr(hash + 1);
        component = component.substr(0, hash);
    }
    std::optional<std::string_view> query;
    if (auto question = component.find('?'); question != std::string_view::npos) {
        query = component.substr(question + 1);
        component = component.substr(0, question);
    }
    const std::string_view path = rawPath();
    const bool endsWithSlash = !path.empty() && path.back() == '/';
    if (endsWithSlash) {
        while (!component.empty() && component.front() == '/')
            component.remove_prefix(1);
    }
    std::string text = this->text().substr(0, pathEnd_);
    if (!endsWithSlash && !component.starts_with('/') && !(path.empty() && !scheme_ && !host_)) text += '/';
    text += escapedComponent(component, false);
    const std::size_t pathEnd = text.size();
    Part queryPart, fragmentPart;
    if (query) {
        queryPart.begin = text.size() + 1;
        text += '?' + escapedComponent(*query, true);
    } else if (query_) {
        queryPart.begin = text.size() + 1;
        text += '?' + *this->query();
    }
    if (queryPart) queryPart.length = text.size() - queryPart.begin;
    if (fragment) {
        fragmentPart.begin = text.size() + 1;
        text += '#' + escapedComponent(*fragment, true);
    } else if (fragment_) {
        fragmentPart.begin = text.size() + 1;
        text += '#' + *this->fragment();
    }
    if (fragmentPart) fragmentPart.length = text.size() - fragmentPart.begin;
    // Behind an authority, the appended text can only be a path, query and fragment, and with
    // well-formed escapes it is valid as it stands: no second parse (every segment moved onto an
    // edge comes this way).
    if (host_ && hasWellFormedEscapes(std::string_view(text).substr(pathEnd_))) {
        Url url;
        url.text_ = std::make_shared<const std::string>(std::move(text));
        url.scheme_ = scheme_;
        url.host_ = host_;
        url.port_ = port_;
        url.pathBegin_ = pathBegin_;
        url.pathEnd_ = pathEnd;
        url.query_ = queryPart;
        url.fragment_ = fragmentPart;
        return url;
    }
    auto url = parse(text);
    return url ? *url : *this;
}

std::optional<Url> Url::replacingLastPathSegment(std::string_view reference) const {
    const std::string_view path = rawPath();
    const auto slash = path.rfind('/');
    std::size_t question = std::string_view::npos;
    if (!scheme_ || slash == std::string_view::npos || !isPathReference(reference, question))
        return std::nullopt;
    const std::size_t prefix = pathBegin_ + slash + 1;
    std::string text;
    text.reserve(prefix + reference.size());
    text.append(this->text(), 0, prefix);
    text.append(reference);
    Url url;
    url.text_ = std::make_shared<const std::string>(std::move(text));
    url.scheme_ = scheme_;
    url.host_ = host_;
    url.port_ = port_;
    url.pathBegin_ = pathBegin_;
    url.pathEnd_ = prefix + std::min(question, reference.size());
    if (question != std::string_view::npos) url.query_ = {url.pathEnd_ + 1, reference.size() - question - 1};
    return url;
}

} // namespace ovalto::platform
