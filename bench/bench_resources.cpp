// What the resource layer costs. Each measurement is paired with a baseline from the same run and
// reported as a ratio, so that the figures hold on any machine:
//  - the redirect decision for one segment (RedirectResource::load, in process, no dispatch:
//    lookup, listener, edge move, fragment function, 302) against only answering the same loading
//    request with a fixed redirect;
//  - a media playlist served by PlayListResource (download, listener, parse, generate, answer)
//    against a plain download of the same playlist from the same loopback origin, timed in
//    alternation.
#include "PlayList/Presentation.h"
#include "Resources/PlayListResource.h"
#include "Resources/RedirectResource.h"
#include "ovalto/Ovalto.h"
#include "platform/LoadingRequest.h"
#include "platform/UrlSession.h"

#include <benchmark/benchmark.h>
#include <httplib.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include <unistd.h>

using namespace ovalto;

namespace {

constexpr int segmentCount = 300; // a 30-minute VOD at 6 s

platform::Url url(const std::string& text) {
    return *platform::Url::parse(text);
}

class NullListener : public PluginListener {
public:
    void prepare(const platform::Url&) override {}
    void conclude() override {}
    void onStartupTime(std::uint64_t) override {}
    void onBuffering(std::uint64_t, std::uint64_t, std::int32_t) override {}
    void onManifestRequest(RequestInfo&) override {}
    void onManifestResponse(ResponseInfo&) override {}
    void onFragmentRequest(RequestInfo& info) override { info.headers.emplace_back("X-Session", "b1"); }
    void onFragmentResponse(ResponseInfo&) override {}
};

std::string mediaPlayList() {
    std::string text = "#EXTM3U\n#EXT-X-VERSION:6\n#EXT-X-TARGETDURATION:6\n#EXT-X-MEDIA-SEQUENCE:1000\n"
                       "#EXT-X-PLAYLIST-TYPE:VOD\n#EXT-X-MAP:URI=\"init.mp4\"\n";
    for (int i = 0; i < segmentCount; ++i)
        text += "#EXTINF:6.006,\nseg" + std::to_string(1000 + i) + ".m4s?token=abc\n";
    return text + "#EXT-X-ENDLIST\n";
}

// A presentation with one variant of `segmentCount` segments, an edge list and a master URL.
struct Model {
    std::shared_ptr<Presentation> presentation = std::make_shared<Presentation>();
    std::shared_ptr<Representation> representation = std::make_shared<Representation>();

    Model() {
        presentation->url.set(url("http://127.0.0.1:9/live/master.m3u8"));
        presentation->edgeList.set({{2, "http://127.0.0.1:9/edge2"}, {1, "http://127.0.0.1:9/edge1"}});
        representation->sequence.set(1000);
        std::vector<std::shared_ptr<Fragment>> fragments;
        for (int i = 0; i < segmentCount; ++i) {
            fragments.push_back(std::make_shared<Fragment>());
            fragments.back()->url.set(
                url("http://127.0.0.1:9/live/hd/seg" + std::to_string(1000 + i) + ".m4s"));
        }
        representation->fragments.set(std::move(fragments));
        auto stream = std::make_shared<Stream>();
        stream->representations.set({{800000, representation}});
        presentation->streams.set({stream});
    }
};

std::shared_ptr<platform::LoadingRequest> loadingRequest(const platform::Url& requestUrl) {
    return platform::LoadingRequest::create(platform::UrlRequest(requestUrl), {},
                                            [](const platform::LoadingOutcome&) {});
}

void BM_RedirectBaseline(benchmark::State& state) {
    const auto requestUrl = url("rdtp://local/0/800000/1150.ts");
    const auto target = url("http://127.0.0.1:9/edge1/hd/seg1150.m4s");
    for (auto _ : state) {
        auto request = loadingRequest(requestUrl);
        request->setRedirect(
            platform::UrlRequest(target, platform::CachePolicy::reloadIgnoringLocalCacheData, 30));
        platform::UrlResponse response{.url = target,
                                       .isHttp = true,
                                       .statusCode = 302,
                                       .headers = {},
                                       .mimeType = std::nullopt,
                                       .expectedContentLength = -1};
        request->setResponse(std::move(response));
        request->finishLoading();
    }
}

void BM_RedirectDecision(benchmark::State& state) {
    Model model;
    auto listener = std::make_shared<NullListener>();
    const Configurations configurations{
        {ConfigurationKey::httpHeaders, Headers{{"X-Client", "bench"}}},
        {ConfigurationKey::function, FragmentFunction([](std::any) {})},
    };
    const auto requestUrl = url("rdtp://local/0/800000/1150.ts");
    bool succeeded = true;
    for (auto _ : state) {
        auto request = loadingRequest(requestUrl);
        RedirectResource resource;
        resource.configurations = configurations;
        resource.pluginListener = listener;
        resource.load(request, model.presentation, [&](Result result) { succeeded &= result.isSuccess(); });
        request->finishLoading();
    }
    if (!succeeded) state.SkipWithError("a redirect failed");
}

// The loopback origin of the playlist measurements.
class Origin {
public:
    Origin()
        : body_(mediaPlayList()) {
        // httplib writes headers and body separately; without this, Nagle and delayed ACKs add
        // tens of milliseconds to every answer.
        server_.set_tcp_nodelay(true);
        server_.Get("/live/hd/index.m3u8", [this](const httplib::Request&, httplib::Response& response) {
            response.set_content(body_, "application/vnd.apple.mpegurl");
        });
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
    }
    ~Origin() {
        server_.stop();
        thread_.join();
    }
    platform::Url playList() const {
        return url("http://127.0.0.1:" + std::to_string(port_) + "/live/hd/index.m3u8");
    }

private:
    std::string body_;
    httplib::Server server_;
    int port_ = 0;
    std::thread thread_;
};

Origin& origin() {
    static Origin instance;
    return instance;
}

// Blocks until `done` is set by a completion on another thread.
struct Waiter {
    std::mutex mutex;
    std::condition_variable changed;
    bool done = false;
    void signal() {
        std::lock_guard lock(mutex);
        done = true;
        changed.notify_all();
    }
    void wait() {
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return done; });
    }
};

