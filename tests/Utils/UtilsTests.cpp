// The shared helpers and vocabulary: Base64, the JSON writer, URLs of playlist entries, HTTP
// probes and cookies, error codes and texts, the log line and its threshold, media types.
#include "Utils/Base64.h"
#include "Utils/JSONSerializable.h"
#include "Utils/URLExtension.h"
#include "ovalto/ConfigurationKey.h"
#include "ovalto/OVALog.h"
#include "ovalto/Ovalto.h"
#include "ovalto/OvaltoError.h"
#include "support/LogCapture.h"
#include "support/LoopbackServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <tuple>

namespace ovalto {
namespace {

using platform::CookieStorage;
using platform::Url;
using platform::UrlRequest;
using test::LogCapture;

Url url(const std::string& text) {
    return *Url::parse(text);
}

TEST(Base64, LicenceAnswersAreReadLeniently) {
    const std::string bytes("\xfb\xff\x00\x01ok", 6);
    const std::string text = Base64::encode(bytes);
    EXPECT_EQ(text, "+/8AAW9r");
    const std::tuple<const char*, std::string, std::optional<std::string>> rows[] = {
        {"as encoded", text, bytes},
        {"line breaks and spaces", "+/8A\r\nAW 9r\n", bytes},
        {"padding kept", Base64::encode("ab"), "ab"},
        {"padding missing", "YWI", "ab"},
        {"too much padding", "YWI==", std::nullopt},
        {"digits after padding", "YQ==YQ==", std::nullopt},
        {"one digit too many", "YWJjZ", std::nullopt},
        {"nothing but noise", "%%% <> %%%", std::nullopt},
        {"empty", "", std::nullopt},
    };
    for (const auto& [what, text, bytes] : rows)
        EXPECT_EQ(Base64::decodeIgnoringUnknownCharacters(text), bytes) << what;
}

TEST(JSONWriter, TextsReadBackAsWrittenAndNonUtf8IsRefused) {
    const std::tuple<const char*, std::string, bool> cases[] = {
        {"plain", "http://origin.test/a.ts?x=1&y=2", true},
        {"quotes and backslashes", R"(say "hi" \ bye)", true},
        {"control characters", std::string("a\nb\tc\rd\x01\x1f", 9), true},
        {"a zero byte", std::string("a\0b", 3), true},
        {"two, three and four bytes", "é 通信 😀", true},
        {"the last code point", "\xf4\x8f\xbf\xbf", true},
        {"a lone continuation byte", "a\x80", false},
        {"a cut sequence at the end", "\xe3\x81", false},
        {"an overlong slash", "\xc0\xaf", false},
        {"an overlong three-byte form", "\xe0\x80\xaf", false},
        {"a surrogate", "\xed\xa0\x80", false},
        {"beyond the last code point", "\xf4\x90\x80\x80", false},
        {"Latin-1", "caf\xe9", false},
    };
    for (const auto& [what, text, valid] : cases) {
        SCOPED_TRACE(what);
        JSONWriter writer;
        writer.beginArray();
        writer.value(text);
        writer.value(std::int64_t{-7});
        writer.endArray();
        EXPECT_EQ(writer.valid(), valid);
        if (!valid) continue;
        EXPECT_EQ(nlohmann::json::parse(writer.text()), nlohmann::json::array({text, -7}));
    }
}

struct Record {
    std::uint64_t big = 0;
    bool flag = false;
    static constexpr auto jsonFields() {
        return std::tuple{jsonField("big", &Record::big), jsonField("flag", &Record::flag)};
    }
};

// Field order, nulls, nested records, arrays left out when empty and refused text are seen in the
// QoE manager's reports; these field types are not there.
TEST(JSONSerializable, UnsignedAndBooleanFieldsKeepTheirForm) {
    EXPECT_EQ(toJSON(Record{UINT64_MAX, true}), R"({"big":18446744073709551615,"flag":true})");
}

TEST(SubUrl, ResolvesPlaylistUris) {
    // playlist, URI as written, expected URL ("": none)
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"http://h/a/b/index.m3u8?t=1", "\"seg1.ts\"", "http://h/a/b/seg1.ts"},
        {"http://h/a/b.m3u8", "/x/y.m3u8", "http://h/x/y.m3u8"},
        {"http://h/a/b.m3u8", "https://o/z.ts", "https://o/z.ts"},
        {"http://h/a/b.m3u8", "\"\"http://o/z.ts\"", "http://o/z.ts"},
        {"http://h/a/b.m3u8", "1/800000/media.m3u8", "http://h/a/1/800000/media.m3u8"},
        {"http://h/a/b.m3u8?k=v", "/x.ts?s=1", "http://h/x.ts?s=1"},
        // Every occurrence is replaced, a directory of the same name too.
        {"http://h/v.m3u8/v.m3u8", "w.ts", "http://h/w.ts/w.ts"},
        {"http://h/a/b.m3u8", "seg 1.ts", ""},
        {"http://h/a/b.m3u8#frag", "s.ts?x=1", "http://h/a/s.ts?x=1#frag"},
        {"http://h", "a.ts", "http://h"},
        // The playlist's name is replaced as it is written, escapes and all.
        {"http://h/a/my%20list.m3u8", "seg1.ts", "http://h/a/seg1.ts"},
        {"http://h/a%20b/c%2Fd.m3u8?t=%41", "seg1.ts", "http://h/a%20b/seg1.ts"},
        // Nothing is normalised: signed names and queries, escapes, dots and case as written.
        {"HTTP://CDN.Example.COM/v/i.m3u8?sig=a%2F", "seg%2f1.ts?sig=a%2fb",
         "HTTP://CDN.Example.COM/v/seg%2f1.ts?sig=a%2fb"},
        {"http://h/a/b/i.m3u8", "../~u/%7E.ts", "http://h/a/b/../~u/%7E.ts"},
        {"http://h/a/./b/i.m3u8", "./s.ts", "http://h/a/./b/./s.ts"},
        {"http://h/a/b/i.m3u8", "https://O.Test/S%2F.ts?k=%2f", "https://O.Test/S%2F.ts?k=%2f"},
        {"http://H/a/b/i.m3u8?s=1", "/x/../y%2f.ts", "http://H/y%2f.ts"},
    };
    for (const auto& [playlist, path, expected] : cases) {
        const auto resolved = subUrl(url(playlist), path);
        EXPECT_EQ(resolved ? resolved->absoluteString() : "", expected) << playlist << " + " << path;
    }
}

