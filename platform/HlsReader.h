#pragma once

#include "platform/Url.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace ovalto::platform {

// What the player needs of an HLS playlist, read with a small reader of its own: it is the other
// side of whatever produced the playlist and trusts nothing but the text. URIs are resolved
// against the playlist's URL.

struct HlsByteRange {
    std::int64_t length = 0;
    std::int64_t offset = 0;
    // The value of a Range request header: "bytes=<first>-<last>".
    std::string rangeHeader() const;
};

// #EXT-X-MEDIA
struct HlsRendition {
    std::string type; // AUDIO, VIDEO, SUBTITLES, CLOSED-CAPTIONS
    std::string groupId;
    std::string name;
    std::optional<std::string> language;
    bool isDefault = false;
    bool autoselect = false;
    std::optional<Url> uri; // none for renditions carried in the variant's own segments
};

// #EXT-X-STREAM-INF and the URI line after it
struct HlsVariant {
    std::int64_t bandwidth = 0;
    std::optional<std::int64_t> averageBandwidth;
    std::optional<std::string> codecs;
    std::optional<std::string> resolution;
    std::optional<std::string> audio; // group ids
    std::optional<std::string> video;
    std::optional<std::string> subtitles;
    std::optional<std::string> closedCaptions;
    Url uri;
};

struct HlsMasterPlaylist {
    std::vector<HlsVariant> variants;
    std::vector<HlsRendition> renditions;

    // The renditions of `type` in group `groupId`, in source order.
    std::vector<const HlsRendition*> group(const std::string& type, const std::string& groupId) const;
    // The rendition a player plays from a group: the one named `preferredName`, else the
    // DEFAULT=YES one, else the first; null for an empty group.
    const HlsRendition* rendition(const std::string& type, const std::string& groupId,
                                  const std::optional<std::string>& preferredName) const;
    // The media playlist of a variant's pictures: the chosen VIDEO rendition's when the variant
    // names a VIDEO group whose rendition has a URI, else the variant's own.
    Url mainPlaylistUrl(const HlsVariant& variant, const std::optional<std::string>& videoName) const;
};

// #EXT-X-KEY
struct HlsKey {
    std::string method; // AES-128, SAMPLE-AES, …; never NONE (no key then)
    std::optional<Url> uri;
    std::optional<std::string> iv;
    std::optional<std::string> keyFormat;
};

// #EXT-X-MAP
struct HlsMap {
    Url uri;
    std::optional<HlsByteRange> byteRange;
};

// A playlist may hold hundreds of thousands of segments: one costs little more than its URL.
// The map and key in force are shared by every segment they apply to.
struct HlsSegment {
    Url uri;
    double duration = 0; // #EXTINF, seconds
    std::int64_t sequence = 0;
    std::optional<HlsByteRange> byteRange;
    std::shared_ptr<const HlsMap> map;
    std::shared_ptr<const HlsKey> key;
    bool discontinuity = false;
};

struct HlsMediaPlaylist {
    double targetDuration = 0;
    std::int64_t mediaSequence = 0;
    bool endList = false;
    std::optional<std::string> playlistType; // VOD or EVENT
    std::vector<HlsSegment> segments;

    double duration() const;
    bool isLive() const { return !endList; }
};

class HlsReader {
public:
    using Playlist = std::variant<HlsMasterPlaylist, HlsMediaPlaylist>;

    // True when `text` starts like an HLS playlist (#EXTM3U, optionally after a byte-order mark).
    static bool isPlaylist(std::string_view text);
    // No value when the text is not a playlist, mixes master and media tags, or a variant or
    // segment lacks its URI.
    static std::optional<Playlist> read(std::string_view text, const Url& base);
    // NAME=value pairs of an attribute list, quotes removed, in source order.
    static std::vector<std::pair<std::string, std::string>> attributes(std::string_view list);
};

} // namespace ovalto::platform
