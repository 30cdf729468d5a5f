#include "support/HlsOrigin.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace ovalto::test {

namespace {

std::string contentType(std::string_view path) {
    if (path.ends_with(".m3u8")) return "application/vnd.apple.mpegurl";
    if (path.ends_with(".ts")) return "video/mp2t";
    if (path.ends_with(".vtt")) return "text/vtt";
    if (path.ends_with(".mp4") || path.ends_with(".m4s")) return "video/mp4";
    return "application/octet-stream";
}

// Recognisable bytes: a test can tell segments apart by their content as well as their size.
std::string payload(const std::string& tag, std::size_t size) {
    std::string body;
    body.reserve(size);
    while (body.size() < size)
        body += tag + ";";
    body.resize(size);
    return body;
}

std::string decimal(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", value);
    return text;
}

// The body bytes an answer to `range` carries ("bytes=a-b" or "bytes=a-").
std::size_t rangeLength(const std::string& range, std::size_t size) {
    unsigned long long first = 0;
    unsigned long long last = 0;
    const int fields = std::sscanf(range.c_str(), "bytes=%llu-%llu", &first, &last);
    if (fields < 1 || first >= size) return 0;
    if (fields < 2 || last >= size) last = size - 1;
    return last >= first ? static_cast<std::size_t>(last - first + 1) : 0;
}

} // namespace

HlsOrigin::HlsOrigin()
    : server_([this](httplib::Server& server) {
        server.Get(".*", [this](const httplib::Request& request, httplib::Response& response) {
            handle(request, response);
        });
    }) {}

HlsOrigin::~HlsOrigin() {
    {
        std::lock_guard lock(mutex_);
        stopped_ = true;
    }
    stopping_.notify_all(); // throttled answers give up, so that the server can stop
}

void HlsOrigin::serve(const std::string& path, std::string body) {
    std::lock_guard lock(mutex_);
    routes_[path].body = std::move(body);
}

void HlsOrigin::throttle(const std::string& path, std::chrono::milliseconds duration) {
    std::lock_guard lock(mutex_);
    routes_[path].throttle = duration;
}

void HlsOrigin::remove(const std::string& path) {
    std::lock_guard lock(mutex_);
    routes_.erase(path);
}

std::optional<std::string> HlsOrigin::body(const std::string& path) const {
    auto found = route(path);
    if (!found) return std::nullopt;
    return found->generate ? found->generate() : found->body;
}

