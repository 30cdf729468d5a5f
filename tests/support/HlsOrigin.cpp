#include "support/HlsOrigin.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <stdexcept>

namespace ovalto::test {

namespace {

// Recognisable bytes: a test can tell segments apart by their content as well as their size.
std::string payload(const std::string& tag, std::size_t size) {
    std::string body;
    while (body.size() < size)
        body += tag + ";";
    body.resize(size);
    return body;
}

std::string extinf(double duration) {
    char text[48];
    std::snprintf(text, sizeof text, "#EXTINF:%.3f,\n", duration);
    return text;
}

std::string mediaHead(int version, double duration, long long first) {
    return "#EXTM3U\n#EXT-X-VERSION:" + std::to_string(version) +
           "\n#EXT-X-TARGETDURATION:" + std::to_string(static_cast<int>(std::ceil(duration))) +
           "\n#EXT-X-MEDIA-SEQUENCE:" + std::to_string(first) + "\n";
}

// A version 3 media playlist of segments seg<first>.ts onwards, without map or keys.
std::string tsPlayList(long long first, long long count, double duration, bool ended) {
    std::string playlist = mediaHead(3, duration, first);
    for (long long n = first; n < first + count; ++n)
        playlist += extinf(duration) + "seg" + std::to_string(n) + ".ts\n";
    return playlist + (ended ? "#EXT-X-ENDLIST\n" : "");
}

} // namespace

HlsOrigin::HlsOrigin()
    : Origin([] {
        Options options;
        options.closeConnections = true;
        return options;
    }()) {
    if (!start()) throw std::runtime_error("cannot bind a loopback port");
}

bool HlsOrigin::isMedia(std::string_view path) {
    return path.ends_with(".m4s") || path.ends_with(".mp4") || path.ends_with(".ts");
}

void HlsOrigin::publish(const std::string& name, const Vod& vod) {
    const std::string root = "/" + name + "/";
    std::string master = "#EXTM3U\n#EXT-X-VERSION:7\n#EXT-X-INDEPENDENT-SEGMENTS\n";

    // One media playlist with its init section and segments; `ranged` packs them into main.mp4.
    const auto media = [&](const std::string& directory, const std::string& tag, std::size_t bytes,
                           bool ranged, bool keyed) {
        std::string playlist = mediaHead(7, vod.segmentDuration, 0) + "#EXT-X-PLAYLIST-TYPE:VOD\n";
        const std::string init = payload(tag + "-init", 200);
        std::string packed = init;
        if (ranged) {
            playlist += "#EXT-X-MAP:URI=\"main.mp4\",BYTERANGE=\"" + std::to_string(init.size()) + "@0\"\n";
        } else {
            playlist += "#EXT-X-MAP:URI=\"init.mp4\"\n";
            serve(root + directory + "init.mp4", init);
        }
        const auto keys = keyed ? vod.keyUris.size() : 0, segments = static_cast<std::size_t>(vod.segments);
        for (std::size_t i = 0; i < segments; ++i) {
            if (keys > 0 && i * keys % segments < keys)
                playlist += "#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"" + vod.keyUris[i * keys / segments] + "\"\n";
            playlist += extinf(vod.segmentDuration);
            const std::string segment = payload(tag + "-" + std::to_string(i), bytes);
            if (ranged) {
                // The first range names its offset; the rest continue where the previous ended.
                playlist += "#EXT-X-BYTERANGE:" + std::to_string(segment.size()) +
                            (i == 0 ? "@" + std::to_string(packed.size()) : std::string()) + "\nmain.mp4\n";
                packed += segment;
            } else {
                playlist += "seg" + std::to_string(i) + ".m4s\n";
                serve(root + directory + "seg" + std::to_string(i) + ".m4s", segment);
            }
        }
        playlist += "#EXT-X-ENDLIST\n";
        if (ranged) serve(root + directory + "main.mp4", packed);
        serve(root + directory + "media.m3u8", playlist);
    };

    for (std::size_t a = 0; a < vod.audio.size(); ++a) {
        const std::string directory = "audio/" + std::to_string(a) + "/";
        std::string language = vod.audio[a].substr(0, 2);
        std::transform(language.begin(), language.end(), language.begin(),
                       [](unsigned char c) { return std::tolower(c); });
        master += "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"aud\",NAME=\"" + vod.audio[a] + "\",LANGUAGE=\"" +
                  language + "\",DEFAULT=" + (a == 0 ? "YES" : "NO") + ",AUTOSELECT=YES,URI=\"" + directory +
                  "media.m3u8\"\n";
        media(directory, "audio" + std::to_string(a), vod.segmentBytes / 2, false, false);
    }
    for (std::size_t v = 0; v < vod.bandwidths.size(); ++v) {
        const std::string directory = "video/" + std::to_string(vod.bandwidths[v]) + "/";
        master += "#EXT-X-STREAM-INF:BANDWIDTH=" + std::to_string(vod.bandwidths[v]) +
                  ",CODECS=\"avc1.4d401f,mp4a.40.2\",RESOLUTION=640x360" +
                  (vod.audio.empty() ? std::string() : ",AUDIO=\"aud\"") + "\n" + directory + "media.m3u8\n";
        const bool ranged = vod.byteRanges && v + 1 == vod.bandwidths.size();
        media(directory, "video" + std::to_string(v), vod.segmentBytes * (v + 1), ranged, true);
    }
    serve(root + "master.m3u8", master);
}

void HlsOrigin::publishMedia(const std::string& name, int segments, double segmentDuration,
                             std::size_t segmentBytes) {
    const std::string root = "/" + name + "/";
    for (int i = 0; i < segments; ++i)
        serve(root + "seg" + std::to_string(i) + ".ts",
              payload(name + "-" + std::to_string(i), segmentBytes));
    serve(root + "media.m3u8", tsPlayList(0, segments, segmentDuration, true));
}

void HlsOrigin::publishLive(const std::string& name, double segmentDuration, int window,
                            std::size_t segmentBytes) {
    const std::string root = "/" + name + "/";
    const auto started = started_;
    serveMade(root + "live.m3u8", [=] {
        const double elapsed =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        return tsPlayList(static_cast<long long>(elapsed / segmentDuration), window, segmentDuration, false);
    });
    serveBelow(root + "seg", [=](const std::string& rest) -> std::optional<std::string> {
        if (!rest.ends_with(".ts")) return std::nullopt;
        return payload(name + "-" + rest.substr(0, rest.size() - 3), segmentBytes);
    });
}

} // namespace ovalto::test
