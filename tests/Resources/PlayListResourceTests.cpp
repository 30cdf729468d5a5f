#include "ResourceTestSupport.h"
#include "Resources/OVAResourceLoader.h"
#include "support/LogCapture.h"
#include "support/LoopbackServer.h"
#include "support/TestOrigin.h"

#include <gtest/gtest.h>

#include <thread>

namespace ovalto::test {
namespace {

using Kind = platform::LoadingOutcome::Kind;
using Reply = TestOrigin::Reply;
using Fault = TestOrigin::Fault;

// One origin for the whole suite (stopping one waits for idle keep-alive connections); every
// test uses paths of its own.
class PlayListResourceTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { origin = std::make_unique<TestOrigin>(); }
    static void TearDownTestSuite() { origin.reset(); }

    // Serves the sample presentation under `/<dir>/`.
    static void servePresentation(const std::string& dir) {
        origin->serve("/" + dir + "/master.m3u8", masterPlayList);
        for (const char* media : {"hd/index.m3u8", "sd/index.m3u8", "audio/en.m3u8"})
            origin->serve("/" + dir + "/" + media, mediaPlayList);
    }

    void configure(const std::string& contentPath, Configurations extra = {}) {
        extra[ConfigurationKey::contentUrl] = *platform::Url::parse(origin->url(contentPath));
        loader.configurations.set(std::move(extra));
    }

    platform::LoadingOutcome fetch(const std::string& url) {
        PlayerRequest request(url);
        EXPECT_TRUE(loader.load(request.request()));
        auto outcome = request.wait();
        EXPECT_EQ(request.finishCount(), 1);
        return outcome;
    }

