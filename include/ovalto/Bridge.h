#pragma once

#include "platform/Error.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace ovalto {

class Ovalto;

// Serves the presentation a facade prepared to any HLS client (ffmpeg, mpv, GStreamer, a
// browser) over HTTP/1.1 on a loopback address. A request for
//
//   http://127.0.0.1:<port>/<scheme>/<host>/<path>?<query>
//
// becomes a loading request for <scheme>://<host>/<path>?<query> on the facade's resource loader,
// exactly as the headless player's would, and its outcome the answer: data as 200 (206 for a
// range), a redirect as 302 with Location and the redirect's header fields, a failure as a 4xx or
// 5xx whose body gives the library error's code and message. Playlists are served with their
// absolute custom-scheme URIs turned into bridge URLs. Nothing throws; stopping (or destroying)
// the bridge waits for the answers in progress, and every loading request is finished once.
class Bridge {
public:
    struct Options {
        // Only a loopback address unless the application names another one.
        std::string host = "127.0.0.1";
        int port = 0; // 0: any free port
        // Connections served at once: an idle keep-alive connection holds one until it times out,
        // and a player keeps one per rendition it reads.
        int threads = 64;
        // How long an answer may take before the request is given up (504).
        std::chrono::milliseconds loadingTimeout = std::chrono::seconds(60);
    };

    // One answered request, for an application's log.
    struct Exchange {
        std::string method;
        std::string target; // as the client sent it
        int status = 0;
        std::size_t bytes = 0;               // body bytes answered
        std::optional<std::string> location; // of a redirect
        std::optional<std::string> error;    // "0x8501 (34049): …" of a failure
    };
    using Observer = std::function<void(const Exchange&)>;

    // The bridge for `ovalto`'s presentation; it holds the facade without ownership.
    explicit Bridge(std::weak_ptr<Ovalto> ovalto);
    Bridge(std::weak_ptr<Ovalto> ovalto, Options options);
    ~Bridge();
    Bridge(const Bridge&) = delete;
    Bridge& operator=(const Bridge&) = delete;

    // Binds and serves from background threads; the error says why it could not bind.
    std::optional<platform::Error> start();
    void stop();

    // Called after each answer, on the thread that answered (set before start()).
    void setObserver(Observer observer);

    // 0 before start().
    int port() const;
    // "http://<host>:<port>"
    std::string baseUrl() const;
    // The bridge URL of the prepared master playlist, for a player; no value before the
    // preparation notification, or when the prepared URL is not played through the library.
    std::optional<std::string> masterUrl() const;
    // The bridge URL of any URL the resource loader answers (cplp, rdtp, ckey, skd).
    std::optional<std::string> urlFor(const std::string& resourceUrl) const;

    // Loading requests made and finished so far (equal whenever the bridge is idle).
    struct Counts {
        std::uint64_t started = 0;
        std::uint64_t finished = 0;
    };
    Counts counts() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace ovalto