// The shortcut for plain relative names must build exactly the URL that parsing the resolved text
// builds. Playlists: the name twice, a fragment, escapes, written as the application wrote it, no
// path, a file.
TEST(SubUrlResolverTest, BuildsWhatAParseOfItsTextBuilds) {
    const char* playlists[] = {"https://cdn.example.com/vod/show/720p/index.m3u8",
                               "http://u:p@h:8080/a/b/index.m3u8?t=1&x=/y",
                               "http://h/v.m3u8/v.m3u8",
                               "http://h/a/b.m3u8#frag",
                               "http://h/a%20b/c%2Fd.m3u8",
                               "HTTP://CDN.Example.COM/A/./b/../v%2f/i.m3u8?sig=x%2F",
                               "http://h",
                               "file:///tmp/p/playlist.m3u8"};
    const char* paths[] = {"seg_1.ts",
                           "\"seg_1.ts\"",
                           "seg-1.m4s?sig=a/b?c&d=e",
                           "sub/dir/seg.ts",
                           "a:b@c!$&'()*+,;=~.ts",
                           "",
                           "../up.ts",
                           "./here.ts",
                           "a/./b.ts",
                           "seg%201.ts",
                           "seg%2f1.ts?sig=a%2fb",
                           "seg%2F1.ts?sig=a%2Fb%",
                           "~u/%7e.ts",
                           "seg 1.ts",
                           "seg#1.ts",
                           "Seg.TS",
                           "..",
                           "x/",
                           "ü.ts",
                           "https://Other.test/a%2f.ts?s=1",
                           "/root/x.ts"};
    const auto parts = [](const Url& url) {
        return std::tuple(url.absoluteString(), url.scheme(), url.host(), url.query(), url.fragment(),
                          url.port(), url.path(), url.lastPathComponent());
    };
    for (const char* playlist : playlists) {
        const SubUrlResolver resolve(url(playlist));
        for (const char* path : paths) {
            SCOPED_TRACE(std::string(playlist) + " + " + path);
            const auto resolved = resolve(path);
            if (!resolved) continue;
            const auto parsed = Url::parse(resolved->absoluteString());
            ASSERT_TRUE(parsed);
            EXPECT_EQ(parts(*resolved), parts(*parsed));
        }
    }
}