// One plain download of the playlist: a session of its own, as the playlist resource makes one.
std::size_t plainDownload(const platform::Url& playList) {
    auto session = platform::UrlSession::create();
    Waiter waiter;
    std::size_t bytes = 0;
    session
        ->dataTask(platform::UrlRequest(playList, platform::CachePolicy::reloadIgnoringLocalCacheData, 30),
                   [&](std::optional<platform::Data> data, std::optional<platform::UrlResponse>,
                       std::optional<platform::Error>) {
                       bytes = data ? data->size() : 0;
                       waiter.signal();
                   })
        ->resume();
    waiter.wait();
    session->finishTasksAndInvalidate();
    return bytes;
}

// The same playlist asked for through the playlist resource: listener, download, parse, generate.
bool throughResource(const Model& model, const std::shared_ptr<PluginListener>& listener,
                     const Configurations& configurations) {
    auto request = loadingRequest(url("cplp://local/0/800000/media.m3u8"));
    auto resource = std::make_shared<PlayListResource>();
    resource->configurations = configurations;
    resource->pluginListener = listener;
    Waiter waiter;
    bool succeeded = false;
    resource->load(request, model.presentation, [&](Result result) {
        succeeded = result.isSuccess();
        waiter.signal();
    });
    waiter.wait();
    request->finishLoading();
    return succeeded;
}

// The two are timed in alternation within one run, so that a busy machine slows both alike.
void BM_PlayListResourceOverDownload(benchmark::State& state) {
    using Clock = std::chrono::steady_clock;
    const auto playList = origin().playList();
    Model model;
    model.representation->url.set(playList);
    const std::shared_ptr<PluginListener> listener = std::make_shared<NullListener>();
    const Configurations configurations{{ConfigurationKey::httpHeaders, Headers{{"X-Client", "bench"}}}};
    Clock::duration download{}, resource{};
    bool succeeded = true;
    for (auto _ : state) {
        const auto start = Clock::now();
        succeeded &= plainDownload(playList) > 0;
        const auto middle = Clock::now();
        succeeded &= throughResource(model, listener, configurations);
        const auto end = Clock::now();
        download += middle - start;
        resource += end - middle;
    }
    if (!succeeded) state.SkipWithError("a request failed");
    const double iterations = static_cast<double>(state.iterations());
    const auto microseconds = [&](Clock::duration total) {
        return std::chrono::duration<double, std::micro>(total).count() / iterations;
    };
    state.counters["download_us"] = microseconds(download);
    state.counters["resource_us"] = microseconds(resource);
    state.counters["ratio"] = microseconds(resource) / microseconds(download);
}

BENCHMARK(BM_RedirectBaseline);
BENCHMARK(BM_RedirectDecision);
BENCHMARK(BM_PlayListResourceOverDownload)->UseRealTime();

// Prints the ratios once all benchmarks have run: CPU time for the in-process redirect decision
// (wall time there mostly measures a busy machine); for the playlist, the paired wall times.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    RatioReporter()
        : ConsoleReporter(isatty(fileno(stdout)) ? OO_Defaults : OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const auto& run : runs) {
            if (run.error_occurred) continue;
            // With --benchmark_repetitions the median stands for the name; else the one run.
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (!median && (run.run_type != Run::RT_Iteration || medians_.count(run.run_name.function_name)))
                continue;
            if (median) medians_.insert(run.run_name.function_name);
            runs_.insert_or_assign(run.run_name.function_name, run);
        }
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        const auto decision = runs_.find("BM_RedirectDecision"), bare = runs_.find("BM_RedirectBaseline");
        if (decision != runs_.end() && bare != runs_.end()) {
            const double d = decision->second.GetAdjustedCPUTime(), b = bare->second.GetAdjustedCPUTime();
            std::printf(
                "redirect decision per segment: %.2fx the bare answer (CPU %.2f us against %.2f us)\n", d / b,
                d / 1000, b / 1000);
        }
        const auto playList = runs_.find("BM_PlayListResourceOverDownload");
        if (playList != runs_.end()) {
            auto counter = [&](const char* name) { return double(playList->second.counters.at(name)); };
            std::printf(
                "playlist resource per media playlist: %.2fx a plain download (%.0f us against %.0f us, "
                "%.0f us added)\n",
                counter("ratio"), counter("resource_us"), counter("download_us"),
                counter("resource_us") - counter("download_us"));
        }
    }

private:
    std::map<std::string, Run> runs_;
    std::set<std::string> medians_;
};

} // namespace

int main(int argc, char** argv) {
    Ovalto::logLevel = OVALogLevel::silent; // logging is not what is measured
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
