// The key system: key requests and answers between device and licence server, keys sealed for
// this device, and the protection of segments.
#include "platform/ApplicationCertificate.h"
#include "platform/ContentKey.h"
#include "platform/KeyExchange.h"
#include "platform/KeyVendorIdentity.h"
#include "platform/LoadingRequest.h"
#include "platform/SegmentCipher.h"

#include <gtest/gtest.h>

#include <functional>

using namespace ovalto::platform;

namespace {

const KeyVendorIdentity& server() {
    static const auto identity = KeyVendorIdentity::generate("key system tests");
    return *identity;
}
const KeyVendorIdentity& otherServer() {
    static const auto identity = KeyVendorIdentity::generate("another licence server");
    return *identity;
}

const ContentKey demo{Data(16, 'K'), Data(16, 'V'), "abc123", 0};

KeyExchange::Request request(const std::string& asset = "abc123", bool persistent = false) {
    auto made = KeyExchange::makeRequest(server().certificatePem(), asset, persistent);
    EXPECT_TRUE(std::holds_alternative<KeyExchange::Request>(made))
        << std::get<Error>(made).localizedDescription;
    return std::get<KeyExchange::Request>(made);
}

// A TS-looking segment: whole packets that start with the sync byte.
Data transportStream(std::size_t packets) {
    Data segment;
    for (std::size_t i = 0; i < packets; ++i)
        segment += '\x47' + Data(187, static_cast<char>('a' + i % 26));
    return segment;
}

// With `code` 0 the key must come out equal to `expected`; otherwise it fails with `code`.
void expectKey(const std::variant<ContentKey, Error>& key, std::int64_t code,
               const ContentKey& expected = demo) {
    if (code != 0) {
        ASSERT_TRUE(std::holds_alternative<Error>(key));
        EXPECT_EQ(std::get<Error>(key).code, code);
        return;
    }
    ASSERT_TRUE(std::holds_alternative<ContentKey>(key)) << std::get<Error>(key).localizedDescription;
    EXPECT_EQ(std::get<ContentKey>(key).key, expected.key);
    EXPECT_EQ(std::get<ContentKey>(key).iv, expected.iv);
    EXPECT_EQ(std::get<ContentKey>(key).expiry, expected.expiry);
}

TEST(KeySystem, CertificatesThatAreNotOneAreRefused) {
    const Data pem = server().certificatePem();
    for (const Data& bytes : {Data(), Data("not a certificate"), pem.substr(0, pem.size() / 2),
                              Data("-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n")}) {
        auto made = KeyExchange::makeRequest(bytes, "abc123", false);
        ASSERT_TRUE(std::holds_alternative<Error>(made)) << bytes;
        EXPECT_EQ(std::get<Error>(made).code, loaderErrorInvalidCertificate);
    }
    auto noAsset = KeyExchange::makeRequest(pem, "", false);
    EXPECT_EQ(std::get<Error>(noAsset).code, loaderErrorInvalidContentIdentifier);
}

TEST(KeySystem, OnlyTheCertificatesServerOpensAnUnchangedKeyRequest) {
    const auto made = request("abc123", true);
    auto read = KeyExchange::readRequest(made.serverPlaybackContext, server());
    ASSERT_TRUE(std::holds_alternative<KeyRequestSession>(read)) << std::get<std::string>(read);
    const auto& session = std::get<KeyRequestSession>(read);
    EXPECT_EQ(session.contentIdentifier, "abc123");
    EXPECT_TRUE(session.persistent);
    EXPECT_EQ(session.sessionKey, made.session.sessionKey);
    EXPECT_NE(request().serverPlaybackContext, request().serverPlaybackContext); // fresh session keys

    const Data& spc = made.serverPlaybackContext;
    const auto changed = [&](std::size_t at) {
        Data copy = spc;
        copy[at] ^= 0x01;
        return copy;
    };
    const auto assetAt = spc.find("abc123");
    struct Row {
        const char* what;
        Data spc;
        const KeyVendorIdentity* identity;
        std::string reason;
    } rows[] = {
        {"another server", spc, &otherServer(), "another certificate"},
        {"asset changed", changed(assetAt), &server(), "changed"},
        {"persistence flag changed", changed(5), &server(), "changed"},
        {"wrapped key changed", changed(spc.size() - 1), &server(), "changed"},
        {"version", changed(4), &server(), "version"},
        {"truncated", spc.substr(0, spc.size() - 1), &server(), "truncated"},
        {"trailing byte", spc + "x", &server(), "truncated"},
        {"not a key request", "spc", &server(), "not a key request"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        auto refused = KeyExchange::readRequest(row.spc, *row.identity);
        ASSERT_TRUE(std::holds_alternative<std::string>(refused));
        EXPECT_NE(std::get<std::string>(refused).find(row.reason), std::string::npos)
            << std::get<std::string>(refused);
    }
}

TEST(KeySystem, AnAnswerGivesItsKeyOnlyToTheRequestItAnswers) {
    const auto made = request();
    const auto answerTo = [&](KeyRequestSession session, const ContentKey& key = demo) {
        return *KeyExchange::makeAnswer(session, key);
    };
    const Data good = answerTo(made.session);
    KeyRequestSession otherAsset = made.session;
    otherAsset.contentIdentifier = "xyz789";
    Data tampered = good;
    tampered[good.size() / 2] ^= 0x40;
    struct Row {
        const char* what;
        Data answer;
        std::int64_t code; // 0: the demo key comes out
    } rows[] = {
        {"its own answer", good, 0},
        {"answer to another request", answerTo(request().session), loaderErrorInvalidKeyResponse},
        {"answer for another asset", answerTo(otherAsset), loaderErrorKeyForAnotherAsset},
        {"tampered", tampered, loaderErrorInvalidKeyResponse},
        {"truncated", good.substr(0, good.size() - 1), loaderErrorInvalidKeyResponse},
        {"not an answer", "ckc", loaderErrorInvalidKeyResponse},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        expectKey(ContentKey::fromKeyAnswer(row.answer, std::nullopt, made.session, "abc123"), row.code);
    }
    // Without the request that was made, an answer is nothing.
    EXPECT_TRUE(
        std::holds_alternative<Error>(ContentKey::fromKeyAnswer(good, std::nullopt, std::nullopt, "abc123")));
}

TEST(KeySystem, PersistableKeysKeepAssetAndExpiryAndRefuseChanges) {
    ContentKey expiring = demo;
    expiring.expiry = 4'102'444'800; // 2100
    ContentKey expired = demo;
    expired.expiry = 1'000'000'000;
    const Data sealed = std::get<Data>(expiring.seal());
    EXPECT_EQ(sealed.find(demo.key), Data::npos); // the key is not in the clear
    auto description = ContentKey::describe(sealed);
    ASSERT_TRUE(description);
    EXPECT_EQ(description->assetId, "abc123");
    EXPECT_EQ(description->expiry, expiring.expiry);

    Data changedExpiry = sealed;
    changedExpiry[4 + 1 + 2 + 6 + 7] ^= 0x01;
    Data changedKey = sealed;
    changedKey[sealed.size() - 20] ^= 0x01;
    struct Row {
        const char* what;
        Data stored;
        std::string asset;
        std::int64_t code; // 0: the key comes out
    } rows[] = {
        {"as sealed", sealed, "abc123", 0},
        {"for another asset", sealed, "xyz789", loaderErrorKeyForAnotherAsset},
        {"expired", std::get<Data>(expired.seal()), "abc123", loaderErrorKeyExpired},
        {"expiry changed", changedExpiry, "abc123", loaderErrorInvalidKeyResponse},
        {"key changed", changedKey, "abc123", loaderErrorInvalidKeyResponse},
        {"not a stored key", "PCK1garbage", "abc123", loaderErrorInvalidKeyResponse},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        expectKey(ContentKey::fromKeyAnswer(row.stored, streamingKeyDeliveryPersistentContentKeyType,
                                            std::nullopt, row.asset),
                  row.code, expiring);
    }
}

TEST(KeySystem, LoadingRequestTurnsItsOwnAnswerIntoAStorableKey) {
    auto loading = LoadingRequest::create(UrlRequest(*Url::parse("skd://abc123")), {}, nullptr);
    auto spc = loading->streamingContentKeyRequestData(
        server().certificatePem(), "abc123", {{streamingContentKeyRequestRequiresPersistentKey, true}});
    auto read = KeyExchange::readRequest(std::get<Data>(spc), server());
    ASSERT_TRUE(std::holds_alternative<KeyRequestSession>(read));
    EXPECT_TRUE(std::get<KeyRequestSession>(read).persistent);
    auto stored =
        loading->persistentContentKey(*KeyExchange::makeAnswer(std::get<KeyRequestSession>(read), demo));
    ASSERT_TRUE(std::holds_alternative<Data>(stored)) << std::get<Error>(stored).localizedDescription;
    auto key = ContentKey::unseal(std::get<Data>(stored));
    EXPECT_EQ(std::get<ContentKey>(key).key, demo.key);

    // An answer to a request made elsewhere is refused.
    auto elsewhere = LoadingRequest::create(UrlRequest(*Url::parse("skd://abc123")), {}, nullptr);
    EXPECT_TRUE(std::holds_alternative<Error>(
        elsewhere->persistentContentKey(*KeyExchange::makeAnswer(std::get<KeyRequestSession>(read), demo))));
}

TEST(KeySystem, SegmentsDecryptOnlyWithTheirKeyIntoMedia) {
    const Data clear = transportStream(20);
    const Data encrypted = *SegmentCipher::encrypt(clear, demo.key, demo.iv);
    EXPECT_EQ(encrypted.size() % 16, 0u);
    EXPECT_FALSE(SegmentCipher::looksLikeMedia(encrypted));
    const auto decrypted = SegmentCipher::decrypt(encrypted, demo.key, demo.iv);
    ASSERT_TRUE(decrypted);
    EXPECT_EQ(*decrypted, clear);

    Data wrongKey = demo.key;
    wrongKey[0] ^= 1;
    for (const auto& [what, key, iv, data] : std::initializer_list<std::tuple<const char*, Data, Data, Data>>{
             {"wrong key", wrongKey, demo.iv, encrypted},
             {"wrong iv", demo.key, Data(16, 'W'), encrypted},
             {"cut short", demo.key, demo.iv, encrypted.substr(0, encrypted.size() - 5)},
             {"clear bytes", demo.key, demo.iv, clear.substr(0, 16 * 20)},
         }) {
        SCOPED_TRACE(what);
        auto out = SegmentCipher::decrypt(data, key, iv);
        EXPECT_TRUE(!out || !SegmentCipher::looksLikeMedia(*out));
    }

    struct Media {
        const char* what;
        Data bytes;
        bool media;
    } media[] = {
        {"transport stream", transportStream(3), true},
        {"broken second packet", transportStream(1) + "x" + Data(187, 'a'), false},
        {"mp4 segment", Data("\0\0\0\x18stypmsdh", 12), true},
        {"unknown box", Data("\0\0\0\x18zzzzmsdh", 12), false},
        {"ID3", "ID3\x04", true},
        {"ADTS", "\xff\xf1\x50\x80", true},
        {"text", "hello world", false},
    };
    for (const auto& row : media)
        EXPECT_EQ(SegmentCipher::looksLikeMedia(row.bytes), row.media) << row.what;

    EXPECT_EQ(SegmentCipher::ivFromAttribute("0x000102030405060708090a0B0c0d0e0F"),
              Data("\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f", 16));
    for (const char* bad :
         {"000102030405060708090a0b0c0d0e0f", "0x0001", "0x000102030405060708090a0b0c0d0e0g"})
        EXPECT_FALSE(SegmentCipher::ivFromAttribute(bad)) << bad;
}

} // namespace