TEST(SubUrlResolverTest, ReplacingTheLastSegmentTakesOnlyPlainRelativeReferences) {
    const auto base = url("http://h/a/b/index.m3u8?t=1#f");
    EXPECT_EQ(base.replacingLastPathSegment("c/d.ts?x=1")->absoluteString(), "http://h/a/b/c/d.ts?x=1");
    EXPECT_EQ(base.replacingLastPathSegment("c/d.ts?x=1")->query(), "x=1");
    EXPECT_EQ(base.replacingLastPathSegment("")->absoluteString(), "http://h/a/b/");
    EXPECT_EQ(base.replacingLastPathSegment("../s%2f1.ts?sig=a%2Fb")->absoluteString(),
              "http://h/a/b/../s%2f1.ts?sig=a%2Fb");
    for (const char* reference : {"/abs.ts", "sp ace", "pct%4", "pct%zz1", "fr#ag", "ü"})
        EXPECT_FALSE(base.replacingLastPathSegment(reference)) << reference;
    EXPECT_FALSE(url("http://h").replacingLastPathSegment("a.ts"));
    EXPECT_FALSE(url("a/b.m3u8").replacingLastPathSegment("c.ts"));
}

class HttpHelpersTest : public ::testing::Test {
protected:
    void SetUp() override {
        CookieStorage::shared().removeAll();
        heads = 0;
    }
    void TearDown() override { CookieStorage::shared().removeAll(); }

    // What sendSynchronous printed, then what it returned, in one line.
    static std::string
    outcome(const std::string& target, double timeout = 60,
            const std::shared_ptr<platform::UrlSession>& session = platform::UrlSession::create()) {
        testing::internal::CaptureStdout();
        const auto result = sendSynchronous(
            *session, UrlRequest(url(target), platform::CachePolicy::useProtocolCachePolicy, timeout));
        std::string text = testing::internal::GetCapturedStdout() + "|";
        if (result.value && result.error) return text + "both";
        if (result.error)
            return text + result.error->domain + " " + std::to_string(result.error->code) + " " +
                   result.error->localizedDescription;
        if (!result.value) return text + "nothing";
        return text + result.value->first.value_or("-") + " " +
               std::to_string(result.value->second->statusCode);
    }

    static void SetUpTestSuite() {
        origin = std::make_unique<test::LoopbackServer>([](httplib::Server& http) {
            http.Get(R"(/status/(\d+))", [](const httplib::Request& request, httplib::Response& response) {
                response.status = std::stoi(request.matches[1]);
                response.set_content("body", "text/plain");
            });
            http.Get("/probe", [](const httplib::Request& request, httplib::Response& response) {
                if (request.method == "HEAD") ++heads;
                response.set_header("x-echo-token", request.get_header_value("X-Token"));
                response.set_header("content-type", "application/vnd.apple.mpegurl");
                response.set_header("Set-Cookie", "token=abc; Path=/");
                response.set_content("#EXTM3U\n", "application/vnd.apple.mpegurl");
            });
        });
    }
    static void TearDownTestSuite() { origin.reset(); }

