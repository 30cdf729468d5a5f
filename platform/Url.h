#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ovalto::platform {

// An absolute or relative URL reference (RFC 3986), parsed with uriparser. Immutable value.
class Url {
public:
    // No value when `text` is not a valid URI reference.
    static std::optional<Url> parse(std::string_view text);
    // `reference` resolved against `base` (RFC 3986 section 5); no value when either is invalid.
    static std::optional<Url> parse(std::string_view reference, const Url& base);
    static Url fileUrl(std::string_view path);

    const std::string& absoluteString() const { return text_; }
    std::optional<std::string> scheme() const;
    std::optional<std::string> host() const;
    std::optional<int> port() const;
    std::string path() const;                  // percent-decoded, "" when empty
    std::optional<std::string> query() const; // without the "?"
    std::optional<std::string> fragment() const;
    std::string lastPathComponent() const;    // "/" for the root, "" for an empty path
    bool isFileUrl() const;

    Url deletingLastPathComponent() const;
    // Appends a component to the path; a "?query" inside `component` stays the query.
    Url appendingPathComponent(std::string_view component) const;

    bool operator==(const Url& other) const { return text_ == other.text_; }

private:
    explicit Url(std::string text);
    std::string text_;
};

} // namespace ovalto::platform
