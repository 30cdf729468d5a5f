// The resource loader and its resources: playlists fetched from an origin on 127.0.0.1 and
// rewritten, segments redirected from a model as the parsers leave it (hosts under .test are
// never contacted), and the routing of every kind of request.
#include "PlayList/Presentation.h"
#include "Resources/ErrorSink.h"
#include "Resources/OVAResourceLoader.h"
#include "Resources/RedirectResource.h"
#include "Utils/Guarded.h"
#include "ovalto/OvaltoError.h"
#include "ovalto/PluginListener.h"
#include "platform/AssetResourceLoader.h"
#include "platform/DispatchQueue.h"
#include "platform/LoadingRequest.h"
#include "support/LogCapture.h"
#include "support/LoopbackServer.h"
#include "support/TestOrigin.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

namespace ovalto::test {
namespace {

using Kind = platform::LoadingOutcome::Kind;
using Fault = TestOrigin::Fault;
using Strings = std::vector<std::string>;

// A loading request as the player would make it, counting the finishes it receives.
struct PlayerRequest {
    struct State {
        std::atomic<int> finishes{0};
        std::promise<platform::LoadingOutcome> first;
    };
    std::shared_ptr<State> state = std::make_shared<State>();
    std::shared_future<platform::LoadingOutcome> outcome = state->first.get_future().share();
    std::shared_ptr<platform::LoadingRequest> request;

    explicit PlayerRequest(const std::string& url, platform::LoadingRequest::Parts parts = {})
        : request(platform::LoadingRequest::create(platform::UrlRequest(*platform::Url::parse(url)), parts,
                                                   [state = state](const platform::LoadingOutcome& outcome) {
                                                       if (++state->finishes == 1)
                                                           state->first.set_value(outcome);
                                                   })) {}
    // The outcome, once the request has been finished; a failed expectation on a hang (the guard
    // is long enough never to fire on a healthy run, even under the sanitizers).
    platform::LoadingOutcome wait() const {
        if (outcome.wait_for(std::chrono::seconds(60)) == std::future_status::ready) return outcome.get();
        ADD_FAILURE() << request->request().url.absoluteString() << " was never finished";
        return {};
    }
};

std::optional<OvaltoError> ovaltoError(const platform::LoadingOutcome& outcome) {
    if (outcome.kind != Kind::error || !outcome.error) return std::nullopt;
    return OvaltoError::from(*outcome.error);
}

struct RecordingSink : ErrorSink {
    void notify(const platform::Error& error) override {
        errors.with([&](auto& all) { all.push_back(error); });
    }
    Guarded<std::vector<platform::Error>> errors;
};

// A listener whose request hooks a test sets; manifest responses are recorded.
struct TestListener : PluginListener {
    std::function<void(RequestInfo&)> manifestRequest = [](RequestInfo&) {};
    std::function<void(RequestInfo&)> fragmentRequest = [](RequestInfo&) {};
    Guarded<std::vector<ResponseInfo>> manifestResponses;

    void prepare(const platform::Url&) override {}
    void conclude() override {}
    void onStartupTime(std::uint64_t) override {}
    void onBuffering(std::uint64_t, std::uint64_t, std::int32_t) override {}
    void onManifestRequest(RequestInfo& info) override { manifestRequest(info); }
    void onManifestResponse(ResponseInfo& info) override {
        manifestResponses.with([&](auto& all) { all.push_back(info); });
    }
    void onFragmentRequest(RequestInfo& info) override { fragmentRequest(info); }
    void onFragmentResponse(ResponseInfo&) override {}
};

std::string location(const platform::LoadingOutcome& outcome) {
    return outcome.redirect ? outcome.redirect->url.absoluteString() : "<none>";
}

platform::Url url(const std::string& text) {
    return *platform::Url::parse(text);
}

// One audio rendition and two variants: streams 0 (audio, key 0) and 1 (video, 800000 and
// 2000000) once parsed.
constexpr const char* masterPlayList =
    "#EXTM3U\n#EXT-X-VERSION:4\n#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"aud\",NAME=\"en\",URI=\"audio/en.m3u8\"\n"
    "#EXT-X-STREAM-INF:BANDWIDTH=2000000,AUDIO=\"aud\"\nhd/index.m3u8\n"
    "#EXT-X-STREAM-INF:BANDWIDTH=800000,AUDIO=\"aud\"\nsd/index.m3u8\n";

// Segments 120 and 121 with an initialisation section.
constexpr const char* mediaPlayList =
    "#EXTM3U\n#EXT-X-VERSION:6\n#EXT-X-TARGETDURATION:6\n#EXT-X-MEDIA-SEQUENCE:120\n#EXT-X-PLAYLIST-TYPE:"
    "VOD\n"
    "#EXT-X-MAP:URI=\"init.mp4\"\n#EXTINF:6.006,\nseg120.ts\n#EXTINF:5.5,\nseg121.ts\n#EXT-X-ENDLIST\n";

// A loader as the facade holds one, with what it reports recorded.
struct Loader {
    std::shared_ptr<RecordingSink> sink = std::make_shared<RecordingSink>();
    std::shared_ptr<TestListener> listener = std::make_shared<TestListener>();
    OVAResourceLoader loader{sink};

