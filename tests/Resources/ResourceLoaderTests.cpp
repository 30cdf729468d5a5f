#include "ResourceTestSupport.h"
#include "Resources/OVAResourceLoader.h"
#include "platform/AssetResourceLoader.h"
#include "platform/DispatchQueue.h"

#include <gtest/gtest.h>

namespace ovalto::test {
namespace {

using Kind = platform::LoadingOutcome::Kind;

class ResourceLoaderTest : public ::testing::Test {
protected:
    std::shared_ptr<RecordingSink> sink = std::make_shared<RecordingSink>();
    OVAResourceLoader loader{sink};
};

struct SchemeRow {
    const char* url;
    const char* message;
    int code;
};

class ResourceLoaderSchemeTest : public ResourceLoaderTest,
                                 public ::testing::WithParamInterface<SchemeRow> {};

// With nothing configured and an empty presentation, every kind of resource fails in its own way,
// which shows where the request went; each is finished once and notified once.
TEST_P(ResourceLoaderSchemeTest, RoutesByScheme) {
    const auto& row = GetParam();
    PlayerRequest request(row.url);
    ASSERT_TRUE(loader.load(request.request()));
    const auto outcome = request.wait();
    ASSERT_EQ(outcome.kind, Kind::error);
    const auto error = ovaltoError(outcome);
    ASSERT_TRUE(error) << outcome.error->localizedDescription;
    EXPECT_EQ(error->message(), row.message);
    EXPECT_EQ(error->code(), row.code);
    EXPECT_EQ(outcome.error->domain, OvaltoError::domain);

    const auto notified = sink->errors();
    ASSERT_EQ(notified.size(), 1u);
    EXPECT_EQ(OvaltoError::from(notified[0]), error);
    EXPECT_EQ(request.finishCount(), 1);
}

INSTANTIATE_TEST_SUITE_P(
    Schemes, ResourceLoaderSchemeTest,
    ::testing::Values(SchemeRow{"cplp://local/master.m3u8", "PlayList URL is not created.", 0x8400},
                      SchemeRow{"cplp://local/0/1500000/media.m3u8", "Resource URL is not valid.", 0x8301},
                      SchemeRow{"rdtp://local/0/1500000/7.ts", "Stream or Representation is not created.",
                                0x8501},
                      SchemeRow{"rdtp://local/0/x/7.ts", "Resource URl is not valid.", 0x8301},
                      SchemeRow{"ckey://k1", "Key request is not valid", 0x8300},
                      SchemeRow{"skd://k1", "Certification URL is not set.", 0x8600},
                      SchemeRow{"skd:k1", "Fairplay request is not valid", 0x8300},
                      SchemeRow{"https://127.0.0.1/master.m3u8", "Loading request is not valid.", 0x8301},
                      SchemeRow{"cplpx://local/master.m3u8", "Loading request is not valid.", 0x8301},
                      SchemeRow{"CPLP://local/master.m3u8", "Loading request is not valid.", 0x8301},
                      SchemeRow{"Rdtp://local/0/1500000/7.ts", "Loading request is not valid.", 0x8301}));

TEST_F(ResourceLoaderTest, RequestWithoutASchemeIsRefusedAndLeftToThePlatform) {
    PlayerRequest request("local/master.m3u8");
    EXPECT_FALSE(loader.load(request.request()));
    EXPECT_FALSE(loader.load(nullptr));
    const auto notified = sink->errors();
    ASSERT_EQ(notified.size(), 2u);
    EXPECT_EQ(OvaltoError::from(notified[0]),
              OvaltoError::inputParam("Loading request is not valid.", 0x8301));
    EXPECT_FALSE(request.request()->isFinished());
}

// The delegate path the player takes: first requests and renewals alike.
TEST_F(ResourceLoaderTest, AnswersAsTheAssetsDelegate) {
    auto delegate = std::make_shared<OVAResourceLoader>(sink);
    auto assetLoader = platform::AssetResourceLoader::create();
    assetLoader->setDelegate(delegate, platform::DispatchQueue::serial("test.resources.delegate"));
    for (bool renewal : {false, true}) {
        PlayerRequest request("ckey://k1");
        assetLoader->load(request.request(), renewal);
        const auto error = ovaltoError(request.wait());
        ASSERT_TRUE(error);
        EXPECT_EQ(error->message(), "Key request is not valid");
    }
    PlayerRequest refused("k1");
    assetLoader->load(refused.request());
    const auto outcome = refused.wait();
    ASSERT_EQ(outcome.kind, Kind::error);
    EXPECT_EQ(outcome.error->domain, platform::Error::loaderDomain); // failed by the platform, not by us
    EXPECT_EQ(sink->errors().size(), 3u);
}

} // namespace
} // namespace ovalto::test