    // One server for the suite: stopping one waits for the client's idle connections.
    static inline std::unique_ptr<test::LoopbackServer> origin;
    static inline std::atomic<int> heads{0};
    test::LoopbackServer& server = *origin;
};

// Statuses outside 200…299 fail with "<status> error", transport errors pass on unchanged, a
// response that is not HTTP gives nothing, and a session serves one call; each failure prints.
TEST_F(HttpHelpersTest, SendSynchronousOutcomes) {
    for (int status : {199, 200, 299, 300, 404}) {
        const std::string code = std::to_string(status), domain = code + " error";
        EXPECT_EQ(outcome(server.url("/status/" + code), 10),
                  status >= 200 && status < 300
                      ? "|body " + code
                      : code + "\n|" + domain + " 0 The operation couldn’t be completed. (" + domain +
                            " error 0.)");
    }
    test::SilentListener silent;
    EXPECT_EQ(outcome(silent.baseUrl() + "/never", 1),
              "The request timed out.\n|URLErrorDomain -1001 The request timed out.");

    const auto path =
        std::filesystem::temp_directory_path() / ("ovalto-helpers-" + std::to_string(::getpid()));
    std::ofstream(path) << "#EXTM3U\n";
    EXPECT_EQ(outcome(Url::fileUrl(path.string()).absoluteString()), "|nothing");
    std::filesystem::remove(path);

    const auto session = platform::UrlSession::create();
    EXPECT_EQ(outcome(server.url("/status/200"), 60, session), "|body 200");
    EXPECT_THAT(outcome(server.url("/status/200"), 60, session), testing::HasSubstr("|URLErrorDomain -999 "));
}

TEST_F(HttpHelpersTest, AllHeaderFieldsProbesWithHeadAndIsEmptyOnFailure) {
    const auto found =
        allHeaderFields(url(server.url("/probe")), std::map<std::string, std::string>{{"X-Token", "t1"}});
    // Canonical names.
    EXPECT_EQ(std::tuple(heads.load(), found.at("Content-Type"), found.at("X-Echo-Token")),
              std::tuple(1, "application/vnd.apple.mpegurl", "t1"));

    LogCapture log;
    testing::internal::CaptureStdout();
    const int closedPort = test::SilentListener().port();
    EXPECT_TRUE(
        allHeaderFields(url("http://127.0.0.1:" + std::to_string(closedPort) + "/"), std::nullopt).empty());
    EXPECT_TRUE(allHeaderFields(url(server.url("/status/500")), std::nullopt).empty());
    EXPECT_TRUE(allHeaderFields(Url::fileUrl("/nonexistent/ovalto"), std::nullopt).empty());
    testing::internal::GetCapturedStdout();
    EXPECT_TRUE(log.contains("[Error URLExtension|allHeaderFields|"));
    EXPECT_TRUE(log.contains("Could not connect to the server."));
    EXPECT_TRUE(log.contains("(500 error error 0.)"));
}

TEST_F(HttpHelpersTest, CookiesFromFieldsFromAHeadOrFromTheStore) {
    const Url site = url(server.url("/probe"));
    const auto given = cookies(site, std::map<std::string, std::string>{{"Set-Cookie", "a=1, b=2; Path=/x"}});
    ASSERT_TRUE(given && given->size() == 2);
    EXPECT_EQ(std::tuple((*given)[1].path, heads.load()), std::tuple("/x", 0));

    const auto probed = cookies(site, std::nullopt);
    ASSERT_TRUE(probed && probed->size() == 1);
    EXPECT_EQ(std::tuple((*probed)[0].value, heads.load()), std::tuple("abc", 1));

    // Fields without cookies fall back to the store, and to nothing when it is empty too.
    const std::map<std::string, std::string> none{{"Content-Type", "text/plain"}};
    CookieStorage::shared().removeAll();
    EXPECT_FALSE(cookies(site, none));
    CookieStorage::shared().setCookies({*platform::Cookie::make("kept", "1")}, site);
    const auto stored = cookies(site, none);
    ASSERT_TRUE(stored);
    EXPECT_EQ((*stored)[0].name, "kept");
}