    void configure(const std::string& contentUrl, Configurations extra = {}) {
        extra[ConfigurationKey::contentUrl] = url(contentUrl);
        loader.configurations.set(std::move(extra));
    }
    // Loads `url` and waits; every request is finished exactly once.
    platform::LoadingOutcome fetch(const std::string& url, platform::LoadingRequest::Parts parts = {}) {
        PlayerRequest request(url, parts);
        EXPECT_TRUE(loader.load(request.request));
        auto outcome = request.wait();
        EXPECT_EQ(request.state->finishes, 1);
        return outcome;
    }
};

// One origin for the whole suite (stopping one waits for idle keep-alive connections); every
// test uses paths of its own.
class ResourceTest : public ::testing::Test, protected Loader {
protected:
    static void SetUpTestSuite() { origin = std::make_unique<TestOrigin>(); }
    static void TearDownTestSuite() { origin.reset(); }

    // Serves the sample presentation under `/<dir>/` and makes it the content.
    void servePresentation(const std::string& dir, Configurations extra = {}) {
        origin->serve("/" + dir + "/master.m3u8", masterPlayList);
        for (const char* media : {"hd/index.m3u8", "sd/index.m3u8", "audio/en.m3u8"})
            origin->serve("/" + dir + "/" + media, mediaPlayList);
        configure(origin->url("/" + dir + "/master.m3u8"), std::move(extra));
    }

