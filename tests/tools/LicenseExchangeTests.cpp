// Content keys against the licence server on loopback: the key resource of playback, the
// key-loader delegate of offline downloads, and protected playback through the facade.
#include "LicenseServer.h"
#include "Resources/FairPlayKeyResource.h"
#include "Resources/LicenseExchange.h"
#include "Utils/Base64.h"
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
#include "platform/RunLoop.h"
#include "platform/SegmentCipher.h"
#include "support/LoopbackServer.h"
#include "support/TestOrigin.h"

#include <gtest/gtest.h>

#include <spawn.h>
#include <sys/wait.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <regex>
#include <thread>

using namespace ovalto;
using namespace std::chrono_literals;
using platform::Data;
using platform::Error;
using tool::LicenseServer;

extern char** environ;

namespace {

const platform::ContentKey demoKey{Data(16, '\x11'), Data(16, '\x22'), "abc123", 0};

const platform::KeyVendorIdentity& identity() {
    static const auto made = platform::KeyVendorIdentity::generate("Ovalto test licences");
    return *made;
}

// What a finished key request handed the player.
struct KeyAnswer {
    std::optional<Error> error;
    platform::LoadingOutcome outcome;
    int finishes = 0;
    // The key the player gets out of the answer.
    std::variant<platform::ContentKey, Error> key(const std::string& asset = "abc123") const {
        return platform::ContentKey::fromKeyAnswer(outcome.data, outcome.contentType, outcome.keySession,
                                                   asset);
    }
};

std::shared_ptr<platform::LoadingRequest> keyRequest(const std::string& url, KeyAnswer& answer) {
    platform::LoadingRequest::Parts parts;
    parts.contentInformationRequest = true;
    return platform::LoadingRequest::create(platform::UrlRequest(*platform::Url::parse(url)), parts,
                                            [&answer](const platform::LoadingOutcome& outcome) {
                                                ++answer.finishes;
                                                answer.outcome = outcome;
                                            });
}

// With `code` 0 the demo key must come out; otherwise reading fails with `code`.
void expectDemoKey(const std::variant<platform::ContentKey, Error>& key, std::int64_t code = 0) {
    if (code != 0) {
        ASSERT_TRUE(std::holds_alternative<Error>(key));
        EXPECT_EQ(std::get<Error>(key).code, code);
        return;
    }
    ASSERT_TRUE(std::holds_alternative<platform::ContentKey>(key))
        << std::get<Error>(key).localizedDescription;
    EXPECT_EQ(std::get<platform::ContentKey>(key).key, demoKey.key);
    EXPECT_EQ(std::get<platform::ContentKey>(key).iv, demoKey.iv);
}

int ovaltoCode(const Error& error) {
    auto typed = OvaltoError::from(error);
    return typed ? typed->code() : -1;
}

class LicenseTest : public ::testing::Test {
protected:
    void SetUp() override {
        Ovalto::logLevel = OVALogLevel::silent;
        platform::Device::setSystemVersion("");
        Ovalto::deleteLicense("abc123");
        ASSERT_TRUE(server.start());
        certificates.serve("/app.cer", identity().certificatePem(), "application/x-x509-ca-cert");
        configurations[ConfigurationKey::licenseServerUrl] = *platform::Url::parse(server.url());
    }
    void TearDown() override {
        Ovalto::deleteLicense("abc123");
        platform::Device::setSystemVersion("");
        Ovalto::logLevel = OVALogLevel::debug;
    }

    // One playback key request through the key resource, as the loader runs it.
    KeyAnswer playbackKey(const std::string& url = "skd://abc123") {
        KeyAnswer answer;
        auto request = keyRequest(url, answer);
        FairPlayKeyResource resource;
        resource.configurations = configurations;
        resource.load(request, nullptr, [&](Result result) {
            if (result.error()) {
                answer.error = *result.error();
                request->finishLoading(*result.error());
            } else {
                request->finishLoading();
            }
        });
        return answer;
    }

