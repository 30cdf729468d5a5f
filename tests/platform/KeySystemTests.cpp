// The key system: key requests and answers between device and licence server, keys sealed for
// this device, the protection of segments, and the store that keeps keys and the device's
// identity across runs and connections.
#include "platform/ApplicationCertificate.h"
#include "platform/ContentKey.h"
#include "platform/Device.h"
#include "platform/KeyExchange.h"
#include "platform/KeyValueStore.h"
#include "platform/KeyVendorIdentity.h"
#include "platform/LoadingRequest.h"
#include "platform/SegmentCipher.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <thread>
#include <unistd.h>

using namespace ovalto::platform;
namespace fs = std::filesystem;

namespace {

const KeyVendorIdentity& server(bool another = false) {
    static const auto identity = KeyVendorIdentity::generate("key system tests"),
                      other = KeyVendorIdentity::generate("another licence server");
    return another ? *other : *identity;
}

const ContentKey demo{Data(16, 'K'), Data(16, 'V'), "abc123", 0};

KeyExchange::Request request(const std::string& asset = "abc123", bool persistent = false) {
    auto made = KeyExchange::makeRequest(server().certificatePem(), asset, persistent);
    EXPECT_TRUE(std::holds_alternative<KeyExchange::Request>(made))
        << std::get<Error>(made).localizedDescription;
    return std::get<KeyExchange::Request>(made);
}

// "error <code>", or the key's bytes, IV and expiry.
std::string result(const std::variant<ContentKey, Error>& key) {
    if (const auto* error = std::get_if<Error>(&key)) return "error " + std::to_string(error->code);
    const auto& k = std::get<ContentKey>(key);
    return k.key + " " + k.iv + " " + std::to_string(k.expiry);
}

// What `result` gives for `code`, or for `expected` when `code` is 0.
std::string expected(std::int64_t code, const ContentKey& key = demo) {
    return code ? "error " + std::to_string(code) : result(key);
}

// `bytes` with the bits of `mask` flipped at `at`.
Data flipped(Data bytes, std::size_t at, char mask = 0x01) {
    bytes[at] ^= mask;
    return bytes;
}

// A TS-looking segment: whole packets that start with the sync byte.
Data transportStream(std::size_t packets) {
    Data segment;
    for (std::size_t i = 0; i < packets; ++i)
        segment += '\x47' + Data(187, static_cast<char>('a' + i % 26));
    return segment;
}

TEST(KeySystem, RequestsNeedACertificateAndOnlyItsServerOpensThemUnchanged) {
    const auto made = request("abc123", true);
    auto read = KeyExchange::readRequest(made.serverPlaybackContext, server());
    ASSERT_TRUE(std::holds_alternative<KeyRequestSession>(read)) << std::get<std::string>(read);
    const auto& session = std::get<KeyRequestSession>(read);
    EXPECT_EQ(std::tuple(session.contentIdentifier, session.persistent, session.sessionKey),
              std::tuple("abc123", true, made.session.sessionKey));
    EXPECT_NE(request().serverPlaybackContext, request().serverPlaybackContext); // fresh session keys

    const Data& spc = made.serverPlaybackContext;
    // What, the request as it arrives, whose server reads it, and the reason it is refused for.
    for (const auto& [what, arrived, another, reason] :
         std::initializer_list<std::tuple<const char*, Data, bool, std::string>>{
             {"another server", spc, true, "another certificate"},
             {"asset changed", flipped(spc, spc.find("abc123")), false, "changed"},
             {"persistence flag changed", flipped(spc, 5), false, "changed"},
             {"wrapped key changed", flipped(spc, spc.size() - 1), false, "changed"},
             {"version", flipped(spc, 4), false, "version"},
             {"truncated", spc.substr(0, spc.size() - 1), false, "truncated"},
             {"trailing byte", spc + "x", false, "truncated"},
             {"not a key request", "spc", false, "not a key request"},
         }) {
        auto refused = KeyExchange::readRequest(arrived, server(another));
        ASSERT_TRUE(std::holds_alternative<std::string>(refused)) << what;
        EXPECT_NE(std::get<std::string>(refused).find(reason), std::string::npos)
            << what << ": " << std::get<std::string>(refused);
    }
    // Only a certificate makes a request, and only for an asset.
    const Data pem = server().certificatePem();
    const auto refusal = [](const Data& certificate, const char* asset) {
        const auto attempt = KeyExchange::makeRequest(certificate, asset, false);
        return std::holds_alternative<Error>(attempt) ? std::get<Error>(attempt).code : 0;
    };
    for (const Data& bytes : {Data(), Data("not a certificate"), pem.substr(0, pem.size() / 2),
                              Data("-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n")})
        EXPECT_EQ(refusal(bytes, "abc123"), loaderErrorInvalidCertificate) << bytes;
    EXPECT_EQ(refusal(pem, ""), loaderErrorInvalidContentIdentifier);
}

TEST(KeySystem, AnAnswerGivesItsKeyOnlyToTheRequestItAnswers) {
    const auto made = request();
    const Data good = *KeyExchange::makeAnswer(made.session, demo);
    // What, the answer, and the error code (0: the demo key comes out).
    for (const auto& [what, answer, code] :
         std::initializer_list<std::tuple<const char*, Data, std::int64_t>>{
             {"its own answer", good, 0},
             {"answer to another request", *KeyExchange::makeAnswer(request().session, demo),
              loaderErrorInvalidKeyResponse},
             {"tampered", flipped(good, good.size() / 2, 0x40), loaderErrorInvalidKeyResponse},
             {"truncated", good.substr(0, good.size() - 1), loaderErrorInvalidKeyResponse},
             {"not an answer", "ckc", loaderErrorInvalidKeyResponse},
         })
        EXPECT_EQ(result(ContentKey::fromKeyAnswer(answer, std::nullopt, made.session, "abc123")),
                  expected(code))
            << what;
    // Without the request that was made, an answer is nothing.
    EXPECT_TRUE(
        std::holds_alternative<Error>(ContentKey::fromKeyAnswer(good, std::nullopt, std::nullopt, "abc123")));
}

TEST(KeySystem, PersistableKeysKeepAssetAndExpiryAndRefuseChanges) {
    const ContentKey expiring{demo.key, demo.iv, "abc123", 4'102'444'800}; // 2100
    const Data sealed = std::get<Data>(expiring.seal());
    EXPECT_EQ(sealed.find(demo.key), Data::npos); // the key is not in the clear
    const auto description = ContentKey::describe(sealed).value_or(ContentKey::Description{});
    EXPECT_EQ(std::tuple(description.assetId, description.expiry), std::tuple("abc123", expiring.expiry));

    // What, the stored bytes, the asset asked for, and the error code (0: the key comes out).
    for (const auto& [what, stored, asset, code] :
         std::initializer_list<std::tuple<const char*, Data, std::string, std::int64_t>>{
             {"as sealed", sealed, "abc123", 0},
             {"for another asset", sealed, "xyz789", loaderErrorKeyForAnotherAsset},
             {"expired", std::get<Data>(ContentKey{demo.key, demo.iv, "abc123", 1'000'000'000}.seal()),
              "abc123", loaderErrorKeyExpired},
             {"expiry changed", flipped(sealed, 4 + 1 + 2 + 6 + 7), "abc123", loaderErrorInvalidKeyResponse},
             {"key changed", flipped(sealed, sealed.size() - 20), "abc123", loaderErrorInvalidKeyResponse},
             {"not a stored key", "PCK1garbage", "abc123", loaderErrorInvalidKeyResponse},
         })
        EXPECT_EQ(result(ContentKey::fromKeyAnswer(stored, streamingKeyDeliveryPersistentContentKeyType,
                                                   std::nullopt, asset)),
                  expected(code, expiring))
            << what;
}

TEST(KeySystem, LoadingRequestTurnsItsOwnAnswerIntoAStorableKey) {
    auto loading = LoadingRequest::create(UrlRequest(*Url::parse("skd://abc123")), {}, nullptr);
    auto spc = loading->streamingContentKeyRequestData(
        server().certificatePem(), "abc123", {{streamingContentKeyRequestRequiresPersistentKey, true}});
    auto read = KeyExchange::readRequest(std::get<Data>(spc), server());
    ASSERT_TRUE(std::holds_alternative<KeyRequestSession>(read));
    EXPECT_TRUE(std::get<KeyRequestSession>(read).persistent);
    const Data answer = *KeyExchange::makeAnswer(std::get<KeyRequestSession>(read), demo);
    auto stored = loading->persistentContentKey(answer);
    ASSERT_TRUE(std::holds_alternative<Data>(stored)) << std::get<Error>(stored).localizedDescription;
    EXPECT_EQ(result(ContentKey::unseal(std::get<Data>(stored))), expected(0));

    // An answer to a request made elsewhere is refused.
    auto elsewhere = LoadingRequest::create(UrlRequest(*Url::parse("skd://abc123")), {}, nullptr);
    EXPECT_TRUE(std::holds_alternative<Error>(elsewhere->persistentContentKey(answer)));
}

TEST(KeySystem, SegmentsDecryptOnlyWithTheirKeyIntoMedia) {
    const Data clear = transportStream(20);
    const Data encrypted = *SegmentCipher::encrypt(clear, demo.key, demo.iv);
    EXPECT_EQ(std::tuple(encrypted.size() % 16, SegmentCipher::decrypt(encrypted, demo.key, demo.iv)),
              std::tuple(0u, clear));
    // What a wrong key, IV or length gives back is no media (nothing counts as none).
    const auto decrypted = [](const Data& data, const Data& key, const Data& iv) {
        return SegmentCipher::decrypt(data, key, iv).value_or("");
    };
    for (const auto& [what, bytes, media] : std::initializer_list<std::tuple<const char*, Data, bool>>{
             {"encrypted", encrypted, false},
             {"wrong key", decrypted(encrypted, flipped(demo.key, 0), demo.iv), false},
             {"wrong iv", decrypted(encrypted, demo.key, Data(16, 'W')), false},
             {"cut short", decrypted(encrypted.substr(0, encrypted.size() - 5), demo.key, demo.iv), false},
             {"clear bytes", decrypted(clear.substr(0, 16 * 20), demo.key, demo.iv), false},
             {"transport stream", transportStream(3), true},
             {"broken second packet", transportStream(1) + "x" + Data(187, 'a'), false},
             {"mp4 segment", Data("\0\0\0\x18stypmsdh", 12), true},
             {"unknown box", Data("\0\0\0\x18zzzzmsdh", 12), false},
             {"ID3", "ID3\x04", true},
             {"ADTS", "\xff\xf1\x50\x80", true},
             {"text", "hello world", false},
         })
        EXPECT_EQ(SegmentCipher::looksLikeMedia(bytes), media) << what;

    EXPECT_EQ(SegmentCipher::ivFromAttribute("0x000102030405060708090a0B0c0d0e0F"),
              Data("\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f", 16));
    for (const char* bad :
         {"000102030405060708090a0b0c0d0e0f", "0x0001", "0x000102030405060708090a0b0c0d0e0g"})
        EXPECT_FALSE(SegmentCipher::ivFromAttribute(bad)) << bad;
}

class KeyValueStoreTest : public ::testing::Test {
protected:
    void TearDown() override { fs::remove_all(directory_); }
    std::string path(const std::string& name = "store.sqlite3") const { return (directory_ / name).string(); }

    const fs::path directory_ = fs::temp_directory_path() / ("ovalto-kvs-" + std::to_string(getpid()));
};

// Big enough to span many database pages, and different for every index.
std::string valueFor(std::uint32_t index) {
    std::string value(65536 + index % 7, '\0');
    for (std::size_t i = 0; i < value.size(); ++i)
        value[i] = static_cast<char>((index * 31 + i * 7) & 0xff);
    return value;
}

TEST_F(KeyValueStoreTest, ValuesKeepTheirKindAcrossReopeningAndAreOverwrittenAndRemoved) {
    auto store = KeyValueStore::open(path());
    const std::initializer_list<std::tuple<std::string, std::string, bool>> cases = {
        {"binary", std::string("\0\x01\xff\x7f payload\0", 13), false},
        {"empty-data", "", false},
        {"empty-text", "", true},
        {"text", "Grüße, 字幕", true},
        {"with\0nul", "x", true},
        {"big", valueFor(3), false}};
    for (const auto& [key, value, text] : cases)
        ASSERT_TRUE(text ? store->setString(value, key) : store->set(value, key)) << key;
    auto reopened = KeyValueStore::open(path());
    for (const auto& [key, value, text] : cases) {
        // Read as what it was written as, and not as the other kind.
        const auto [same, other] = text ? std::pair(reopened->string(key), reopened->data(key))
                                        : std::pair(reopened->data(key), reopened->string(key));
        EXPECT_EQ(std::tuple(same, other.has_value()), std::tuple(value, false)) << key;
    }

    EXPECT_FALSE(store->string("token"));
    ASSERT_TRUE(store->setString("first", "token"));
    ASSERT_TRUE(store->set("second", "token"));
    EXPECT_EQ(std::tuple(store->data("token"), store->string("token")), std::tuple("second", std::nullopt));
    ASSERT_TRUE(store->remove("token"));
    EXPECT_FALSE(store->data("token"));
    EXPECT_TRUE(store->remove("token") && store->synchronize());
}

TEST_F(KeyValueStoreTest, CreatesMissingDirectoriesAndReportsAnUnusablePath) {
    EXPECT_TRUE(KeyValueStore::open(path("a/b/c/store.sqlite3"))->setString("v", "k"));
    EXPECT_TRUE(fs::exists(path("a/b/c/store.sqlite3")));

    ovalto::test::LogCapture log;
    const std::string underAFile = path("a/b/c/store.sqlite3") + "/inner/store.sqlite3";
    auto broken = KeyValueStore::open(underAFile);
    EXPECT_EQ(std::tuple(broken->setString("v", "k"), broken->string("k"), broken->remove("k"),
                         broken->synchronize(), log.contains(underAFile)),
              std::tuple(false, std::nullopt, false, false, true));
}

TEST(KeyValueStorePath, FollowsTheEnvironment) {
    const char* names[] = {"OVALTO_DEFAULTS_PATH", "XDG_DATA_HOME", "HOME"};
    std::optional<std::string> saved[3];
    for (int i = 0; i < 3; ++i)
        if (const char* value = std::getenv(names[i])) saved[i] = value;
    // OVALTO_DEFAULTS_PATH, XDG_DATA_HOME and HOME (unset when null), and the path they give.
    const std::tuple<const char*, const char*, const char*, std::string> cases[] = {
        {"/x/defaults.db", "/data", "/home/u", "/x/defaults.db"},
        {nullptr, "/data", "/home/u", "/data/ovalto/defaults.sqlite3"},
        {"", "/data", "/home/u", "/data/ovalto/defaults.sqlite3"},
        {nullptr, nullptr, "/home/u", "/home/u/.local/share/ovalto/defaults.sqlite3"},
        {nullptr, "relative", "/home/u", "/home/u/.local/share/ovalto/defaults.sqlite3"},
    };
    for (const auto& [defaults, data, home, expected] : cases) {
        const char* values[] = {defaults, data, home};
        for (int i = 0; i < 3; ++i)
            values[i] ? setenv(names[i], values[i], 1) : unsetenv(names[i]);
        EXPECT_EQ(KeyValueStore::standardPath(), expected);
    }
    for (int i = 0; i < 3; ++i)
        saved[i] ? setenv(names[i], saved[i]->c_str(), 1) : unsetenv(names[i]);
}

TEST_F(KeyValueStoreTest, ConcurrentWritersFromThreadsAndConnections) {
    // Two connections to the same file, each shared by several threads.
    auto first = KeyValueStore::open(path()), second = KeyValueStore::open(path());
    std::atomic<int> failures{0};
    std::vector<std::jthread> writers;
    for (int t = 0; t < 4; ++t) // 25 values each
        writers.emplace_back([&, t] {
            auto& store = t % 2 ? *first : *second;
            for (auto n = 25u * t; n < 25u * (t + 1); ++n)
                failures += !store.set(valueFor(n), "k" + std::to_string(n)) +
                            !store.setString("k" + std::to_string(n), "shared") +
                            !store.data("k" + std::to_string(n));
        });
    writers.clear();
    EXPECT_EQ(failures, 0);

    auto reader = KeyValueStore::open(path());
    for (std::uint32_t n = 0; n < 100; ++n)
        ASSERT_EQ(reader->data("k" + std::to_string(n)), valueFor(n)) << n;
    EXPECT_EQ(reader->string("shared").value_or("").substr(0, 1), "k");
}

TEST_F(KeyValueStoreTest, TheVendorIdentifierIsARandomUuidKeptInTheStore) {
    const auto first = Device::identifierForVendor(*KeyValueStore::open(path("defaults.sqlite3")));
    EXPECT_TRUE(std::regex_match(
        first, std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")))
        << first;
    EXPECT_EQ(Device::identifierForVendor(*KeyValueStore::open(path("defaults.sqlite3"))), first);
    EXPECT_NE(Device::identifierForVendor(*KeyValueStore::open(path("other.sqlite3"))), first);
}

} // namespace