// Bridged errors carry the case's ordinal as their code and come back as the same case.
TEST(OvaltoErrorTest, BridgesWithTheOrdinalAndBack) {
    const auto error = OvaltoError::inputParam("PlayList response is not valid.", 404);
    EXPECT_EQ(error.code(), 404);
    const auto bridged = error.toError();
    EXPECT_EQ(std::tuple(bridged.domain, bridged.code, bridged.localizedDescription),
              std::tuple("Ovalto.OvaltoError", 0, "PlayList response is not valid."));
    EXPECT_EQ(OvaltoError::from(error.toError()), error);
    EXPECT_EQ(OvaltoError::initFailed("x", 1).toError().code, 8);
    EXPECT_EQ(OvaltoError::assetPlayable().toError().code, 11);
    EXPECT_EQ(OvaltoError::assetPlayable().code(), 0x8000);
    EXPECT_FALSE(OvaltoError::from(platform::Error{"NSURLErrorDomain", -1001, "timed out", {}}));
}

TEST(OVALogTest, LineFormatPercentSignsAndThreshold) {
    Ovalto::logLevel = OVALogLevel::debug;
    {
        LogCapture capture;
        OVALog(OVALogLevel::error, "asset is not playable.", "prepareInternal(keys:)", "/a/b/F", 203);
        OVALog(OVALogLevel::info, "", "prepare(with:customHeaders:)", "NoSlash.cpp", 7);
        OVALog(OVALogLevel::debug, "x", "f", "dir/", 1);
        OVALog(OVALogLevel::warning, "100% %@ %s %n", "f", "F", 1);
        EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                       "[Error F|prepareInternal(keys:)|203] asset is not playable.",
                                       "[Info NoSlash.cpp|prepare(with:customHeaders:)|7] ",
                                       "[Debug unknown|f|1] x",
                                       "[Warning F|f|1] 100% %@ %s %n",
                                   }));
    }
    // The first letters of the levels that pass each threshold.
    for (auto [threshold, expected] :
         {std::pair{OVALogLevel::info, "IWE"}, {OVALogLevel::warning, "WE"}, {OVALogLevel::silent, ""}}) {
        Ovalto::logLevel = threshold;
        LogCapture capture;
        for (auto level : {OVALogLevel::debug, OVALogLevel::info, OVALogLevel::warning, OVALogLevel::error})
            OVALog(level, "m", "f", "F", 1);
        std::string passed;
        for (const auto& line : capture.lines())
            passed += line.at(1);
        EXPECT_EQ(passed, expected) << "threshold " << displayName(threshold);
    }
    Ovalto::logLevel = OVALogLevel::debug;
}

// Each text is the shortest that reads back as its value.
TEST(OVALogTest, DecimalsAreWrittenInTheirShortestForm) {
    for (const char* text : {"2.02", "2500000.0", "0.30000000000000004", "0.0", "1e-05", "1.2345e-05",
                             "9007199254740992.0", "1e+20", "inf", "nan"})
        EXPECT_EQ(describeDecimal(std::stod(text)), text);
}

TEST(MediaTypeTest, HlsTypeValuesMapToMediaTypes) {
    EXPECT_EQ(MediaType::create("closed-captions"), MediaType::text);
    EXPECT_EQ(MediaType::create("Audio"), MediaType::audio);
    EXPECT_EQ(MediaType::create("foo"), MediaType::video);
    EXPECT_FALSE(MediaType::fromRawValue("AUDIO"));
}

} // namespace
} // namespace ovalto