    LicenseServer server{identity(), {.keys = {{"abc123", demoKey}}}};
    test::TestOrigin certificates;
    Configurations configurations{{ConfigurationKey::certData, identity().certificatePem()}};
};

TEST_F(LicenseTest, CertificateComesFromDataBeforeUrlAndFailsClearly) {
    const auto url = *platform::Url::parse(certificates.url("/app.cer"));
    const auto missing = *platform::Url::parse(certificates.url("/missing.cer"));
    struct Row {
        const char* what;
        std::optional<Data> data;
        std::optional<platform::Url> url;
        bool keyObtained;
        int urlReads;
        int ovaltoCode; // 0: a platform error
    } rows[] = {
        {"data wins over the URL", identity().certificatePem(), missing, true, 0, 0},
        {"URL when there is no data", std::nullopt, url, true, 1, 0},
        {"neither", std::nullopt, std::nullopt, false, 0, 0x8600},
        {"data that is no certificate", Data("not a certificate"), url, false, 0, 0},
        {"URL that is not there", std::nullopt, missing, false, 0, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const int readsBefore = certificates.requestCount("/app.cer");
        configurations.erase(ConfigurationKey::certData);
        configurations.erase(ConfigurationKey::certUrl);
        if (row.data) configurations[ConfigurationKey::certData] = *row.data;
        if (row.url) configurations[ConfigurationKey::certUrl] = *row.url;
        const auto answer = playbackKey();
        EXPECT_EQ(answer.finishes, 1);
        EXPECT_EQ(certificates.requestCount("/app.cer") - readsBefore, row.urlReads);
        if (row.keyObtained) {
            ASSERT_FALSE(answer.error) << answer.error->localizedDescription;
            expectDemoKey(answer.key());
        } else {
            ASSERT_TRUE(answer.error);
            if (row.ovaltoCode) {
                EXPECT_EQ(ovaltoCode(*answer.error), row.ovaltoCode);
            }
        }
    }
}

TEST_F(LicenseTest, AnswersOfTheServerBecomeAKeyOrTheErrorTheyDeserve) {
    struct Row {
        const char* what;
        bool wrap;
        LicenseServer::Fault fault;
        int status;
        std::string errorDomain;     // of the key request; empty: it succeeds
        int ovaltoCode;              // of that error, when it is an OvaltoError
        std::int64_t playerKeyError; // of reading the answer; 0: the demo key comes out
    } rows[] = {
        {"bare base64", false, LicenseServer::Fault::none, 0, "", 0, 0},
        {"wrapped in ckc with a line break", true, LicenseServer::Fault::none, 0, "", 0, 0},
        {"403", false, LicenseServer::Fault::status, 403, "403 error", 0, 0},
        {"empty body", false, LicenseServer::Fault::empty, 0, OvaltoError::domain, 0x8603, 0},
        {"not base64", true, LicenseServer::Fault::garbage, 0, OvaltoError::domain, 0x8603, 0},
        {"tampered ckc", false, LicenseServer::Fault::tamper, 0, "", 0,
         platform::loaderErrorInvalidKeyResponse},
        {"ckc of another asset", false, LicenseServer::Fault::otherAsset, 0, "", 0,
         platform::loaderErrorKeyForAnotherAsset},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        LicenseServer faulty(identity(), {.keys = {{"abc123", demoKey}}, .wrap = row.wrap});
        ASSERT_TRUE(faulty.start());
        faulty.setFault(row.fault, row.status);
        configurations[ConfigurationKey::licenseServerUrl] = *platform::Url::parse(faulty.url());
        const auto answer = playbackKey();
        EXPECT_EQ(answer.finishes, 1);
        ASSERT_EQ(faulty.exchanges().size(), 1u); // never retried
        if (!row.errorDomain.empty()) {
            ASSERT_TRUE(answer.error);
            EXPECT_EQ(answer.error->domain, row.errorDomain);
            if (row.ovaltoCode) {
                EXPECT_EQ(ovaltoCode(*answer.error), row.ovaltoCode);
            }
            if (row.status) {
                EXPECT_EQ(answer.error->code, 0);
            }
            continue;
        }
        ASSERT_FALSE(answer.error) << answer.error->localizedDescription;
        EXPECT_FALSE(answer.outcome.contentType); // not set on the licence path
        expectDemoKey(answer.key(), row.playerKeyError);
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
        ASSERT_FALSE(playbackKey().error);
        const auto exchange = server.exchanges().back();
        ASSERT_EQ(exchange.status, 200) << exchange.reason;
        EXPECT_TRUE(std::regex_match(exchange.body, std::regex("spc=[A-Za-z0-9+/]+=*&assetId=abc123")))
            << exchange.body;
        EXPECT_FALSE(exchange.osVersion); // only the delegate sends it
        seen += exchange.body.substr(4, exchange.body.find('&') - 4);
    }
    EXPECT_NE(seen.find('+'), std::string::npos);
    EXPECT_NE(seen.find('/'), std::string::npos);
    EXPECT_NE(seen.find('='), std::string::npos);

    auto request = LicenseExchange::request(configurations, "spc", "abc123", std::nullopt);
    const auto& made = std::get<platform::UrlRequest>(request);
    const std::vector<std::pair<std::string, std::string>> headers{
        {"X-Token", "t1"}, {"Content-type", "application/x-www-form-urlencoded"}, {"Content-Length", "23"}};
    EXPECT_EQ(made.headers.all(), headers);
    EXPECT_EQ(made.httpMethod, "POST");
    EXPECT_EQ(made.timeoutInterval, 30.0);
    configurations.erase(ConfigurationKey::licenseServerUrl);
    EXPECT_EQ(ovaltoCode(*playbackKey().error), 0x8601);
}

TEST_F(LicenseTest, StoredKeyIsAnsweredWithoutTheNetworkUntilDeleted) {
    platform::Device::setSystemVersion("10.3");
    auto delegate = OVAKeyLoaderDelegate::create();
    delegate->configurations = configurations;
    auto loader = platform::AssetResourceLoader::create();
    KeyAnswer fetched;
    EXPECT_TRUE(
        delegate->shouldWaitForLoadingOfRequestedResource(*loader, keyRequest("skd://abc123", fetched)));
    ASSERT_EQ(fetched.finishes, 1);
    EXPECT_EQ(server.exchanges().back().osVersion, "10.3");
    platform::Device::setSystemVersion("");

    auto stored = playbackKey();
    EXPECT_EQ(server.exchanges().size(), 1u); // answered from the store
    EXPECT_EQ(stored.outcome.contentType, platform::streamingKeyDeliveryPersistentContentKeyType);
    expectDemoKey(stored.key());
    EXPECT_EQ(stored.outcome.data, fetched.outcome.data);

    Ovalto::deleteLicense("abc123");
    auto again = playbackKey();
    EXPECT_EQ(server.exchanges().size(), 2u);
    EXPECT_FALSE(again.outcome.contentType);
    expectDemoKey(again.key());
}

TEST_F(LicenseTest, DelegateBelowElevenAnswersTheRequestOnceAndReportsFailures) {
    platform::Device::setSystemVersion("10.3");
    auto delegate = OVAKeyLoaderDelegate::create();
    delegate->configurations = configurations;
    std::vector<Error> reported;
    delegate->onError = [&](const Error& error) { reported.push_back(error); };
    auto loader = platform::AssetResourceLoader::create();

    server.setFault(LicenseServer::Fault::empty);
    KeyAnswer empty;
    EXPECT_FALSE(
        delegate->shouldWaitForLoadingOfRequestedResource(*loader, keyRequest("skd://abc123", empty)));
    EXPECT_EQ(empty.finishes, 1);
    ASSERT_TRUE(empty.outcome.error);
    ASSERT_EQ(reported.size(), 1u);
    EXPECT_EQ(ovaltoCode(reported[0]), 0x8603);
    EXPECT_EQ(ovaltoCode(*empty.outcome.error), 0x8603);
    EXPECT_FALSE(platform::KeyValueStore::standard().data("abc123"));

    KeyAnswer invalid; // no host: not answered, but reported
    EXPECT_FALSE(delegate->shouldWaitForLoadingOfRequestedResource(*loader, keyRequest("skd:", invalid)));
    EXPECT_EQ(invalid.finishes, 0);
    ASSERT_EQ(reported.size(), 2u);
    EXPECT_EQ(ovaltoCode(reported[1]), 0x8300);

    platform::Device::setSystemVersion("8.4"); // no persistable keys at all
    KeyAnswer old;
    EXPECT_FALSE(delegate->shouldWaitForLoadingOfRequestedResource(*loader, keyRequest("skd://abc123", old)));
    EXPECT_EQ(old.finishes, 0);
    EXPECT_EQ(reported.size(), 2u);
    EXPECT_EQ(server.exchanges().size(), 1u);
    EXPECT_TRUE(delegate->identifieres().empty());
}

TEST_F(LicenseTest, DelegateFromElevenStartsOneSessionPerAssetAndStoresItsKey) {
    auto delegate = OVAKeyLoaderDelegate::create();
    delegate->configurations = configurations;
    std::atomic<int> errors{0};
    delegate->onError = [&](const Error&) { ++errors; };
    auto loader = platform::AssetResourceLoader::create();
    KeyAnswer first, second;
    EXPECT_FALSE(
        delegate->shouldWaitForLoadingOfRequestedResource(*loader, keyRequest("skd://abc123", first)));
    EXPECT_FALSE(
        delegate->shouldWaitForRenewalOfRequestedResource(*loader, keyRequest("skd://abc123", second)));
    EXPECT_EQ(delegate->identifieres(), std::vector<std::string>{"abc123"});

    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (!platform::KeyValueStore::standard().data("abc123") && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(10ms);
    auto stored = platform::KeyValueStore::standard().data("abc123");
    ASSERT_TRUE(stored);
    expectDemoKey(platform::ContentKey::unseal(*stored));
    const auto exchanges = server.exchanges();
    ASSERT_EQ(exchanges.size(), 1u);
    EXPECT_TRUE(exchanges[0].persistent);
    EXPECT_EQ(exchanges[0].osVersion, platform::Device::keySystemContractVersion);
    EXPECT_EQ(first.finishes + second.finishes, 0); // the loading requests are not answered
    EXPECT_EQ(errors.load(), 0);
}

// Drives the main run loop until `done`; a timer keeps the loop checking.
bool runUntil(const std::function<bool()>& done, std::chrono::seconds limit) {
    auto tick = platform::Timer::scheduledTimer(10ms, true, [](platform::Timer&) {});
    bool result = platform::RunLoop::main().runUntil(done, std::chrono::steady_clock::now() + limit);
    tick->invalidate();
    return result;
}

// TS-looking segments: whole packets that start with the sync byte.
Data transportStream(char fill) {
    Data segment;
    for (int i = 0; i < 40; ++i)
        segment += '\x47' + Data(187, fill);
    return segment;
}

TEST_F(LicenseTest, ProtectedStreamPlaysOnlyWithTheRightKey) {
    test::TestOrigin origin;
    origin.serve("/p/media.m3u8",
                 "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:1\n#EXT-X-MEDIA-SEQUENCE:0\n"
                 "#EXT-X-PLAYLIST-TYPE:VOD\n#EXT-X-KEY:METHOD=AES-128,URI=\"skd://abc123\"\n"
                 "#EXTINF:1.0,\nseg0.ts\n#EXTINF:1.0,\nseg1.ts\n#EXT-X-ENDLIST\n");
    for (int i = 0; i < 2; ++i) {
        origin.serve("/p/seg" + std::to_string(i) + ".ts",
                     *platform::SegmentCipher::encrypt(transportStream(static_cast<char>('a' + i)),
                                                       demoKey.key, demoKey.iv),
                     "video/mp2t");
    }
    platform::ContentKey wrong = demoKey;
    wrong.key[3] ^= 0x20;
    struct Row {
        const char* what;
        platform::ContentKey serverKey;
        LicenseServer::Fault fault;
        bool storedFirst;
        bool plays;
        std::string errorDomain; // of the item's last error-log entry
        std::size_t exchanges;
    } rows[] = {
        {"right key", demoKey, LicenseServer::Fault::none, false, true, "", 1},
        {"stored key, no licence request", wrong, LicenseServer::Fault::none, true, true, "", 0},
        {"wrong key", wrong, LicenseServer::Fault::none, false, false, platform::playerErrorDomain, 1},
        {"tampered ckc", demoKey, LicenseServer::Fault::tamper, false, false, platform::Error::loaderDomain,
         1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        Ovalto::deleteLicense("abc123");
        if (row.storedFirst)
            platform::KeyValueStore::standard().set(std::get<Data>(demoKey.seal()), "abc123");
        LicenseServer licences(identity(), {.keys = {{"abc123", row.serverKey}}});
        ASSERT_TRUE(licences.start());
        licences.setFault(row.fault);
        auto facade = Ovalto::create();
        facade->configurations = configurations;
        facade->configurations[ConfigurationKey::licenseServerUrl] = *platform::Url::parse(licences.url());

        std::atomic<bool> prepared{false}, ended{false}, failed{false};
        auto& center = platform::NotificationCenter::defaultCenter();
        auto token = center.addObserver(OvaltoPreparationNotification, facade,
                                        [&](const platform::Notification&) { prepared = true; });
        facade->prepare(*platform::Url::parse(origin.url("/p/media.m3u8")));
        ASSERT_TRUE(runUntil([&] { return prepared.load(); }, 20s));
        center.removeObserver(token);
        auto item = facade->playerItem();
        auto tokens = {center.addObserver(platform::playerItemDidPlayToEndTimeNotification, item,
                                          [&](const platform::Notification&) { ended = true; }),
                       center.addObserver(platform::playerItemFailedToPlayToEndTimeNotification, item,
                                          [&](const platform::Notification&) { failed = true; })};
        auto player = platform::Player::create(item);
        player->setRate(8);
        EXPECT_TRUE(runUntil([&] { return ended || failed; }, 30s));
        player->pause();
        for (auto each : tokens)
            center.removeObserver(each);
        EXPECT_EQ(ended.load(), row.plays);
        EXPECT_EQ(licences.exchanges().size(), row.exchanges);
        auto log = item->errorLog();
        if (row.plays) {
            EXPECT_TRUE(!log || log->events.empty());
        } else {
            ASSERT_TRUE(log && !log->events.empty());
            EXPECT_EQ(log->events.back().errorDomain, row.errorDomain);
        }
    }
}

// Child side of the test below: stores a key and is killed before it can exit cleanly.
TEST(KeyStoreChild, StoresAKeyAndDies) {
    if (!std::getenv("OVALTO_KEY_STORE_CHILD")) GTEST_SKIP() << "run by KeyStore.SurvivesAKilledProcess";
    auto sealed = demoKey.seal();
    ASSERT_TRUE(std::holds_alternative<Data>(sealed));
    ASSERT_TRUE(platform::KeyValueStore::standard().set(std::get<Data>(sealed), "abc123"));
    raise(SIGKILL);
}

TEST(KeyStore, SurvivesAKilledProcess) {
    Ovalto::deleteLicense("abc123");
    std::string self = std::filesystem::read_symlink("/proc/self/exe");
    std::string filter = "--gtest_filter=KeyStoreChild.StoresAKeyAndDies";
    char* argv[] = {self.data(), filter.data(), nullptr};
    setenv("OVALTO_KEY_STORE_CHILD", "1", 1);
    pid_t child = 0;
    ASSERT_EQ(posix_spawn(&child, self.c_str(), nullptr, nullptr, argv, environ), 0);
    unsetenv("OVALTO_KEY_STORE_CHILD");
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    auto stored = platform::KeyValueStore::standard().data("abc123");
    ASSERT_TRUE(stored);
    expectDemoKey(platform::ContentKey::unseal(*stored));
    Ovalto::deleteLicense("abc123");
}

} // namespace
