// What the bridge costs an HLS client. Requests per second and the 99th percentile latency of
// media playlist and segment-redirect requests through the bridge at 1, 8 and 64 concurrent
// keep-alive clients, against a plain cpp-httplib server (same threads, same options) answering
// the same bytes, measured alternately in the same run. The ratios are what to read:
//   ratio_rps = plain requests/s / bridge requests/s, ratio_p99 = bridge p99 / plain p99.
// The playlist is a VOD media playlist: the first request through the bridge downloads it from the
// loopback origin, parses and regenerates it, the later ones are answered with what was made then
// (a live playlist would be fetched every time). A redirect is decided in process, by a loading
// request that goes through the resource loader's queues like the headless player's.
#include "ovalto/Bridge.h"
#include "ovalto/Notifications.h"
#include "ovalto/Ovalto.h"
#include "platform/NotificationCenter.h"
#include "platform/RunLoop.h"

#include <benchmark/benchmark.h>
#include <httplib.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

using namespace ovalto;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int requestsPerRound = 512;

std::string mediaPlayList() {
    std::string text = "#EXTM3U\n#EXT-X-VERSION:7\n#EXT-X-TARGETDURATION:6\n#EXT-X-MEDIA-SEQUENCE:0\n"
                       "#EXT-X-PLAYLIST-TYPE:VOD\n#EXT-X-MAP:URI=\"init.mp4\"\n";
    for (int i = 0; i < 100; ++i)
        text += "#EXTINF:6.0,\nseg" + std::to_string(i) + ".m4s\n";
    return text + "#EXT-X-ENDLIST\n";
}

// An httplib server on loopback on a thread of its own, configured like the bridge.
class Server {
public:
    explicit Server(const std::function<void(httplib::Server&)>& routes) {
        server_.new_task_queue = [] { return std::make_unique<httplib::ThreadPool>(64).release(); };
        server_.set_keep_alive_max_count(1000);
        server_.set_tcp_nodelay(true);
        int listening = -1;
        server_.set_socket_options([&listening](int socket) {
            int yes = 1;
            setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
            listening = socket;
        });
        routes(server_);
        port_ = server_.bind_to_any_port("127.0.0.1");
        ::listen(listening, SOMAXCONN); // as the bridge does
        thread_ = std::thread([this] {
            server_.listen_after_bind();
            listening_ = false;
        });
    }
    ~Server() {
        // stop() is a no-op until the thread accepts, as in the bridge.
        while (listening_) {
            server_.stop();
            if (listening_) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        thread_.join();
    }
    std::string baseUrl() const { return "http://127.0.0.1:" + std::to_string(port_); }

private:
    httplib::Server server_;
    std::atomic<bool> listening_{true};
    int port_ = 0;
    std::thread thread_;
};

// The origin, the facade prepared against it, the bridge, and the plain server answering what
// the bridge answers.
struct Setup {
    Server origin{[](httplib::Server& server) {
        server.Get("/vod/master.m3u8", [](const httplib::Request&, httplib::Response& res) {
            res.set_content("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=800000\nlow/media.m3u8\n",
                            "application/vnd.apple.mpegurl");
        });
        server.Get("/vod/low/media.m3u8", [](const httplib::Request&, httplib::Response& res) {
            res.set_content(mediaPlayList(), "application/vnd.apple.mpegurl");
        });
    }};
    std::shared_ptr<Ovalto> facade = Ovalto::create();
    std::unique_ptr<Bridge> bridge;
    std::unique_ptr<Server> plain;
    std::string playlistPath, segmentPath;
    bool ready = false;

