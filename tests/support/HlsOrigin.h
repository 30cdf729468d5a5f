#pragma once

#include "Origin.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ovalto::test {

// The shared origin on 127.0.0.1, started at once, with presentations built in memory in the
// shapes real streams have (variants, audio renditions, #EXT-X-MAP, byte ranges, keys, a live
// window that advances with time). Every answer closes its connection, so that a test ends
// without waiting for the player's idle connections.
class HlsOrigin : public tool::Origin {
public:
    // A VOD presentation published under /<name>/ with its master at /<name>/master.m3u8:
    // video/<bandwidth>/media.m3u8 with init.mp4 and seg<i>.m4s (the last variant takes its
    // segments as byte ranges of one main.mp4 when `byteRanges`), audio/<i>/media.m3u8 likewise.
    struct Vod {
        std::vector<std::int64_t> bandwidths = {800000, 2000000};
        int segments = 4;
        double segmentDuration = 1.0;
        std::vector<std::string> audio = {"English"}; // rendition NAMEs; the first is DEFAULT=YES
        bool byteRanges = false;
        std::size_t segmentBytes = 1000; // of the first variant; later ones are larger
        // Key URIs; the video segments are split evenly between them, in order.
        std::vector<std::string> keyUris;
    };

    HlsOrigin();

    void publish(const std::string& name, const Vod& vod);
    // A single media playlist at /<name>/live.m3u8 whose window of `window` segments advances by
    // one segment every `segmentDuration` seconds of real time; segments /<name>/seg<n>.ts.
    void publishLive(const std::string& name, double segmentDuration, int window, std::size_t segmentBytes);
    // A media playlist at /<name>/media.m3u8 of `segments` segments, without renditions.
    void publishMedia(const std::string& name, int segments, double segmentDuration,
                      std::size_t segmentBytes);
    // Segments and initialisation sections (not playlists or keys).
    static bool isMedia(std::string_view path);

private:
    const std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
};

} // namespace ovalto::test