    static inline std::unique_ptr<TestOrigin> origin;
};

// With nothing configured and an empty presentation, every kind of resource fails in its own way,
// which shows where the request went; each is finished once and notified once.
TEST_F(ResourceTest, RoutesByScheme) {
    const std::tuple<const char*, const char*, int> rows[] = {
        {"cplp://local/master.m3u8", "PlayList URL is not created.", 0x8400},
        {"cplp://local/0/1500000/media.m3u8", "Resource URL is not valid.", 0x8301},
        {"rdtp://local/0/1500000/7.ts", "Stream or Representation is not created.", 0x8501},
        {"rdtp://local/0/x/7.ts", "Resource URl is not valid.", 0x8301},
        {"ckey://k1", "Key request is not valid", 0x8300},
        {"skd://k1", "Certification URL is not set.", 0x8600},
        {"skd:k1", "Fairplay request is not valid", 0x8300},
        {"https://127.0.0.1/master.m3u8", "Loading request is not valid.", 0x8301},
        {"cplpx://local/master.m3u8", "Loading request is not valid.", 0x8301},
        {"CPLP://local/master.m3u8", "Loading request is not valid.", 0x8301},
        {"Rdtp://local/0/1500000/7.ts", "Loading request is not valid.", 0x8301},
    };
    for (const auto& [url, message, code] : rows) {
        SCOPED_TRACE(url);
        const auto before = sink->errors.get().size();
        const auto outcome = fetch(url);
        const auto error = ovaltoError(outcome);
        ASSERT_TRUE(error);
        EXPECT_EQ(std::tuple(error->message(), error->code(), outcome.error->domain),
                  std::tuple(message, code, OvaltoError::domain));
        ASSERT_EQ(sink->errors.get().size(), before + 1);
        EXPECT_EQ(OvaltoError::from(sink->errors.get().back()), error);
    }
}

// The delegate path the player takes: first requests and renewals alike. A request without a
// scheme (or none at all) is refused with a notification and left to the platform to fail.
TEST_F(ResourceTest, AnswersAsTheAssetsDelegateAndRefusesRequestsWithoutAScheme) {
    // The asset holds its delegate weakly.
    auto delegate = std::make_shared<OVAResourceLoader>(sink);
    auto assetLoader = platform::AssetResourceLoader::create();
    assetLoader->setDelegate(delegate, platform::DispatchQueue::serial("test.resources.delegate"));
    for (bool renewal : {false, true}) {
        PlayerRequest request("ckey://k1");
        assetLoader->load(request.request, renewal);
        const auto error = ovaltoError(request.wait());
        ASSERT_TRUE(error);
        EXPECT_EQ(error->message(), "Key request is not valid");
    }
    PlayerRequest refused("k1");
    assetLoader->load(refused.request);
    const auto outcome = refused.wait(); // failed by the platform, not by us
    EXPECT_EQ(outcome.error ? outcome.error->domain : "none", platform::Error::loaderDomain);
    EXPECT_FALSE(delegate->load(nullptr));
    const auto notified = sink->errors.get();
    ASSERT_EQ(notified.size(), 4u);
    for (const auto& error : {notified[2], notified[3]})
        EXPECT_EQ(OvaltoError::from(error), OvaltoError::inputParam("Loading request is not valid.", 0x8301));
}

TEST_F(ResourceTest, BodyThatIsNoPlaylistPassesUnchanged) {
    origin->serve("/junk/master.m3u8", "<html>maintenance</html>\n", "text/html");
    configure(origin->url("/junk/master.m3u8"));
    const auto outcome = fetch("cplp://local/master.m3u8");
    EXPECT_EQ(std::tuple(outcome.kind, outcome.data), std::tuple(Kind::data, "<html>maintenance</html>\n"));
    EXPECT_TRUE(loader.presentation->streams.get().empty());
}

TEST_F(ResourceTest, PlaylistIsTriedUpToFourTimes) {
    // What the player gets: the parsed streams, the library's error, or the transport's.
    const std::string parsed = "2 streams", unavailable = "503: PlayList response is not valid.",
                      lost = std::string(platform::Error::urlDomain) + " " +
                             std::to_string(platform::urlErrorNetworkConnectionLost);
    const std::tuple<const char*, std::vector<TestOrigin::Reply>, int, std::string> rows[] = {
        {"ThreeUnavailableThenOk", {{503}, {503}, {503}, {200}}, 4, parsed},
        {"FourUnavailable", {{503}}, 4, unavailable},
        {"NotFoundOnce", {{404}, {200}}, 2, parsed},
        {"TruncatedOnceThenOk", {{200, {}, Fault::truncate}, {200}}, 2, parsed},
        {"AlwaysTruncated", {{200, {}, Fault::truncate}}, 4, lost},
        {"AlwaysDropped", {{200, {}, Fault::drop}}, 4, lost},
    };
    for (const auto& [name, replies, requests, expected] : rows) {
        SCOPED_TRACE(name);
        const std::string path = std::string("/attempts/") + name + "/master.m3u8";
        origin->serve(path, masterPlayList);
        origin->script(path, replies);
        Loader fresh;
        fresh.configure(origin->url(path));
        const auto outcome = fresh.fetch("cplp://local/master.m3u8");
        // libcurl itself retries once when a reused connection dies before any answer.
        EXPECT_GE(origin->requestCount(path), requests);
        EXPECT_LE(origin->requestCount(path), requests + (replies.back().fault == Fault::drop));
        const auto error = ovaltoError(outcome);
        EXPECT_EQ(outcome.kind == Kind::data
                      ? std::to_string(fresh.loader.presentation->streams.get().size()) + " streams"
                  : error         ? std::to_string(error->code()) + ": " + error->message()
                  : outcome.error ? outcome.error->domain + " " + std::to_string(outcome.error->code)
                                  : "nothing",
                  expected);
        // A failure reaches the sink once, as the player got it.
        const auto notified = fresh.sink->errors.get();
        EXPECT_EQ(notified.size(), outcome.kind == Kind::error ? 1u : 0u);
        EXPECT_EQ(notified.empty() ? 0 : notified[0].code, outcome.error ? outcome.error->code : 0);
    }
}

TEST_F(ResourceTest, ListenerUriIsDownloadedAndIsTheBaseOfTheParse) {
    servePresentation("moved");
    configure(origin->url("/original/master.m3u8"));
    std::vector<std::optional<std::string>> seen;
    listener->manifestRequest = [&](RequestInfo& info) {
        seen.push_back(info.uri);
        info.uri = origin->url("/moved/master.m3u8");
    };
    loader.pluginListener.set(listener);

    ASSERT_EQ(fetch("cplp://local/master.m3u8").kind, Kind::data);
    EXPECT_EQ(seen, (std::vector<std::optional<std::string>>{origin->url("/original/master.m3u8")}));
    EXPECT_EQ(
        std::pair(origin->requestCount("/original/master.m3u8"), origin->requestCount("/moved/master.m3u8")),
        std::pair(0, 1));
    EXPECT_EQ(loader.presentation->stream(1)->representation(800000)->url.get(),
              url(origin->url("/moved/sd/index.m3u8")));

    const auto responses = listener->manifestResponses.get();
    ASSERT_EQ(responses.size(), 1u);
    EXPECT_EQ(std::tuple(responses[0].uri, responses[0].originalUri, responses[0].edgeIP, responses[0].size),
              std::tuple(origin->url("/moved/master.m3u8"), origin->url("/moved/master.m3u8"), "127.0.0.1",
                         static_cast<std::int64_t>(std::string(masterPlayList).size())));
}

TEST_F(ResourceTest, HeadersJoinInListenerConfigurationCustomOrder) {
    origin->serve("/headers/master.m3u8", masterPlayList);
    configure(origin->url("/headers/master.m3u8"),
              {{ConfigurationKey::httpHeaders, Headers{{"X-Token", "config"}}}});
    loader.customHeaders.set(Headers{{"X-Token", "custom"}, {"X-Custom", "before"}});
    listener->manifestRequest = [](RequestInfo& info) { info.headers.emplace_back("X-Token", "listener"); };
    loader.pluginListener.set(listener);

    PlayerRequest request("cplp://local/master.m3u8");
    ASSERT_TRUE(loader.load(request.request));
    // Settings are taken at dispatch: this reaches only later requests.
    loader.customHeaders.set(Headers{{"X-Custom", "after"}});
    ASSERT_EQ(request.wait().kind, Kind::data);

    const auto requests = origin->requests("/headers/master.m3u8");
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(std::pair(requests[0].values("X-Token"), requests[0].values("X-Custom")),
              std::pair(Strings{"listener, config, custom"}, Strings{"before"}));
}

TEST_F(ResourceTest, ListenerTimeoutGovernsEachAttempt) {
    const std::string path = "/slow/master.m3u8";
    origin->serve(path, masterPlayList);
    // The first answer comes far later than the listener's timeout allows, the second at once.
    origin->script(path, {{200, std::chrono::milliseconds(3000)}, {200}});
    configure(origin->url(path));
    listener->manifestRequest = [](RequestInfo& info) { info.timeout = 1; };
    loader.pluginListener.set(listener);
    ASSERT_EQ(fetch("cplp://local/master.m3u8").kind, Kind::data);
    EXPECT_EQ(origin->requestCount(path), 2);
}

TEST_F(ResourceTest, RedirectedPlaylistKeepsItsBaseAndSaysWhereItWasAnswered) {
    origin->serve("/landed/master.m3u8", masterPlayList);
    origin->script("/hop/master.m3u8", {{.fault = Fault::raw,
                                         .raw = "HTTP/1.1 302 Found\r\nLocation: /landed/master.m3u8\r\n"
                                                "Content-Length: 0\r\n\r\n"}});
    configure(origin->url("/hop/master.m3u8"));
    LogCapture log;
    ASSERT_EQ(fetch("cplp://local/master.m3u8").kind, Kind::data);
    EXPECT_TRUE(log.contains("The playlist " + origin->url("/hop/master.m3u8") + " was answered from " +
                             origin->url("/landed/master.m3u8")));
    EXPECT_EQ(loader.presentation->stream(1)->representation(800000)->url.get(),
              url(origin->url("/hop/sd/index.m3u8")));

    log.clear();
    ASSERT_EQ(fetch("cplp://local/1/800000/media.m3u8").kind, Kind::error) << "the origin has no /hop/sd/";
    EXPECT_FALSE(log.contains("was answered from")) << "an answer from the URL asked for is no news";
}

TEST_F(ResourceTest, DrippingOriginEndsInTheTimeoutErrorAtTheOverallDeadline) {
    // An answer dripped a byte at a time, which TestOrigin does not script.
    LoopbackServer hostile([](httplib::Server& http) {
        http.Get("/drip/master.m3u8", [](const httplib::Request&, httplib::Response& response) {
            response.set_chunked_content_provider(
                "application/vnd.apple.mpegurl", [](size_t offset, httplib::DataSink& sink) {
                    if (offset >= 300) return false; // 60 s: far past any deadline here
                    std::this_thread::sleep_for(std::chrono::milliseconds(200));
                    return sink.write(masterPlayList + offset % 8, 1);
                });
        });
    });
    configure(hostile.url("/drip/master.m3u8"));
    // Idle timeout 1 s, so the deadline of all attempts together is 4 s.
    listener->manifestRequest = [](RequestInfo& info) { info.timeout = 1; };
    loader.pluginListener.set(listener);
    const auto outcome = fetch("cplp://local/master.m3u8");
    ASSERT_EQ(outcome.kind, Kind::error);
    EXPECT_EQ(std::tuple(outcome.error->domain, outcome.error->code),
              std::tuple(platform::Error::urlDomain, platform::urlErrorTimedOut));
}

TEST_F(ResourceTest, MasterTooLargeToRewriteFailsTheRequestInsteadOfPassingThrough) {
    // 1,000 variants: the synthetic VIDEO renditions alone would take about 95 MB.
    std::string source = "#EXTM3U\n";
    for (int i = 1; i <= 1000; ++i)
        source += "#EXT-X-STREAM-INF:BANDWIDTH=" + std::to_string(i * 1000) + "\nv" + std::to_string(i) +
                  "/index.m3u8\n";
    origin->serve("/huge/master.m3u8", source);
    configure(origin->url("/huge/master.m3u8"));
    const auto error = ovaltoError(fetch("cplp://local/master.m3u8"));
    ASSERT_TRUE(error);
    EXPECT_EQ(std::tuple(error->code(), error->message().substr(0, 41), loader.presentation->playList.get()),
              std::tuple(0x8400, "The rewritten master playlist would take ", std::nullopt));
}

TEST_F(ResourceTest, BadPlaylistRequestsFailWithoutTouchingTheNetwork) {
    const std::tuple<const char*, bool, bool, const char*, int> rows[] = {
        // URL, data request, URI cleared
        {"cplp://local/1/800000/media.m3u8", false, false, "Playlist request is not valid", 0x8300},
        {"cplp://local/2/800000/media.m3u8", true, false, "Resource URL is not valid.", 0x8301},
        {"cplp://local/-1/800000/media.m3u8", true, false, "Resource URL is not valid.", 0x8301},
        {"cplp://local/1/123/media.m3u8", true, false, "Resource URL is not valid.", 0x8301},
        {"cplp://local/1/800000/media.m3u8", true, true, "PlayList URL is not created.", 0x8400},
    };
    servePresentation("inputs");
    ASSERT_EQ(fetch("cplp://local/master.m3u8").kind, Kind::data);
    const int before = origin->requestCount("/inputs/sd/index.m3u8");
    loader.pluginListener.set(listener);
    for (const auto& [url, dataRequest, clearUri, message, code] : rows) {
        SCOPED_TRACE(url + std::string(clearUri ? " with the URI cleared" : ""));
        listener->manifestRequest = [clear = clearUri](RequestInfo& info) {
            if (clear) info.uri.reset();
        };
        const auto error = ovaltoError(fetch(url, {.dataRequest = dataRequest}));
        ASSERT_TRUE(error);
        EXPECT_EQ(std::tuple(error->message(), error->code()), std::tuple(message, code));
    }
    EXPECT_EQ(origin->requestCount("/inputs/sd/index.m3u8"), before);
}

// Segment requests read the model while reloads of the same media playlist rewrite it, the
// listener replaces fragment URLs and the fragment function reads attributes: every request is
// still finished exactly once, and no segment request sees a half-replaced segment list.
TEST_F(ResourceTest, SegmentRequestsDuringReloadsOfTheSamePlayList) {
    std::atomic<int> reported{0};
    servePresentation("busy", {{ConfigurationKey::httpHeaders, Headers{{"X-Session", "1"}}},
                               {ConfigurationKey::function, FragmentFunction([&](std::any value) {
                                    const auto fragment = std::any_cast<std::shared_ptr<Fragment>>(value);
                                    if (fragment->attributes.get().count("Bitrate") == 1) ++reported;
                                })}});
    listener->fragmentRequest = [](RequestInfo& info) { info.headers.emplace_back("X-Fragment", "1"); };
    loader.pluginListener.set(listener);
    loader.presentation->edgeList.set({{1, origin->url("/edge")}});
    ASSERT_EQ(fetch("cplp://local/master.m3u8").kind, Kind::data);
    ASSERT_EQ(fetch("cplp://local/1/800000/media.m3u8").kind, Kind::data);

    LogCapture log;
    constexpr int segments = 500, reloads = 25;
    std::vector<std::pair<PlayerRequest, Kind>> requests; // with the answer each must get
    const auto send = [&](const std::string& url, Kind kind) {
        requests.emplace_back(PlayerRequest(url), kind);
        return loader.load(requests.back().first.request);
    };
    for (int i = 0; i < segments; ++i) {
        if (i % (segments / reloads) == 0) {
            ASSERT_TRUE(send("cplp://local/1/800000/media.m3u8", Kind::data));
        }
        const char* number[] = {"120", "121", "-1"};
        ASSERT_TRUE(send(std::string("rdtp://local/1/800000/") + number[i % 3] + ".ts", Kind::redirect));
    }
    for (const auto& [request, kind] : requests) {
        EXPECT_EQ(request.wait().kind, kind) << request.request->request().url.absoluteString();
        EXPECT_EQ(request.state->finishes, 1);
    }
    EXPECT_EQ(reported.load(), segments - segments / 3); // every one but the initialisation sections
    EXPECT_EQ(origin->requestCount("/busy/sd/index.m3u8"), reloads + 1);
    EXPECT_TRUE(sink->errors.get().empty());
    EXPECT_FALSE(log.contains("second completion"));
}

// The loader's model as parsers would leave it. Stream 0 (video): key 800000 with sequence 100,
// ten segments (the eighth without a URL) and an initialisation section; key 500000 without a
// sequence. Stream 1 (audio): key 0, sequence 0, two segments, no initialisation section.
class RedirectResourceTest : public ::testing::Test, protected Loader {
protected:
    void SetUp() override {
        loader.presentation->url.set(url("http://origin.test/live/master.m3u8"));
        video->sequence.set(100);
        video->initialURL.set(url("http://origin.test/live/hd/init.mp4"));
        std::vector<std::shared_ptr<Fragment>> fragments;
        for (int i = 0; i < 10; ++i) {
            fragments.push_back(std::make_shared<Fragment>());
            if (i != 7)
                fragments.back()->url.set(url("http://origin.test/live/hd/seg" + std::to_string(i) + ".ts"));
        }
        video->fragments.set(fragments);
        audio->sequence.set(0);
        audio->fragments.set({std::make_shared<Fragment>(), std::make_shared<Fragment>()});
        for (const auto& fragment : audio->fragments.get())
            fragment->url.set(url("http://origin.test/live/en/a.aac"));
        auto videoStream = std::make_shared<Stream>(), audioStream = std::make_shared<Stream>();
        videoStream->representations.set({{800000, video}, {500000, std::make_shared<Representation>()}});
        audioStream->mediaType.set(MediaType::audio);
        audioStream->representations.set({{0, audio}});
        loader.presentation->streams.set({videoStream, audioStream});
    }