std::vector<HlsOrigin::Served> HlsOrigin::served() const {
    std::lock_guard lock(mutex_);
    return served_;
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
        std::string playlist = "#EXTM3U\n#EXT-X-VERSION:7\n#EXT-X-TARGETDURATION:" +
                               std::to_string(static_cast<int>(std::ceil(vod.segmentDuration))) +
                               "\n#EXT-X-MEDIA-SEQUENCE:0\n#EXT-X-PLAYLIST-TYPE:VOD\n";
        const std::string init = payload(tag + "-init", 200);
        std::string packed = init;
        if (ranged) {
            playlist += "#EXT-X-MAP:URI=\"main.mp4\",BYTERANGE=\"" + std::to_string(init.size()) + "@0\"\n";
        } else {
            playlist += "#EXT-X-MAP:URI=\"init.mp4\"\n";
            serve(root + directory + "init.mp4", init);
        }
        const auto keys = keyed ? vod.keyUris.size() : 0;
        for (int i = 0; i < vod.segments; ++i) {
            if (keys > 0 &&
                static_cast<std::size_t>(i) * keys % static_cast<std::size_t>(vod.segments) < keys) {
                const auto which =
                    static_cast<std::size_t>(i) * keys / static_cast<std::size_t>(vod.segments);
                playlist += "#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"" + vod.keyUris[which] + "\"\n";
            }
            playlist += "#EXTINF:" + decimal(vod.segmentDuration) + ",\n";
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
    std::string playlist = "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:" +
                           std::to_string(static_cast<int>(std::ceil(segmentDuration))) +
                           "\n#EXT-X-MEDIA-SEQUENCE:0\n";
    for (int i = 0; i < segments; ++i) {
        playlist += "#EXTINF:" + decimal(segmentDuration) + ",\nseg" + std::to_string(i) + ".ts\n";
        serve(root + "seg" + std::to_string(i) + ".ts",
              payload(name + "-" + std::to_string(i), segmentBytes));
    }
    playlist += "#EXT-X-ENDLIST\n";
    serve(root + "media.m3u8", playlist);
}

void HlsOrigin::publishLive(const std::string& name, double segmentDuration, int window,
                            std::size_t segmentBytes) {
    const std::string root = "/" + name + "/";
    const auto started = started_;
    std::lock_guard lock(mutex_);
    routes_[root + "live.m3u8"].generate = [=] {
        const double elapsed =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        const auto first = static_cast<long long>(elapsed / segmentDuration);
        std::string playlist = "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:" +
                               std::to_string(static_cast<int>(std::ceil(segmentDuration))) +
                               "\n#EXT-X-MEDIA-SEQUENCE:" + std::to_string(first) + "\n";
        for (long long n = first; n < first + window; ++n) {
            playlist += "#EXTINF:" + decimal(segmentDuration) + ",\nseg" + std::to_string(n) + ".ts\n";
        }
        return playlist;
    };
    generated_[root + "seg"] = [=](const std::string& rest) -> std::optional<std::string> {
        if (!rest.ends_with(".ts")) return std::nullopt;
        return payload(name + "-" + rest.substr(0, rest.size() - 3), segmentBytes);
    };
}

std::optional<HlsOrigin::Route> HlsOrigin::route(const std::string& path) const {
    std::lock_guard lock(mutex_);
    if (auto found = routes_.find(path); found != routes_.end()) return found->second;
    for (const auto& [prefix, generate] : generated_) {
        if (!path.starts_with(prefix)) continue;
        if (auto body = generate(path.substr(prefix.size()))) return Route{std::move(*body), {}, {}};
    }
    return std::nullopt;
}

void HlsOrigin::handle(const httplib::Request& request, httplib::Response& response) {
    Served served{request.path, {}, {}, 404, 0, std::chrono::steady_clock::now()};
    if (request.has_header("Range")) served.range = request.get_header_value("Range");
    if (request.has_header("Cookie")) served.cookie = request.get_header_value("Cookie");
    auto found = route(request.path);
    if (!found) {
        response.status = 404;
        response.set_header("Connection", "close");
        std::lock_guard lock(mutex_);
        served_.push_back(served);
        return;
    }
    std::string body = found->generate ? found->generate() : std::move(found->body);
    served.status = served.range ? 206 : 200;
    served.bytes = served.range ? rangeLength(*served.range, body.size()) : body.size();
    {
        std::lock_guard lock(mutex_);
        served_.push_back(served);
    }
    const std::string type = contentType(request.path);
    // Players keep connections open; closing each one lets the server stop without waiting for
    // idle keep-alive connections at the end of every test.
    response.set_header("Connection", "close");
    if (found->throttle.count() == 0) {
        response.set_content(body, type.c_str());
        return;
    }
    // Sent in pieces spread over the throttle time; cpp-httplib applies the range to the offsets.
    const auto throttle = found->throttle;
    const auto size = body.size();
    response.set_content_provider(
        size, type,
        [this, body = std::move(body), throttle](std::size_t offset, std::size_t length,
                                                 httplib::DataSink& sink) {
            constexpr int pieces = 10;
            const std::size_t piece = std::max<std::size_t>(1, (length + pieces - 1) / pieces);
            for (std::size_t sent = 0; sent < length; sent += piece) {
                {
                    std::unique_lock lock(mutex_);
                    if (stopping_.wait_for(lock, throttle / pieces, [this] { return stopped_; }))
                        return false;
                }
                if (!sink.write(body.data() + offset + sent, std::min(piece, length - sent))) return false;
            }
            return true;
        });
}

} // namespace ovalto::test
