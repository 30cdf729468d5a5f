#pragma once

#include "platform/Url.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ovalto {

// The layout of every URL the library writes into the playlists it serves and reads back when
// the player asks for it:
//   cplp://local/master.m3u8                the master playlist
//   cplp://local/<stream>/<bitrate>/media.m3u8   a media playlist (written relative to the master)
//   rdtp://local/<stream>/<bitrate>/<index>.ts   a segment; index -1 is the initialisation section
// Numbers are plain decimal. The generators write these only through here and the resources read
// them only through here, so that the two sides cannot drift apart.
class RewrittenUrl {
public:
    // The schemes the resource loader answers; the key schemes come from the content itself.
    static constexpr std::string_view playListScheme = "cplp";
    static constexpr std::string_view keyScheme = "ckey";
    static constexpr std::string_view redirectScheme = "rdtp";
    static constexpr std::string_view fairPlayScheme = "skd";
    static constexpr const char* master = "cplp://local/master.m3u8";
    static constexpr std::int64_t initialSection = -1;

    // "<stream>/<bitrate>/media.m3u8", resolved by the player against the master's URL.
    static void appendMediaPlayList(std::string& out, long stream, std::int32_t bitrate);
    // "rdtp://local/<stream>/<bitrate>/", which every segment URL of a representation starts with.
    static std::string segmentDirectory(long stream, std::int32_t bitrate);
    // "<index>.ts" at `cursor`, which has room for segmentNameSize characters; returns the end.
    static constexpr std::size_t segmentNameSize = 24;
    static char* writeSegmentName(char* cursor, std::int64_t index);
    static std::string segment(long stream, std::int32_t bitrate, std::int64_t index);

    // A playlist request: the master when the path ends in "master.m3u8"; otherwise the first
    // two components name the stream and the bitrate (what follows is not looked at).
    struct PlayList {
        bool isMaster = false;
        long stream = 0;
        std::int32_t bitrate = 0;
        bool operator==(const PlayList&) const = default;
    };
    // A segment request: every ".ts" is dropped from the path, whose components 1 to 3 are then
    // the stream (not negative), the bitrate and the index.
    struct Segment {
        long stream = 0;
        std::int32_t bitrate = 0;
        std::int64_t index = 0;
        bool isInitialSection() const { return index == initialSection; }
        bool operator==(const Segment&) const = default;
    };
    // No value when `url`'s path does not have that form. The host is not looked at.
    static std::optional<PlayList> readPlayList(const platform::Url& url);
    static std::optional<Segment> readSegment(const platform::Url& url);
    // The same on a decoded path ("/1/800000/7.ts").
    static std::optional<PlayList> readPlayList(std::string_view path);
    static std::optional<Segment> readSegment(std::string_view path);
};

} // namespace ovalto