    // A second completion would be ignored by the loader, but says so.
    void TearDown() override { EXPECT_FALSE(log.contains("second completion")); }
    std::shared_ptr<Fragment> videoFragment(std::size_t i) const { return video->fragments.get().at(i); }

    std::shared_ptr<Representation> video = std::make_shared<Representation>();
    std::shared_ptr<Representation> audio = std::make_shared<Representation>();
    LogCapture log;
};

TEST_F(RedirectResourceTest, FailuresCompleteOnceWithTheError) {
    const std::tuple<const char*, const char*, int> rows[] = {
        {"/0/800000", "Resource URl is not valid.", 0x8301},
        {"/2/800000/105.ts", "Stream or Representation is not created.", 0x8501},
        {"/0/123/105.ts", "Stream or Representation is not created.", 0x8501},
        {"/0/500000/105.ts", "Stream or Representation is not created.", 0x8501},
        {"/1/0/-1.ts", "Initial url is not created.", 0x8500},
        {"/0/800000/99.ts", "Fragment is not created.", 0x8500},
        {"/0/800000/110.ts", "Fragment is not created.", 0x8500},
        {"/0/800000/107.ts", "Fragment is not created.", 0x8500},
        // N − sequence leaves the 64-bit range.
        {"/0/800000/-9223372036854775808.ts", "Fragment is not created.", 0x8500},
    };
    for (const auto& [path, message, code] : rows) {
        SCOPED_TRACE(path);
        const auto answer = fetch(std::string("rdtp://local") + path);
        const auto error = ovaltoError(answer);
        ASSERT_TRUE(error);
        EXPECT_EQ(std::tuple(error->message(), error->code()), std::tuple(message, code));
        EXPECT_FALSE(answer.redirect || answer.response);
    }
    // Without a loading request at all (the loader never hands one over).
    std::vector<Result> results;
    RedirectResource().load(nullptr, loader.presentation, [&](Result result) { results.push_back(result); });
    ASSERT_TRUE(results.size() == 1 && results[0].error());
    EXPECT_EQ(OvaltoError::from(*results[0].error()),
              OvaltoError::inputParam("Redirect request is not valid", 0x8300));
}

TEST_F(RedirectResourceTest, SegmentNumberMinusSequenceSelectsTheFragment) {
    const auto answer = fetch("rdtp://local/0/800000/105.ts");
    ASSERT_TRUE(answer.kind == Kind::redirect);
    EXPECT_EQ(std::tuple(location(answer), answer.redirect->cachePolicy, answer.redirect->timeoutInterval,
                         answer.redirect->headers.empty()),
              std::tuple("http://origin.test/live/hd/seg5.ts",
                         platform::CachePolicy::reloadIgnoringLocalCacheData, 30, true));
    EXPECT_EQ(std::tuple(answer.response->statusCode, answer.response->url),
              std::tuple(302, answer.redirect->url));
}

TEST_F(RedirectResourceTest, InitialisationSectionIgnoresEdgesListenerHeadersAndFunction) {
    loader.presentation->edgeList.set({{1, "http://edge1.test/cdn"}});
    int calls = 0;
    listener->fragmentRequest = [&](RequestInfo& info) {
        ++calls;
        info.headers.emplace_back("X", "2");
    };
    loader.pluginListener.set(listener);
    loader.configurations.set(Configurations{
        {ConfigurationKey::httpHeaders, Headers{{"X", "1"}}},
        {ConfigurationKey::function, FragmentFunction([&](std::any) { ++calls; })},
    });
    const auto answer = fetch("rdtp://local/0/800000/-1.ts");
    ASSERT_TRUE(answer.kind == Kind::redirect);
    EXPECT_EQ(location(answer), "http://origin.test/live/hd/init.mp4");
    EXPECT_EQ(std::tuple(answer.redirect->timeoutInterval, answer.response->statusCode), std::tuple(30, 302));
    EXPECT_TRUE(answer.response->headers.empty());
    EXPECT_EQ(calls, 0);
}

TEST_F(RedirectResourceTest, MovesTheFragmentOntoThePreferredEdge) {
    const char* origin = "http://origin.test/live/hd/seg5.ts";
    const struct {
        EdgeList edges;
        const char* fragment; // below http://origin.test/
        const char* expected;
        bool masterKnown = true;
    } rows[] = {
        // The smallest priority wins, the earliest among equals.
        {{{2, "http://edge2.test/a"}, {1, "http://edge1.test/cdn"}, {1, "http://edge3.test/b"}},
         "live/hd/seg5.ts",
         "http://edge1.test/cdn/hd/seg5.ts"},
        {{{1, "http://edge1.test/cdn"}}, "live/hd/seg5.ts?t=a1", "http://edge1.test/cdn/hd/seg5.ts?t=a1"},
        {{{0, "http://edge1.test/cdn/"}}, "live/hd/seg5.ts", "http://edge1.test/cdn/hd/seg5.ts"},
        // Signed names and queries stay as written.
        {{{1, "HTTP://Edge1.TEST/Cdn%2F"}},
         "live/hd/Seg%2f5.ts?sig=a%2Fb~c&x=%7e",
         "HTTP://Edge1.TEST/Cdn%2F/hd/Seg%2f5.ts?sig=a%2Fb~c&x=%7e"},
        // Dot segments below the master stay; climbing above it lands beside the edge directory,
        // elsewhere on the origin climbs the same way, and past the edge root stops there.
        {{{1, "http://edge1.test/cdn"}}, "live/hd/./x/../seg5.ts", "http://edge1.test/cdn/hd/./x/../seg5.ts"},
        {{{1, "http://edge1.test/cdn/v1"}},
         "live/../shared/seg%2f5.ts?sig=a%2fb",
         "http://edge1.test/cdn/shared/seg%2f5.ts?sig=a%2fb"},
        {{{1, "http://edge1.test/cdn/v1/"}}, "lively/seg5.ts", "http://edge1.test/cdn/lively/seg5.ts"},
        {{{1, "http://edge1.test"}}, "live/../../seg5.ts", "http://edge1.test/seg5.ts"},
        // No edges, an unparsable one, or no master URL: the origin's URL stays.
        {{}, "live/hd/seg5.ts", origin},
        {{{1, "not a url"}}, "live/hd/seg5.ts", origin},
        {{{1, "http://edge1.test/cdn"}}, "live/hd/seg5.ts", origin, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.expected);
        loader.presentation->edgeList.set(row.edges);
        loader.presentation->url.set(
            row.masterKnown ? platform::Url::parse("http://origin.test/live/master.m3u8") : std::nullopt);
        videoFragment(5)->url.set(url(std::string("http://origin.test/") + row.fragment));
        const auto answer = fetch("rdtp://local/0/800000/105.ts");
        ASSERT_TRUE(answer.kind == Kind::redirect);
        EXPECT_EQ(location(answer), row.expected);
        EXPECT_EQ(answer.response->url.absoluteString(), row.expected);
    }
}

// The listener sees the origin's URL and the media type; its URL replaces the fragment's for
// good, its timeout governs the redirect (a cleared one falls back), and its headers go on the
// 302 under the configured ones, never the custom headers of the playlists.
TEST_F(RedirectResourceTest, ListenerShapesTheRedirectUnderTheConfiguredHeaders) {
    using Seen = std::pair<std::optional<std::string>, std::optional<std::string>>; // uri, type
    std::vector<Seen> seen;
    listener->fragmentRequest = [&](RequestInfo& info) {
        seen.emplace_back(info.uri, info.type);
        if (info.type == "video") info.uri = "http://other.test/x/seg5.ts";
        info.timeout = seen.size() == 1 ? std::optional<std::int32_t>(5) : std::nullopt;
        info.headers = {{"X", "2"}, {"Y", "1"}, {"Y", "2"}, {"Empty", ""}};
    };
    loader.pluginListener.set(listener);
    loader.configurations.set(Configurations{{ConfigurationKey::httpHeaders, Headers{{"X", "1"}}}});
    loader.customHeaders.set(Headers{{"Z", "custom headers stay off segments"}});

    const auto video = fetch("rdtp://local/0/800000/105.ts");
    const auto audio = fetch("rdtp://local/1/0/1.ts");
    const auto again = fetch("rdtp://local/0/800000/105.ts");
    ASSERT_TRUE(video.kind == Kind::redirect);
    EXPECT_EQ(location(video), "http://other.test/x/seg5.ts");
    EXPECT_EQ(std::tuple(video.redirect->timeoutInterval, audio.redirect->timeoutInterval),
              std::tuple(5, 30));
    EXPECT_EQ(seen, (std::vector<Seen>{{"http://origin.test/live/hd/seg5.ts", "video"},
                                       {"http://origin.test/live/en/a.aac", "audio"},
                                       {"http://other.test/x/seg5.ts", "video"}}));
    const auto& headers = again.response->headers;
    EXPECT_EQ(
        std::tuple(headers.value("X"), headers.value("Y"), headers.value("Empty"), headers.all().size()),
        std::tuple("1", "2", "", 3u));
    EXPECT_TRUE(again.redirect->headers.empty());
}

TEST_F(RedirectResourceTest, FunctionReceivesTheFragmentWithItsAttributes) {
    // A value of another type is no function: nothing is written.
    loader.configurations.set(Configurations{{ConfigurationKey::function, std::string("not a function")}});
    ASSERT_TRUE(fetch("rdtp://local/0/800000/105.ts").kind == Kind::redirect);
    EXPECT_TRUE(videoFragment(5)->attributes.get().empty());

    std::vector<std::shared_ptr<Fragment>> reported;
    loader.configurations.set(
        Configurations{{ConfigurationKey::function, FragmentFunction([&](std::any value) {
                            reported.push_back(std::any_cast<std::shared_ptr<Fragment>>(value));
                        })}});
    audio->fragments.get().at(1)->attributes.set({{"StreamIndex", "stale"}, {"Other", "kept"}});
    ASSERT_TRUE(fetch("rdtp://local/0/800000/105.ts").kind == Kind::redirect);
    ASSERT_TRUE(fetch("rdtp://local/1/0/1.ts").kind == Kind::redirect);
    ASSERT_EQ(reported.size(), 2u);
    EXPECT_EQ(reported[0], videoFragment(5));
    using Attributes = std::map<std::string, std::string>;
    EXPECT_EQ(
        reported[0]->attributes.get(),
        (Attributes{
            {"StreamIndex", "0"}, {"MediaType", "video"}, {"FragmentIndex", "105"}, {"Bitrate", "800000"}}));
    EXPECT_EQ(reported[1]->attributes.get(), (Attributes{{"StreamIndex", "1"},
                                                         {"MediaType", "audio"},
                                                         {"FragmentIndex", "1"},
                                                         {"Bitrate", "0"},
                                                         {"Other", "kept"}}));
}

} // namespace
} // namespace ovalto::test
