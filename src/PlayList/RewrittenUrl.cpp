#include "PlayList/RewrittenUrl.h"

#include "PlayList/PlayListText.h"

#include <charconv>

namespace ovalto {

namespace {

constexpr std::string_view host = "://local/";
constexpr std::string_view mediaPlayListName = "media.m3u8";
constexpr std::string_view masterName = "master.m3u8";
constexpr std::string_view segmentSuffix = ".ts";

template <class T> void appendInteger(std::string& out, T value) {
    char buffer[24];
    out.append(buffer, std::to_chars(buffer, buffer + sizeof buffer, value).ptr);
}

// The next "/"-separated component of `path` (the whole rest when there is no "/"); `path` then
// starts after it. No value once the path is used up.
std::optional<std::string_view> nextComponent(std::optional<std::string_view>& path) {
    if (!path) return std::nullopt;
    const auto slash = path->find('/');
    const std::string_view component = path->substr(0, slash);
    if (slash == std::string_view::npos) {
        path.reset();
    } else {
        path->remove_prefix(slash + 1);
    }
    return component;
}

// `component` read as a number once every ".ts" is gone from it. A component holds no "/", so
// dropping ".ts" from the whole path and then cutting it is the same as cutting it first.
template <class T> std::optional<T> segmentNumber(std::string_view component) {
    if (component.find(segmentSuffix) == std::string_view::npos)
        return playlisttext::parseInteger<T>(component);
    std::string kept;
    for (auto at = component.find(segmentSuffix); at != std::string_view::npos;
         at = component.find(segmentSuffix)) {
        kept += component.substr(0, at);
        component.remove_prefix(at + segmentSuffix.size());
    }
    kept += component;
    return playlisttext::parseInteger<T>(kept);
}

// The path that the readers take: as written when it holds no escape (decoding would change
// nothing, and saves a copy on every segment request), decoded otherwise.
template <class F> auto withPath(const platform::Url& url, F&& read) {
    const std::string_view raw = url.encodedPath();
    if (raw.find('%') == std::string_view::npos) return read(raw);
    return read(std::string_view(url.path()));
}

} // namespace

void RewrittenUrl::appendMediaPlayList(std::string& out, long stream, std::int32_t bitrate) {
    appendInteger(out, stream);
    out += '/';
    appendInteger(out, bitrate);
    out += '/';
    out += mediaPlayListName;
}

std::string RewrittenUrl::segmentDirectory(long stream, std::int32_t bitrate) {
    std::string out(redirectScheme);
    out += host;
    appendInteger(out, stream);
    out += '/';
    appendInteger(out, bitrate);
    out += '/';
    return out;
}

char* RewrittenUrl::writeSegmentName(char* cursor, std::int64_t index) {
    cursor = std::to_chars(cursor, cursor + 20, index).ptr;
    for (char c : segmentSuffix)
        *cursor++ = c;
    return cursor;
}

std::string RewrittenUrl::segment(long stream, std::int32_t bitrate, std::int64_t index) {
    std::string out = segmentDirectory(stream, bitrate);
    char buffer[segmentNameSize];
    out.append(buffer, writeSegmentName(buffer, index));
    return out;
}

std::optional<RewrittenUrl::PlayList> RewrittenUrl::readPlayList(std::string_view path) {
    if (path.ends_with(masterName)) return PlayList{.isMaster = true};
    std::optional<std::string_view> rest = path;
    nextComponent(rest); // before the leading "/"
    const auto first = nextComponent(rest);
    const auto second = nextComponent(rest);
    if (!second) return std::nullopt;
    const auto stream = playlisttext::parseInteger<long>(*first);
    const auto bitrate = playlisttext::parseInteger<std::int32_t>(*second);
    if (!stream || !bitrate) return std::nullopt;
    return PlayList{.isMaster = false, .stream = *stream, .bitrate = *bitrate};
}

std::optional<RewrittenUrl::Segment> RewrittenUrl::readSegment(std::string_view path) {
    std::optional<std::string_view> rest = path;
    nextComponent(rest);
    const auto first = nextComponent(rest);
    const auto second = nextComponent(rest);
    const auto third = nextComponent(rest);
    if (!third) return std::nullopt;
    const auto stream = segmentNumber<long>(*first);
    const auto bitrate = segmentNumber<std::int32_t>(*second);
    const auto index = segmentNumber<std::int64_t>(*third);
    if (!stream || !bitrate || !index || *stream < 0) return std::nullopt;
    return Segment{.stream = *stream, .bitrate = *bitrate, .index = *index};
}

std::optional<RewrittenUrl::PlayList> RewrittenUrl::readPlayList(const platform::Url& url) {
    return withPath(url, [](std::string_view path) { return readPlayList(path); });
}

std::optional<RewrittenUrl::Segment> RewrittenUrl::readSegment(const platform::Url& url) {
    return withPath(url, [](std::string_view path) { return readSegment(path); });
}

} // namespace ovalto