    static inline std::unique_ptr<TestOrigin> origin;
    std::shared_ptr<RecordingSink> sink = std::make_shared<RecordingSink>();
    std::shared_ptr<TestListener> listener = std::make_shared<TestListener>();
    OVAResourceLoader loader{sink};
};

TEST_F(PlayListResourceTest, MasterAndMediaPassThroughWithRewrittenUris) {
    servePresentation("live");
    configure("/live/master.m3u8");

    const auto master = fetch("cplp://local/master.m3u8");
    ASSERT_EQ(master.kind, Kind::data) << (master.error ? master.error->localizedDescription : "");
    for (const char* uri : {"0/0/media.m3u8", "1/800000/media.m3u8", "1/2000000/media.m3u8"})
        EXPECT_NE(master.data.find(uri), std::string::npos) << uri << " in\n" << master.data;
    EXPECT_EQ(master.data.find("index.m3u8"), std::string::npos) << master.data;

    const auto media = fetch("cplp://local/1/800000/media.m3u8");
    ASSERT_EQ(media.kind, Kind::data);
    for (const char* uri :
         {"rdtp://local/1/800000/-1.ts", "rdtp://local/1/800000/120.ts", "rdtp://local/1/800000/121.ts"})
        EXPECT_NE(media.data.find(uri), std::string::npos) << uri << " in\n" << media.data;
    EXPECT_EQ(media.data.find("seg120.ts"), std::string::npos) << media.data;
    EXPECT_EQ(origin->requestCount("/live/sd/index.m3u8"), 1);

    // The rewritten segment URIs come back to the loader and lead to the real segments.
    const auto segment = fetch("rdtp://local/1/800000/121.ts");
    ASSERT_EQ(segment.kind, Kind::redirect);
    EXPECT_EQ(segment.redirect->url.absoluteString(), origin->url("/live/sd/seg121.ts"));
    const auto initialisation = fetch("rdtp://local/1/800000/-1.ts");
    ASSERT_EQ(initialisation.kind, Kind::redirect);
    EXPECT_EQ(initialisation.redirect->url.absoluteString(), origin->url("/live/sd/init.mp4"));
    EXPECT_TRUE(sink->errors().empty());
}

TEST_F(PlayListResourceTest, BodyThatIsNoPlaylistPassesUnchanged) {
    origin->serve("/junk/master.m3u8", "<html>maintenance</html>\n", "text/html");
    configure("/junk/master.m3u8");
    const auto outcome = fetch("cplp://local/master.m3u8");
    ASSERT_EQ(outcome.kind, Kind::data);
    EXPECT_EQ(outcome.data, "<html>maintenance</html>\n");
    EXPECT_TRUE(loader.presentation->streams.get().empty());
}

struct AttemptRow {
    const char* name;
    std::vector<Reply> replies;
    int requests;
    std::optional<int> ovaltoCode;            // failure with an OvaltoError of this code
    std::optional<std::int64_t> urlErrorCode; // failure with this transport error
};

class PlayListAttemptTest : public PlayListResourceTest, public ::testing::WithParamInterface<AttemptRow> {};

TEST_P(PlayListAttemptTest, TriesUpToFourTimes) {
    const auto& row = GetParam();
    const std::string path = std::string("/attempts/") + row.name + "/master.m3u8";
    origin->serve(path, masterPlayList);
    origin->script(path, row.replies);
    configure(path);

    const auto outcome = fetch("cplp://local/master.m3u8");
    // libcurl itself retries once when a reused connection dies before any answer.
    EXPECT_GE(origin->requestCount(path), row.requests);
    EXPECT_LE(origin->requestCount(path), row.requests + (row.replies.back().fault == Fault::drop ? 1 : 0));
    if (!row.ovaltoCode && !row.urlErrorCode) {
        EXPECT_EQ(outcome.kind, Kind::data) << (outcome.error ? outcome.error->localizedDescription : "");
        EXPECT_EQ(loader.presentation->streams.get().size(), 2u);
        return;
    }
    ASSERT_EQ(outcome.kind, Kind::error);
    if (row.ovaltoCode) {
        const auto error = ovaltoError(outcome);
        ASSERT_TRUE(error);
        EXPECT_EQ(error->code(), *row.ovaltoCode);
        EXPECT_EQ(error->message(), "PlayList response is not valid.");
    } else {
        EXPECT_EQ(outcome.error->domain, platform::Error::urlDomain);
        EXPECT_EQ(outcome.error->code, *row.urlErrorCode);
    }
    ASSERT_EQ(sink->errors().size(), 1u);
    EXPECT_EQ(sink->errors()[0].code, outcome.error->code);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, PlayListAttemptTest,
    ::testing::Values(
        AttemptRow{"ThreeUnavailableThenOk", {{503}, {503}, {503}, {200}}, 4, std::nullopt, std::nullopt},
        AttemptRow{"FourUnavailable", {{503}}, 4, 503, std::nullopt},
        AttemptRow{"NotFoundOnce", {{404}, {200}}, 2, std::nullopt, std::nullopt},
        AttemptRow{"TruncatedOnceThenOk", {{200, {}, Fault::truncate}, {200}}, 2, std::nullopt, std::nullopt},
        AttemptRow{"AlwaysTruncated",
                   {{200, {}, Fault::truncate}},
                   4,
                   std::nullopt,
                   platform::urlErrorNetworkConnectionLost},
        AttemptRow{"AlwaysDropped",
                   {{200, {}, Fault::drop}},
                   4,
                   std::nullopt,
                   platform::urlErrorNetworkConnectionLost}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(PlayListResourceTest, ListenerUriIsDownloadedAndIsTheBaseOfTheParse) {
    servePresentation("moved");
    configure("/original/master.m3u8");
    std::vector<std::optional<std::string>> seen;
    listener->manifestRequest = [&](RequestInfo& info) {
        seen.push_back(info.uri);
        info.uri = origin->url("/moved/master.m3u8");
    };
    loader.pluginListener.set(listener);

    ASSERT_EQ(fetch("cplp://local/master.m3u8").kind, Kind::data);
    EXPECT_EQ(seen, (std::vector<std::optional<std::string>>{origin->url("/original/master.m3u8")}));
    EXPECT_EQ(origin->requestCount("/original/master.m3u8"), 0);
    EXPECT_EQ(origin->requestCount("/moved/master.m3u8"), 1);
    const auto variant = loader.presentation->stream(1)->representation(800000);
    ASSERT_TRUE(variant && variant->url.get());
    EXPECT_EQ(variant->url.get()->absoluteString(), origin->url("/moved/sd/index.m3u8"));

    const auto responses = listener->manifestResponses();
    ASSERT_EQ(responses.size(), 1u);
    EXPECT_EQ(responses[0].uri, origin->url("/moved/master.m3u8"));
    EXPECT_EQ(responses[0].originalUri, origin->url("/moved/master.m3u8"));
    EXPECT_EQ(responses[0].edgeIP, "127.0.0.1");
    EXPECT_EQ(responses[0].size, static_cast<std::int64_t>(std::string(masterPlayList).size()));
}

TEST_F(PlayListResourceTest, HeadersJoinInListenerConfigurationCustomOrder) {
    origin->serve("/headers/master.m3u8", masterPlayList);
    configure("/headers/master.m3u8", {{ConfigurationKey::httpHeaders, Headers{{"X-Token", "config"}}}});
    loader.customHeaders.set(Headers{{"X-Token", "custom"}, {"X-Custom", "before"}});
    listener->manifestRequest = [](RequestInfo& info) { info.headers.emplace_back("X-Token", "listener"); };
    loader.pluginListener.set(listener);

    PlayerRequest request("cplp://local/master.m3u8");
    ASSERT_TRUE(loader.load(request.request()));
    // Settings are taken at dispatch: this reaches only later requests.
    loader.customHeaders.set(Headers{{"X-Custom", "after"}});
    ASSERT_EQ(request.wait().kind, Kind::data);

    const auto requests = origin->requests("/headers/master.m3u8");
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].values("X-Token"), std::vector<std::string>{"listener, config, custom"});
    EXPECT_EQ(requests[0].values("X-Custom"), std::vector<std::string>{"before"});
}

TEST_F(PlayListResourceTest, ListenerTimeoutGovernsEachAttempt) {
    const std::string path = "/slow/master.m3u8";
    origin->serve(path, masterPlayList);
    // The first answer comes far later than the listener's timeout allows, the second at once.
    origin->script(path, {{200, std::chrono::milliseconds(3000)}, {200}});
    configure(path);
    listener->manifestRequest = [](RequestInfo& info) { info.timeout = 1; };
    loader.pluginListener.set(listener);

    ASSERT_EQ(fetch("cplp://local/master.m3u8").kind, Kind::data);
    EXPECT_EQ(origin->requestCount(path), 2);
}

// Origins that misbehave in ways TestOrigin does not script: a redirect into another directory
// and an answer dripped a byte at a time.
LoopbackServer::Routes hostileRoutes() {
    return [](httplib::Server& http) {
        http.Get("/moved/master.m3u8", [](const httplib::Request&, httplib::Response& response) {
            response.set_redirect("/elsewhere/master.m3u8", 302);
        });
        http.Get("/elsewhere/master.m3u8", [](const httplib::Request&, httplib::Response& response) {
            response.set_content(masterPlayList, "application/vnd.apple.mpegurl");
        });
        http.Get("/drip/master.m3u8", [](const httplib::Request&, httplib::Response& response) {
            response.set_chunked_content_provider(
                "application/vnd.apple.mpegurl", [](size_t offset, httplib::DataSink& sink) {
                    if (offset >= 300) return false; // 60 s: far past any deadline here
                    std::this_thread::sleep_for(std::chrono::milliseconds(200));
                    return sink.write(masterPlayList + offset % 8, 1);
                });
        });
    };
}

TEST_F(PlayListResourceTest, RedirectedPlaylistKeepsItsBaseAndSaysWhereItWasAnswered) {
    LoopbackServer hostile(hostileRoutes());
    loader.configurations.set(Configurations{
        {ConfigurationKey::contentUrl, *platform::Url::parse(hostile.url("/moved/master.m3u8"))}});
    LogCapture log;
    ASSERT_EQ(fetch("cplp://local/master.m3u8").kind, Kind::data);
    EXPECT_TRUE(log.contains("The playlist " + hostile.url("/moved/master.m3u8") + " was answered from " +
                             hostile.url("/elsewhere/master.m3u8")));
    const auto streams = loader.presentation->streams.get();
    ASSERT_FALSE(streams.empty());
    EXPECT_EQ(streams.back()->representations.get().begin()->second->url.get()->absoluteString(),
              hostile.url("/moved/sd/index.m3u8"));

    log.clear();
    ASSERT_EQ(fetch("cplp://local/1/800000/media.m3u8").kind, Kind::error) << "the origin has no /moved/sd/";
    EXPECT_FALSE(log.contains("was answered from")) << "an answer from the URL asked for is no news";
}

TEST_F(PlayListResourceTest, DrippingOriginEndsInTheTimeoutErrorAtTheOverallDeadline) {
    LoopbackServer hostile(hostileRoutes());
    loader.configurations.set(Configurations{
        {ConfigurationKey::contentUrl, *platform::Url::parse(hostile.url("/drip/master.m3u8"))}});
    // Idle timeout 1 s, so the deadline of all attempts together is 4 s.
    listener->manifestRequest = [](RequestInfo& info) { info.timeout = 1; };
    loader.pluginListener.set(listener);
    const auto outcome = fetch("cplp://local/master.m3u8");
    ASSERT_EQ(outcome.kind, Kind::error);
    EXPECT_EQ(outcome.error->domain, platform::Error::urlDomain);
    EXPECT_EQ(outcome.error->code, platform::urlErrorTimedOut);
}

TEST_F(PlayListResourceTest, MasterTooLargeToRewriteFailsTheRequestInsteadOfPassingThrough) {
    // 1,000 variants: the synthetic VIDEO renditions alone would take about 95 MB.
    std::string source = "#EXTM3U\n";
    for (int i = 1; i <= 1000; ++i)
        source += "#EXT-X-STREAM-INF:BANDWIDTH=" + std::to_string(i * 1000) + "\nv" + std::to_string(i) +
                  "/index.m3u8\n";
    origin->serve("/huge/master.m3u8", source);
    configure("/huge/master.m3u8");
    const auto outcome = fetch("cplp://local/master.m3u8");
    const auto error = ovaltoError(outcome);
    ASSERT_TRUE(error) << static_cast<int>(outcome.kind);
    EXPECT_EQ(error->code(), 0x8400);
    EXPECT_TRUE(error->message().starts_with("The rewritten master playlist would take "))
        << error->message();
    EXPECT_FALSE(loader.presentation->playList.get());
}

struct InputRow {
    const char* name;
    const char* url;
    bool dataRequest;
    bool clearUri;
    const char* message;
    int code;
};

class PlayListInputTest : public PlayListResourceTest, public ::testing::WithParamInterface<InputRow> {};

TEST_P(PlayListInputTest, FailsWithoutTouchingTheNetwork) {
    const auto& row = GetParam();
    servePresentation("inputs");
    configure("/inputs/master.m3u8");
    ASSERT_EQ(fetch("cplp://local/master.m3u8").kind, Kind::data);
    const int before = origin->requestCount("/inputs/sd/index.m3u8");
    if (row.clearUri) {
        listener->manifestRequest = [](RequestInfo& info) { info.uri.reset(); };
        loader.pluginListener.set(listener);
    }

    platform::LoadingRequest::Parts parts;
    parts.dataRequest = row.dataRequest;
    PlayerRequest request(row.url, parts);
    ASSERT_TRUE(loader.load(request.request()));
    const auto error = ovaltoError(request.wait());
    ASSERT_TRUE(error);
    EXPECT_EQ(error->message(), row.message);
    EXPECT_EQ(error->code(), row.code);
    EXPECT_EQ(origin->requestCount("/inputs/sd/index.m3u8"), before);
}

INSTANTIATE_TEST_SUITE_P(Rows, PlayListInputTest,
                         ::testing::Values(InputRow{"NoDataRequest", "cplp://local/1/800000/media.m3u8",
                                                    false, false, "Playlist request is not valid", 0x8300},
                                           InputRow{"StreamOutOfRange", "cplp://local/2/800000/media.m3u8",
                                                    true, false, "Resource URL is not valid.", 0x8301},
                                           InputRow{"NegativeStream", "cplp://local/-1/800000/media.m3u8",
                                                    true, false, "Resource URL is not valid.", 0x8301},
                                           InputRow{"UnknownKey", "cplp://local/1/123/media.m3u8", true,
                                                    false, "Resource URL is not valid.", 0x8301},
                                           InputRow{"ListenerClearedUri", "cplp://local/1/800000/media.m3u8",
                                                    true, true, "PlayList URL is not created.", 0x8400}),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
} // namespace ovalto::test
