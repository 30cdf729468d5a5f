// Content keys against the licence server on loopback: the key resource of playback, the
// key-loader delegate of offline downloads, and protected playback through the facade.
#include "LicenseServer.h"
#include "Resources/FairPlayKeyResource.h"
#include "Resources/LicenseExchange.h"
#include "ovalto/Notifications.h"
#include "ovalto/OVAKeyLoaderDelegate.h"
#include "ovalto/Ovalto.h"
#include "ovalto/OvaltoError.h"
#include "platform/AssetResourceLoader.h"
#include "platform/Device.h"
#include "platform/KeyValueStore.h"
#include "platform/LoadingRequest.h"
#include "platform/NotificationCenter.h"
#include "platform/Player.h"
#include "platform/PlayerItem.h"
#include "platform/SegmentCipher.h"
#include "support/MainLoop.h"
#include "support/TestOrigin.h"

#include <gtest/gtest.h>

#include <spawn.h>
#include <sys/wait.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <regex>

using namespace ovalto;
using namespace std::chrono_literals;
using platform::Data;
using platform::Error;
using platform::Url;
using tool::LicenseServer;
using Fault = LicenseServer::Fault;

extern char** environ;

namespace {

const platform::ContentKey demoKey{Data(16, '\x11'), Data(16, '\x22'), "abc123", 0};

const platform::KeyVendorIdentity& identity() {
    static const auto made = platform::KeyVendorIdentity::generate("Ovalto test licences");
    return *made;
}

// "demo" when the demo key comes out of reading a key, else what did.
std::string keyOf(const std::variant<platform::ContentKey, Error>& key) {
    if (const auto* error = std::get_if<Error>(&key)) return "error " + std::to_string(error->code);
    const auto& read = std::get<platform::ContentKey>(key);
    return read.key == demoKey.key && read.iv == demoKey.iv ? "demo" : "another key";
}

// What a finished key request handed the player.
struct KeyAnswer {
    platform::LoadingOutcome outcome;
    int finishes = 0;
    // The key the player gets out of the answer.
    std::string key() const {
        return keyOf(platform::ContentKey::fromKeyAnswer(outcome.data, outcome.contentType,
                                                         outcome.keySession, "abc123"));
    }
};

std::shared_ptr<platform::LoadingRequest> keyRequest(const std::string& url, KeyAnswer& answer) {
    return platform::LoadingRequest::create(platform::UrlRequest(*Url::parse(url)),
                                            {.contentInformationRequest = true},
                                            [&answer](const platform::LoadingOutcome& outcome) {
                                                ++answer.finishes;
                                                answer.outcome = outcome;
                                            });
}

// Reading the key stored for "abc123", as keyOf tells it.
std::string storedKey() {
    return keyOf(
        platform::ContentKey::unseal(platform::KeyValueStore::standard().data("abc123").value_or("")));
}

int ovaltoCode(const std::optional<Error>& error) {
    auto typed = error ? OvaltoError::from(*error) : std::nullopt;
    return typed ? typed->code() : -1;
}

class LicenseTest : public ::testing::Test {
protected:
    void SetUp() override {
        Ovalto::logLevel = OVALogLevel::silent;
        Ovalto::deleteLicense("abc123");
        ASSERT_TRUE(server.start());
        certificates.serve("/app.cer", identity().certificatePem(), "application/x-x509-ca-cert");
        configurations[ConfigurationKey::licenseServerUrl] = *Url::parse(server.url());
    }
    void TearDown() override {
        Ovalto::deleteLicense("abc123");
        platform::Device::setSystemVersion("");
        Ovalto::logLevel = OVALogLevel::debug;
    }

    // One playback key request through the key resource, as the loader runs it.
    KeyAnswer playbackKey() {
        KeyAnswer answer;
        auto request = keyRequest("skd://abc123", answer);
        FairPlayKeyResource resource;
        resource.configurations = configurations;
        resource.load(request, nullptr, [&](Result result) {
            result.error() ? request->finishLoading(*result.error()) : request->finishLoading();
        });
        return answer;
    }
    // The key-loader delegate of offline downloads, reporting its errors into `reported`.
    std::shared_ptr<OVAKeyLoaderDelegate> keyLoader() {
        auto delegate = OVAKeyLoaderDelegate::create();
        delegate->configurations = configurations;
        delegate->onError = [this](const Error& error) { reported.push_back(error); };
        return delegate;
    }