    Setup() {
        Ovalto::logLevel = OVALogLevel::silent;
        bool prepared = false;
        auto token = platform::NotificationCenter::defaultCenter().addObserver(
            OvaltoPreparationNotification, facade, [&](const platform::Notification&) { prepared = true; });
        facade->prepare(*platform::Url::parse(origin.baseUrl() + "/vod/master.m3u8"));
        auto tick =
            platform::Timer::scheduledTimer(std::chrono::milliseconds(10), true, [](platform::Timer&) {});
        platform::RunLoop::main().runUntil([&] { return prepared; }, Clock::now() + std::chrono::seconds(20));
        tick->invalidate();
        platform::NotificationCenter::defaultCenter().removeObserver(token);
        if (!prepared) return;
        bridge = std::make_unique<Bridge>(facade);
        if (bridge->start()) return;

        httplib::Client client(bridge->baseUrl());
        auto master = client.Get("/cplp/local/master.m3u8");
        if (!master || master->status != 200) return;
        auto line = master->body.substr(master->body.rfind('\n', master->body.size() - 2) + 1);
        playlistPath = "/cplp/local/" + line.substr(0, line.find('\n'));
        auto playlist = client.Get(playlistPath.c_str());
        if (!playlist || playlist->status != 200) return;
        const auto at = playlist->body.find("/rdtp/local/");
        segmentPath = playlist->body.substr(at, playlist->body.find('\n', at) - at);
        segmentPath.replace(segmentPath.rfind('/') + 1, std::string::npos, "5.ts");
        auto segment = client.Get(segmentPath.c_str());
        if (!segment || segment->status != 302) return;

        plain = std::make_unique<Server>(
            [playlistBody = playlist->body,
             location = segment->get_header_value("Location")](httplib::Server& server) {
                server.Get(".*", [=](const httplib::Request& req, httplib::Response& res) {
                    if (req.path.ends_with(".m3u8")) {
                        res.set_content(playlistBody, "application/vnd.apple.mpegurl");
                    } else {
                        res.set_redirect(location, 302);
                    }
                });
            });
        ready = true;
    }
};

Setup* setup = nullptr;

struct Round {
    std::vector<double> latencies; // milliseconds
    double seconds = 0;
    bool ok = true;
};

// `clients` keep-alive clients share `requestsPerRound` requests of `path` on `baseUrl`.
Round round(const std::string& baseUrl, const std::string& path, int clients, int expectedStatus) {
    Round result;
    std::vector<std::vector<double>> perClient(static_cast<std::size_t>(clients));
    std::atomic<bool> ok{true};
    const auto started = Clock::now();
    std::vector<std::thread> threads;
    for (int c = 0; c < clients; ++c) {
        threads.emplace_back([&, c] {
            httplib::Client client(baseUrl);
            client.set_keep_alive(true);
            for (int i = c; i < requestsPerRound; i += clients) {
                const auto sent = Clock::now();
                auto res = client.Get(path.c_str());
                perClient[static_cast<std::size_t>(c)].push_back(
                    std::chrono::duration<double, std::milli>(Clock::now() - sent).count());
                if (!res || res->status != expectedStatus) ok = false;
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    result.seconds = std::chrono::duration<double>(Clock::now() - started).count();
    for (auto& latencies : perClient)
        result.latencies.insert(result.latencies.end(), latencies.begin(), latencies.end());
    result.ok = ok;
    return result;
}

double percentile(std::vector<double> values, double p) {
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[static_cast<std::size_t>(p * static_cast<double>(values.size() - 1))];
}

void measure(benchmark::State& state, bool playlist) {
    if (!setup || !setup->ready) {
        state.SkipWithError("the bridge could not be set up");
        return;
    }
    const int clients = static_cast<int>(state.range(0));
    const auto& path = playlist ? setup->playlistPath : setup->segmentPath;
    const int status = playlist ? 200 : 302;
    std::vector<double> bridgeLatencies, plainLatencies;
    double bridgeSeconds = 0, plainSeconds = 0;
    for (auto _ : state) {
        auto throughBridge = round(setup->bridge->baseUrl(), path, clients, status);
        auto throughPlain = round(setup->plain->baseUrl(), path, clients, status);
        if (!throughBridge.ok || !throughPlain.ok) {
            state.SkipWithError("an answer was not the expected one");
            return;
        }
        bridgeSeconds += throughBridge.seconds;
        plainSeconds += throughPlain.seconds;
        bridgeLatencies.insert(bridgeLatencies.end(), throughBridge.latencies.begin(),
                               throughBridge.latencies.end());
        plainLatencies.insert(plainLatencies.end(), throughPlain.latencies.begin(),
                              throughPlain.latencies.end());
    }
    const double bridgeRps = static_cast<double>(bridgeLatencies.size()) / bridgeSeconds;
    const double plainRps = static_cast<double>(plainLatencies.size()) / plainSeconds;
    state.counters["bridge_rps"] = bridgeRps;
    state.counters["plain_rps"] = plainRps;
    state.counters["bridge_p99_ms"] = percentile(bridgeLatencies, 0.99);
    state.counters["plain_p99_ms"] = percentile(plainLatencies, 0.99);
    state.counters["ratio_rps"] = plainRps / bridgeRps;
    state.counters["ratio_p99"] = percentile(bridgeLatencies, 0.99) / percentile(plainLatencies, 0.99);
}

void BM_BridgePlaylist(benchmark::State& state) {
    measure(state, true);
}
void BM_BridgeSegmentRedirect(benchmark::State& state) {
    measure(state, false);
}

// 1, 8 and 64 concurrent clients; 8 rounds of each side, alternating.
void clientCounts(benchmark::internal::Benchmark* benchmark) {
    benchmark->Arg(1)->Arg(8)->Arg(64)->Iterations(8)->UseRealTime()->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_BridgePlaylist)->Apply(clientCounts);
BENCHMARK(BM_BridgeSegmentRedirect)->Apply(clientCounts);

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    Setup instance;
    setup = &instance;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    setup = nullptr;
    return 0;
}
