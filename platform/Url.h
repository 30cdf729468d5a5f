#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace ovalto::platform {

// An absolute or relative URL reference (RFC 3986), parsed with uriparser. Immutable value.
// The text is kept exactly as written (case, dot segments, percent escapes): servers that sign
// a path or query compare the bytes they handed out.
class Url {
public:
    // No value when `text` is not a valid URI reference (empty, or with spaces or control
    // characters, which uriparser would otherwise let through in places).
    static std::optional<Url> parse(std::string_view text);
    // `reference` resolved against `base` (RFC 3986 section 5): the merged path loses its dot
    // segments, every component copied from either text stays as written. No value when either
    // is invalid or `base` has no scheme.
    static std::optional<Url> parse(std::string_view reference, const Url& base);
    // A file URL for a local path; a relative path is taken relative to the working directory.
    static Url fileUrl(std::string_view path);

    const std::string& absoluteString() const { return text(); }
    std::optional<std::string> scheme() const { return component(scheme_); }
    // No value when empty.
    std::optional<std::string> host() const { return component(host_); }
    std::optional<int> port() const { return port_; }
    // Percent-decoded, "" when empty.
    std::string path() const;
    // The path as it is written in the URL, still percent-encoded.
    std::string_view encodedPath() const { return rawPath(); }
    // Without the "?".
    std::optional<std::string> query() const { return component(query_); }
    std::optional<std::string> fragment() const { return component(fragment_); }
    std::string lastPathComponent() const; // "/" for the root, "" for an empty path
    // The same as it is written in the URL, still percent-encoded.
    std::string encodedLastPathComponent() const;
    // Whether the scheme is `lowerCase`, compared without case as transports compare schemes.
    bool hasScheme(std::string_view lowerCase) const;
    bool isFileUrl() const { return hasScheme("file"); }

    // The URL of the directory that holds the last path component (query and fragment dropped).
    Url deletingLastPathComponent() const;
    // Appends a component to the path; a "?query" inside `component` stays the query.
    Url appendingPathComponent(std::string_view component) const;
    // This absolute URL with everything after the last "/" of its path (the last segment, the
    // query and the fragment) replaced by `reference`: a relative path of path characters
    // (letters, digits, "-._~!$&'()*+,;=:@", "/" and percent escapes) with an optional "?query"
    // of the same characters and "?". Such text makes a valid URL as it stands, so it is not
    // parsed again: playlists resolve thousands of segment names this way. No value for any other
    // reference, or when this URL has no scheme or no "/" in its path.
    std::optional<Url> replacingLastPathSegment(std::string_view reference) const;

    bool operator==(const Url& other) const { return text_ == other.text_ || text() == other.text(); }

private:
    Url() = default;
    std::string_view rawPath() const {
        return std::string_view(text()).substr(pathBegin_, pathEnd_ - pathBegin_);
    }

    // Where a component stands in the text: a URL is one shared string and a few offsets.
    struct Part {
        std::size_t begin = std::string::npos; // npos: no such component
        std::size_t length = 0;
        explicit operator bool() const { return begin != std::string::npos; }
    };
    // Out of line: GCC 12 sees uninitialised strings where callers inline this (a false positive).
    std::optional<std::string> component(const Part& part) const;

    // The text is shared by the copies of a URL: segment lists copy URLs by the thousand, and
    // a copy should not allocate. Empty only in a moved-from URL.
    std::shared_ptr<const std::string> text_;
    const std::string& text() const {
        static const std::string empty;
        return text_ ? *text_ : empty;
    }
    Part scheme_;
    Part host_;
    std::optional<int> port_;
    Part query_;
    Part fragment_;
    std::size_t pathBegin_ = 0; // the raw (still encoded) path within text_
    std::size_t pathEnd_ = 0;

    friend struct UrlBuilder;
};

} // namespace ovalto::platform
