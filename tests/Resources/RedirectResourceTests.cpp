#include "ResourceTestSupport.h"
#include "Resources/RedirectResource.h"

#include <gtest/gtest.h>

namespace ovalto::test {
namespace {

struct Answer {
    std::optional<Result> result;
    int completions = 0;
    std::optional<platform::UrlRequest> redirect;
    std::optional<platform::UrlResponse> response;

    std::optional<OvaltoError> error() const {
        if (!result || result->isSuccess()) return std::nullopt;
        return OvaltoError::from(*result->error());
    }
};

class RedirectResourceTest : public ::testing::Test {
protected:
    Answer load(const std::string& requestUrl) { return load(PlayerRequest(requestUrl).request()); }
    Answer load(const std::shared_ptr<platform::LoadingRequest>& request) {
        Answer answer;
        resource.load(request, model.presentation, [&](Result result) {
            ++answer.completions;
            answer.result = std::move(result);
        });
        if (request) {
            answer.redirect = request->redirect();
            answer.response = request->response();
        }
        return answer;
    }

    SampleModel model;
    RedirectResource resource;
    std::shared_ptr<TestListener> listener = std::make_shared<TestListener>();
};

struct FailureRow {
    const char* path;
    const char* message;
    int code;
};

class RedirectFailureTest : public RedirectResourceTest, public ::testing::WithParamInterface<FailureRow> {};

TEST_P(RedirectFailureTest, CompletesOnceWithTheError) {
    const auto& row = GetParam();
    const auto answer = load(std::string("rdtp://local") + row.path);
    EXPECT_EQ(answer.completions, 1);
    ASSERT_TRUE(answer.error()) << row.path;
    EXPECT_EQ(answer.error()->message(), row.message);
    EXPECT_EQ(answer.error()->code(), row.code);
    EXPECT_FALSE(answer.redirect);
    EXPECT_FALSE(answer.response);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, RedirectFailureTest,
    ::testing::Values(FailureRow{"/0/800000", "Resource URl is not valid.", 0x8301},
                      FailureRow{"/2/800000/105.ts", "Stream or Representation is not created.", 0x8501},
                      FailureRow{"/0/123/105.ts", "Stream or Representation is not created.", 0x8501},
                      FailureRow{"/0/500000/105.ts", "Stream or Representation is not created.", 0x8501},
                      FailureRow{"/1/0/-1.ts", "Initial url is not created.", 0x8500},
                      FailureRow{"/0/800000/99.ts", "Fragment is not created.", 0x8500},
                      FailureRow{"/0/800000/110.ts", "Fragment is not created.", 0x8500},
                      FailureRow{"/0/800000/107.ts", "Fragment is not created.", 0x8500},
                      // N − sequence leaves the 64-bit range.
                      FailureRow{"/0/800000/-9223372036854775808.ts", "Fragment is not created.", 0x8500}));

TEST_F(RedirectResourceTest, WithoutALoadingRequestFailsAsInvalid) {
    const auto answer = load(std::shared_ptr<platform::LoadingRequest>());
    EXPECT_EQ(answer.completions, 1);
    ASSERT_TRUE(answer.error());
    EXPECT_EQ(answer.error()->message(), "Redirect request is not valid");
    EXPECT_EQ(answer.error()->code(), 0x8300);
}

TEST_F(RedirectResourceTest, SegmentNumberMinusSequenceSelectsTheFragment) {
    const auto answer = load("rdtp://local/0/800000/105.ts");
    ASSERT_TRUE(answer.result && answer.result->isSuccess());
    EXPECT_EQ(answer.completions, 1);
    EXPECT_EQ(answer.redirect->url.absoluteString(), "http://origin.test/live/hd/seg5.ts");
    EXPECT_EQ(answer.redirect->cachePolicy, platform::CachePolicy::reloadIgnoringLocalCacheData);
    EXPECT_EQ(answer.redirect->timeoutInterval, 30);
    EXPECT_TRUE(answer.redirect->headers.empty());
    EXPECT_EQ(answer.response->statusCode, 302);
    EXPECT_EQ(answer.response->url, answer.redirect->url);
}

TEST_F(RedirectResourceTest, InitialisationSectionIgnoresEdgesListenerHeadersAndFunction) {
    model.presentation->edgeList.set({{1, "http://edge1.test/cdn"}});
    int listenerCalls = 0, functionCalls = 0;
    listener->fragmentRequest = [&](RequestInfo& info) {
        ++listenerCalls;
        info.headers.emplace_back("X", "2");
    };
    resource.pluginListener = listener;
    resource.configurations = Configurations{
        {ConfigurationKey::httpHeaders, Headers{{"X", "1"}}},
        {ConfigurationKey::function, FragmentFunction([&](std::any) { ++functionCalls; })},
    };

    const auto answer = load("rdtp://local/0/800000/-1.ts");
    ASSERT_TRUE(answer.result && answer.result->isSuccess());
    EXPECT_EQ(answer.redirect->url.absoluteString(), "http://origin.test/live/hd/init.mp4");
    EXPECT_EQ(answer.redirect->timeoutInterval, 30);
    EXPECT_EQ(answer.response->statusCode, 302);
    EXPECT_TRUE(answer.response->headers.empty());
    EXPECT_EQ(listenerCalls, 0);
    EXPECT_EQ(functionCalls, 0);
}

struct EdgeRow {
    const char* name;
    EdgeList edges;
    const char* fragmentUrl;
    bool masterKnown;
    const char* expected;
};

class RedirectEdgeTest : public RedirectResourceTest, public ::testing::WithParamInterface<EdgeRow> {};

TEST_P(RedirectEdgeTest, MovesTheFragmentOntoThePreferredEdge) {
    const auto& row = GetParam();
    model.presentation->edgeList.set(row.edges);
    if (!row.masterKnown) model.presentation->url.set(std::nullopt);
    model.videoFragment(5)->url.set(url(row.fragmentUrl));
    const auto answer = load("rdtp://local/0/800000/105.ts");
    ASSERT_TRUE(answer.result && answer.result->isSuccess());
    EXPECT_EQ(answer.redirect->url.absoluteString(), row.expected);
    EXPECT_EQ(answer.response->url.absoluteString(), row.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, RedirectEdgeTest,
    ::testing::Values(
        EdgeRow{"SmallestPriorityEarliestAmongEquals",
                {{2, "http://edge2.test/a"}, {1, "http://edge1.test/cdn"}, {1, "http://edge3.test/b"}},
                "http://origin.test/live/hd/seg5.ts",
                true,
                "http://edge1.test/cdn/hd/seg5.ts"},
        EdgeRow{"QueryStaysAQuery",
                {{1, "http://edge1.test/cdn"}},
                "http://origin.test/live/hd/seg5.ts?token=a1",
                true,
                "http://edge1.test/cdn/hd/seg5.ts?token=a1"},
        EdgeRow{"EdgeWithTrailingSlash",
                {{0, "http://edge1.test/cdn/"}},
                "http://origin.test/live/hd/seg5.ts",
                true,
                "http://edge1.test/cdn/hd/seg5.ts"},
        EdgeRow{"SignedNameAndQueryAsWritten",
                {{1, "HTTP://Edge1.TEST/Cdn%2F"}},
                "http://origin.test/live/hd/Seg%2f5.ts?sig=a%2Fb~c&x=%7e",
                true,
                "HTTP://Edge1.TEST/Cdn%2F/hd/Seg%2f5.ts?sig=a%2Fb~c&x=%7e"},
        EdgeRow{"DotSegmentsBelowTheMasterStay",
                {{1, "http://edge1.test/cdn"}},
                "http://origin.test/live/hd/./x/../seg5.ts",
                true,
                "http://edge1.test/cdn/hd/./x/../seg5.ts"},
        EdgeRow{"ClimbingAboveTheMasterLandsBesideTheEdgeDirectory",
                {{1, "http://edge1.test/cdn/v1"}},
                "http://origin.test/live/../shared/seg%2f5.ts?sig=a%2fb",
                true,
                "http://edge1.test/cdn/shared/seg%2f5.ts?sig=a%2fb"},
        EdgeRow{"ElsewhereOnTheOriginClimbsTheSameWay",
                {{1, "http://edge1.test/cdn/v1/"}},
                "http://origin.test/lively/seg5.ts",
                true,
                "http://edge1.test/cdn/lively/seg5.ts"},
        EdgeRow{"ClimbingPastTheEdgeRootStopsThere",
                {{1, "http://edge1.test"}},
                "http://origin.test/live/../../seg5.ts",
                true,
                "http://edge1.test/seg5.ts"},
        EdgeRow{
            "NoEdges", {}, "http://origin.test/live/hd/seg5.ts", true, "http://origin.test/live/hd/seg5.ts"},
        EdgeRow{"UnparsableEdgeKeepsTheOrigin",
                {{1, "not a url"}},
                "http://origin.test/live/hd/seg5.ts",
                true,
                "http://origin.test/live/hd/seg5.ts"},
        EdgeRow{"NoMasterUrlSkipsTheMove",
                {{1, "http://edge1.test/cdn"}},
                "http://origin.test/live/hd/seg5.ts",
                false,
                "http://origin.test/live/hd/seg5.ts"}),
    [](const auto& info) { return std::string(info.param.name); });

// The listener sees the origin's URL and the media type; its URL replaces the fragment's for
// good, its timeout governs the redirect (a cleared one falls back), and its headers go on the
// 302 under the configured ones, never the custom headers of the playlists.
TEST_F(RedirectResourceTest, ListenerShapesTheRedirectUnderTheConfiguredHeaders) {
    std::vector<std::pair<std::optional<std::string>, std::optional<std::string>>> seen; // uri, type
    listener->fragmentRequest = [&](RequestInfo& info) {
        seen.emplace_back(info.uri, info.type);
        if (info.type == "video") info.uri = "http://other.test/x/seg5.ts";
        info.timeout = seen.size() == 1 ? std::optional<std::int32_t>(5) : std::nullopt;
        info.headers = {{"X", "2"}, {"Y", "1"}, {"Y", "2"}, {"Empty", ""}};
    };
    resource.pluginListener = listener;
    resource.configurations = Configurations{{ConfigurationKey::httpHeaders, Headers{{"X", "1"}}}};
    resource.customHeaders = Headers{{"Z", "custom headers stay off segments"}};

    const auto video = load("rdtp://local/0/800000/105.ts");
    const auto audio = load("rdtp://local/1/0/1.ts");
    const auto again = load("rdtp://local/0/800000/105.ts");
    ASSERT_TRUE(video.result && video.result->isSuccess());
    EXPECT_EQ(video.redirect->url.absoluteString(), "http://other.test/x/seg5.ts");
    EXPECT_EQ(video.redirect->timeoutInterval, 5);
    EXPECT_EQ(audio.redirect->timeoutInterval, 30);
    using Seen = std::pair<std::optional<std::string>, std::optional<std::string>>;
    EXPECT_EQ(seen, (std::vector<Seen>{{"http://origin.test/live/hd/seg5.ts", "video"},
                                       {"http://origin.test/live/en/a.aac", "audio"},
                                       {"http://other.test/x/seg5.ts", "video"}}));
    const auto& headers = again.response->headers;
    EXPECT_EQ(headers.value("X"), "1");
    EXPECT_EQ(headers.value("Y"), "2");
    EXPECT_EQ(headers.value("Empty"), "");
    EXPECT_EQ(headers.all().size(), 3u);
    EXPECT_TRUE(again.redirect->headers.empty());
}

TEST_F(RedirectResourceTest, FunctionReceivesTheFragmentWithItsAttributes) {
    // A value of another type is no function: nothing is written.
    resource.configurations = Configurations{{ConfigurationKey::function, std::string("not a function")}};
    ASSERT_TRUE(load("rdtp://local/0/800000/105.ts").result->isSuccess());
    EXPECT_TRUE(model.videoFragment(5)->attributes.get().empty());

    std::vector<std::shared_ptr<Fragment>> reported;
    resource.configurations = Configurations{
        {ConfigurationKey::function, FragmentFunction([&](std::any value) {
             reported.push_back(std::any_cast<std::shared_ptr<Fragment>>(value));
         })},
    };
    model.audio->fragments.get().at(1)->attributes.set({{"StreamIndex", "stale"}, {"Other", "kept"}});

    ASSERT_TRUE(load("rdtp://local/0/800000/105.ts").result->isSuccess());
    ASSERT_TRUE(load("rdtp://local/1/0/1.ts").result->isSuccess());
    ASSERT_EQ(reported.size(), 2u);
    EXPECT_EQ(reported[0], model.videoFragment(5));
    EXPECT_EQ(
        reported[0]->attributes.get(),
        (std::map<std::string, std::string>{
            {"StreamIndex", "0"}, {"MediaType", "video"}, {"FragmentIndex", "105"}, {"Bitrate", "800000"}}));
    EXPECT_EQ(reported[1]->attributes.get(), (std::map<std::string, std::string>{{"StreamIndex", "1"},
                                                                                 {"MediaType", "audio"},
                                                                                 {"FragmentIndex", "1"},
                                                                                 {"Bitrate", "0"},
                                                                                 {"Other", "kept"}}));
}

} // namespace
} // namespace ovalto::test