    LicenseServer server{identity(), {.keys = {{"abc123", demoKey}}}};
    test::TestOrigin certificates;
    Configurations configurations{{ConfigurationKey::certData, identity().certificatePem()}};
    std::shared_ptr<platform::AssetResourceLoader> loader = platform::AssetResourceLoader::create();
    std::vector<Error> reported;
};

TEST_F(LicenseTest, CertificateComesFromDataBeforeUrlAndFailsClearly) {
    const auto url = *Url::parse(certificates.url("/app.cer")),
               missing = *Url::parse(certificates.url("/no.cer"));
    // what, certificate data, URL, reads of the URL, what comes out of the answer (empty: the request
    // fails), code of the error (-1: no error, or not one of ours)
    const std::tuple<const char*, std::optional<Data>, std::optional<Url>, int, std::string, int> rows[] = {
        {"data wins over the URL", identity().certificatePem(), missing, 0, "demo", -1},
        {"URL when there is no data", std::nullopt, url, 1, "demo", -1},
        {"neither", std::nullopt, std::nullopt, 0, "", 0x8600},
        {"data that is no certificate", Data("not a certificate"), url, 0, "", -1},
        {"URL that is not there", std::nullopt, missing, 0, "", -1},
    };
    for (const auto& [what, data, url, urlReads, key, code] : rows) {
        SCOPED_TRACE(what);
        const int readsBefore = certificates.requestCount("/app.cer");
        configurations.erase(ConfigurationKey::certData);
        configurations.erase(ConfigurationKey::certUrl);
        if (data) configurations[ConfigurationKey::certData] = *data;
        if (url) configurations[ConfigurationKey::certUrl] = *url;
        const auto answer = playbackKey();
        EXPECT_EQ(std::tuple(answer.finishes, certificates.requestCount("/app.cer") - readsBefore,
                             ovaltoCode(answer.outcome.error), answer.outcome.error ? "" : answer.key()),
                  std::tuple(1, urlReads, code, key));
    }
}

TEST_F(LicenseTest, AnswersOfTheServerBecomeAKeyOrTheErrorTheyDeserve) {
    // what, ckc wrapping, fault, its status, error domain of the key request (empty: it succeeds),
    // code of that error (-1: not one of ours), what comes out of the answer (empty: the request fails)
    const std::tuple<const char*, bool, Fault, int, std::string, int, std::string> rows[] = {
        {"bare base64", false, Fault::none, 500, "", -1, "demo"},
        {"wrapped in ckc with a line break", true, Fault::none, 500, "", -1, "demo"},
        {"403", false, Fault::status, 403, "403 error", -1, ""},
        {"empty body", false, Fault::empty, 500, OvaltoError::domain, 0x8603, ""},
        {"not base64", true, Fault::garbage, 500, OvaltoError::domain, 0x8603, ""},
        {"tampered ckc", false, Fault::tamper, 500, "", -1,
         "error " + std::to_string(platform::loaderErrorInvalidKeyResponse)},
        {"ckc of another asset", false, Fault::otherAsset, 500, "", -1,
         "error " + std::to_string(platform::loaderErrorKeyForAnotherAsset)},
    };
    for (const auto& [what, wrap, fault, status, errorDomain, code, key] : rows) {
        SCOPED_TRACE(what);
        LicenseServer faulty(
            identity(), {.keys = {{"abc123", demoKey}}, .wrap = wrap, .fault = fault, .faultStatus = status});
        ASSERT_TRUE(faulty.start());
        configurations[ConfigurationKey::licenseServerUrl] = *Url::parse(faulty.url());
        const auto answer = playbackKey();
        // Never retried; no content type on the licence path.
        const Error error = answer.outcome.error.value_or(Error{});
        EXPECT_EQ(std::tuple(answer.finishes, faulty.exchanges().size(), error.domain,
                             ovaltoCode(answer.outcome.error), answer.outcome.contentType,
                             answer.outcome.error ? "" : answer.key()),
                  std::tuple(1, 1u, errorDomain, code, std::nullopt, key));
        // The status is in the domain's name, not in the code.
        EXPECT_TRUE(fault != Fault::status || error.code == 0) << error.code;
    }
}

TEST_F(LicenseTest, RequestGoesOnTheWireAsWritten) {
    configurations[ConfigurationKey::licenseServerHeader] = Headers{{"X-Token", "t1"}};
    // The body is form-encoded but not percent-encoded: "+", "/" and "=" of the base64 arrive
    // as they are, or the server could not open the key request. Random session keys put each
    // of them into some request soon.
    std::string seen;
    for (int i = 0; i < 40 && !(seen.find('+') != std::string::npos && seen.find('/') != std::string::npos);
         ++i) {
        ASSERT_FALSE(playbackKey().outcome.error);
        const auto exchange = server.exchanges().back();
        ASSERT_EQ(exchange.status, 200) << exchange.reason;
        EXPECT_TRUE(std::regex_match(exchange.body, std::regex("spc=[A-Za-z0-9+/]+=*&assetId=abc123")))
            << exchange.body;
        EXPECT_FALSE(exchange.osVersion); // only the delegate sends it
        seen += exchange.body.substr(4, exchange.body.find('&') - 4);
    }
    for (const char c : {'+', '/', '='})
        EXPECT_NE(seen.find(c), std::string::npos) << c;

    auto request = LicenseExchange::request(configurations, "spc", "abc123", std::nullopt);
    const auto& made = std::get<platform::UrlRequest>(request);
    const std::vector<std::pair<std::string, std::string>> headers{
        {"X-Token", "t1"}, {"Content-type", "application/x-www-form-urlencoded"}, {"Content-Length", "23"}};
    EXPECT_EQ(std::tuple(made.headers.all(), made.httpMethod, made.timeoutInterval),
              std::tuple(headers, "POST", 30.0));
    configurations.erase(ConfigurationKey::licenseServerUrl);
    EXPECT_EQ(ovaltoCode(playbackKey().outcome.error), 0x8601);
}

TEST_F(LicenseTest, StoredKeyIsAnsweredWithoutTheNetworkUntilDeleted) {
    platform::Device::setSystemVersion("10.3");
    KeyAnswer fetched;
    EXPECT_TRUE(
        keyLoader()->shouldWaitForLoadingOfRequestedResource(*loader, keyRequest("skd://abc123", fetched)));
    ASSERT_EQ(fetched.finishes, 1);
    EXPECT_EQ(server.exchanges().back().osVersion, "10.3");
    platform::Device::setSystemVersion("");

    auto stored = playbackKey(); // answered from the store
    EXPECT_EQ(
        std::tuple(server.exchanges().size(), stored.outcome.contentType, stored.key(), stored.outcome.data),
        std::tuple(1u, platform::streamingKeyDeliveryPersistentContentKeyType, "demo", fetched.outcome.data));

    Ovalto::deleteLicense("abc123");
    auto again = playbackKey();
    EXPECT_EQ(std::tuple(server.exchanges().size(), again.outcome.contentType, again.key()),
              std::tuple(2u, std::nullopt, "demo"));
}

TEST_F(LicenseTest, DelegateBelowElevenAnswersTheRequestOnceAndReportsFailures) {
    platform::Device::setSystemVersion("10.3");
    auto delegate = keyLoader();
    server.setFault(Fault::empty);
    KeyAnswer empty, invalid, old;
    EXPECT_FALSE(
        delegate->shouldWaitForLoadingOfRequestedResource(*loader, keyRequest("skd://abc123", empty)));
    EXPECT_EQ(std::tuple(empty.finishes, ovaltoCode(empty.outcome.error),
                         platform::KeyValueStore::standard().data("abc123").has_value()),
              std::tuple(1, 0x8603, false));
    // No host: not answered, but reported.
    EXPECT_FALSE(delegate->shouldWaitForLoadingOfRequestedResource(*loader, keyRequest("skd:", invalid)));
    EXPECT_EQ(std::tuple(invalid.finishes, reported.size()), std::tuple(0, 2u));

    platform::Device::setSystemVersion("8.4"); // no persistable keys at all
    EXPECT_FALSE(delegate->shouldWaitForLoadingOfRequestedResource(*loader, keyRequest("skd://abc123", old)));
    ASSERT_EQ(reported.size(), 2u);
    EXPECT_EQ(std::tuple(old.finishes, ovaltoCode(reported[0]), ovaltoCode(reported[1]),
                         server.exchanges().size(), delegate->identifieres().empty()),
              std::tuple(0, 0x8603, 0x8300, 1u, true));
}

TEST_F(LicenseTest, DelegateFromElevenStartsOneSessionPerAssetAndStoresItsKey) {
    auto delegate = keyLoader();
    KeyAnswer first, second;
    EXPECT_FALSE(
        delegate->shouldWaitForLoadingOfRequestedResource(*loader, keyRequest("skd://abc123", first)));
    EXPECT_FALSE(
        delegate->shouldWaitForRenewalOfRequestedResource(*loader, keyRequest("skd://abc123", second)));
    EXPECT_EQ(delegate->identifieres(), std::vector<std::string>{"abc123"});

    EXPECT_TRUE(test::runMainUntil([] { return storedKey() == "demo"; })) << storedKey();
    const auto exchanges = server.exchanges();
    ASSERT_EQ(exchanges.size(), 1u);
    // The loading requests are not answered, and nothing went wrong.
    EXPECT_EQ(std::tuple(exchanges[0].persistent, exchanges[0].osVersion, first.finishes + second.finishes,
                         reported.size()),
              std::tuple(true, platform::Device::keySystemContractVersion, 0, 0u));
}

TEST_F(LicenseTest, ProtectedStreamPlaysOnlyWithTheRightKey) {
    test::TestOrigin origin;
    origin.serve("/p/media.m3u8",
                 "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:1\n#EXT-X-MEDIA-SEQUENCE:0\n"
                 "#EXT-X-PLAYLIST-TYPE:VOD\n#EXT-X-KEY:METHOD=AES-128,URI=\"skd://abc123\"\n"
                 "#EXTINF:1.0,\nseg0.ts\n#EXTINF:1.0,\nseg1.ts\n#EXT-X-ENDLIST\n");
    for (char fill : {'a', 'b'}) {
        Data segment; // TS-looking: whole packets that start with the sync byte
        for (int i = 0; i < 40; ++i)
            segment += '\x47' + Data(187, fill);
        origin.serve("/p/seg" + std::to_string(fill - 'a') + ".ts",
                     *platform::SegmentCipher::encrypt(segment, demoKey.key, demoKey.iv), "video/mp2t");
    }
    platform::ContentKey wrong = demoKey;
    wrong.key[3] ^= 0x20;
    // what, the server's key, its fault, key stored first, plays, licence exchanges, error domain of
    // the item's last error-log entry
    const std::tuple<const char*, platform::ContentKey, Fault, bool, bool, unsigned, std::string> rows[] = {
        {"right key", demoKey, Fault::none, false, true, 1, ""},
        {"stored key, no licence request", wrong, Fault::none, true, true, 0, ""},
        {"wrong key", wrong, Fault::none, false, false, 1, platform::playerErrorDomain},
        {"tampered ckc", demoKey, Fault::tamper, false, false, 1, platform::Error::loaderDomain},
    };
    for (const auto& [what, serverKey, fault, storedFirst, plays, exchanges, errorDomain] : rows) {
        SCOPED_TRACE(what);
        Ovalto::deleteLicense("abc123");
        if (storedFirst) platform::KeyValueStore::standard().set(std::get<Data>(demoKey.seal()), "abc123");
        LicenseServer licences(identity(), {.keys = {{"abc123", serverKey}}, .fault = fault});
        ASSERT_TRUE(licences.start());
        auto facade = Ovalto::create();
        facade->configurations = configurations;
        facade->configurations[ConfigurationKey::licenseServerUrl] = *Url::parse(licences.url());

        std::atomic<bool> prepared{false}, ended{false}, failed{false};
        auto& center = platform::NotificationCenter::defaultCenter();
        auto token = center.addObserver(OvaltoPreparationNotification, facade,
                                        [&](const platform::Notification&) { prepared = true; });
        facade->prepare(*Url::parse(origin.url("/p/media.m3u8")));
        ASSERT_TRUE(test::runMainUntil([&] { return prepared.load(); }, 30s));
        center.removeObserver(token);
        auto item = facade->playerItem();
        auto tokens = {center.addObserver(platform::playerItemDidPlayToEndTimeNotification, item,
                                          [&](const platform::Notification&) { ended = true; }),
                       center.addObserver(platform::playerItemFailedToPlayToEndTimeNotification, item,
                                          [&](const platform::Notification&) { failed = true; })};
        auto player = platform::Player::create(item);
        player->setRate(8);
        EXPECT_TRUE(test::runMainUntil([&] { return ended || failed; }, 30s));
        player->pause();
        for (auto each : tokens)
            center.removeObserver(each);
        const auto log = item->errorLog();
        EXPECT_EQ(std::tuple(ended.load(), licences.exchanges().size(),
                             log && !log->events.empty() ? log->events.back().errorDomain : ""),
                  std::tuple(plays, exchanges, errorDomain));
    }
}

// Child side of the test below: stores a key and is killed before it can exit cleanly.
TEST(KeyStoreChild, StoresAKeyAndDies) {
    if (!std::getenv("OVALTO_KEY_STORE_CHILD")) GTEST_SKIP() << "run by KeyStore.SurvivesAKilledProcess";
    ASSERT_TRUE(platform::KeyValueStore::standard().set(std::get<Data>(demoKey.seal()), "abc123"));
    raise(SIGKILL);
}

TEST(KeyStore, SurvivesAKilledProcess) {
    Ovalto::deleteLicense("abc123");
    std::string self = std::filesystem::read_symlink("/proc/self/exe"),
                filter = "--gtest_filter=KeyStoreChild.StoresAKeyAndDies";
    char* argv[] = {self.data(), filter.data(), nullptr};
    setenv("OVALTO_KEY_STORE_CHILD", "1", 1);
    pid_t child = 0;
    ASSERT_EQ(posix_spawn(&child, self.c_str(), nullptr, nullptr, argv, environ), 0);
    unsetenv("OVALTO_KEY_STORE_CHILD");
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    EXPECT_EQ(storedKey(), "demo");
    Ovalto::deleteLicense("abc123");
}

} // namespace
