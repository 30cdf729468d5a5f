// `ovalto play` against an origin that misbehaves: the tool ends with the engine's verdict as soon
// as the library gives it, and with --json standard output stays one JSON object per line.
#include "Command.h"
#include "support/CapturedStreams.h"
#include "support/TestOrigin.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <iostream>
#include <sstream>

using namespace ovalto;
using namespace std::string_literals;
using Fault = tool::Origin::Fault;

namespace {

const std::string contentType = "Content-Type: application/vnd.apple.mpegurl\r\n";
const std::string master = "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=800000\nv/media.m3u8\n";

struct Run {
    int status = -1;
    std::vector<nlohmann::json> events;
    std::vector<std::string> notJson;
    std::string err;

    const nlohmann::json* event(const std::string& kind) const {
        for (const auto& e : events)
            if (e.value("event", "") == kind) return &e;
        return nullptr;
    }
};

// Runs `ovalto play URL --json` in this process, standard output and error captured.
Run playJson(const std::string& url) {
    Run run;
    std::string out;
    {
        test::CapturedStreams streams;
        // The timeout only guards against a hang: every case ends long before it.
        run.status =
            tool::findCommand("play")->run({url, "--json", "--timeout", "30", "--log-level", "silent"});
        out = streams.out();
        run.err = streams.err();
    }
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        auto parsed = nlohmann::json::parse(line, nullptr, false);
        if (parsed.is_discarded() || !parsed.is_object())
            run.notJson.push_back(line);
        else
            run.events.push_back(std::move(parsed));
    }
    return run;
}

std::string head(const std::string& headers) {
    return "HTTP/1.1 200 OK\r\n" + contentType + headers + "\r\n";
}

// A whole HTTP/1.1 answer with a Content-Length; `headers` are extra lines, each ending "\r\n".
std::string http(int status, std::string_view body, std::string_view headers = {}) {
    return "HTTP/1.1 " + std::to_string(status) +
           " Scripted\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + std::string(headers) +
           "\r\n" + std::string(body);
}

TEST(PlayFaultTest, EndsWithTheEnginesErrorAsSoonAsPreparationFails) {
    const std::string media = "#EXTM3U\n#EXT-X-TARGETDURATION:4\n#EXTINF:4,\ns0.ts\n#EXT-X-ENDLIST\n";
    const struct {
        const char* what;
        std::string masterAnswer;
        std::string mediaAnswer;
        bool reset = false;
        int code = 0x8201; // an asset key failed to load; 0x8202: loaded, but not playable
    } cases[] = {
        {"master GET 503 while HEAD succeeds", http(503, "busy"), ""},
        {"master shorter than its length", head("Content-Length: 400\r\n") + master, ""},
        // The client takes headers cut short for an empty answer, which the player cannot play.
        {"connection closed mid-master", "HTTP/1.1 200 OK\r\nContent-Le", "", false, 0x8202},
        {"connection reset mid-master", head("Content-Length: 400\r\n") + master, "", true},
        {"master with invalid UTF-8", http(200, master + "#EXT-X-\xC3\x28\n", contentType), ""},
        {"master with a NUL",
         http(200, "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\nv/me\0dia.m3u8\n"s, contentType), ""},
        {"master with a byte-order mark", http(200, "\xEF\xBB\xBF" + master, contentType), ""},
        {"garbage instead of HTTP", "\x16\x03\x01\x02garbage\r\n\r\n", ""},
        {"bad chunked encoding", head("Transfer-Encoding: chunked\r\n") + "zz\r\n#EXTM3U\r\n0\r\n\r\n", ""},
        {"gzip header on plain text", http(200, master, contentType + "Content-Encoding: gzip\r\n"), ""},
        {"media playlist 404", http(200, master, contentType), http(404, "")},
        {"media playlist 500", http(200, master, contentType), http(500, "")},
        {"media playlist truncated", http(200, master, contentType), head("Content-Length: 400\r\n") + media},
        {"media playlist redirecting to itself", http(200, master, contentType),
         http(302, "", "Location: /v/media.m3u8\r\n")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        // HEAD finds a playlist; GET gets the scripted bytes.
        test::TestOrigin origin;
        origin.serve("/master.m3u8", master);
        origin.serve("/v/media.m3u8", media);
        origin.script("/master.m3u8", {{.fault = c.reset ? Fault::reset : Fault::raw, .raw = c.masterAnswer}},
                      "GET");
        if (!c.mediaAnswer.empty())
            origin.script("/v/media.m3u8", {{.fault = Fault::raw, .raw = c.mediaAnswer}}, "GET");

        const auto run = playJson(origin.url("/master.m3u8"));
        EXPECT_EQ(run.status, 1) << run.err;
        EXPECT_TRUE(run.notJson.empty()) << run.notJson.front();
        const auto* error = run.event("error");
        ASSERT_NE(error, nullptr) << run.err;
        EXPECT_EQ(error->value("code", 0), c.code) << error->dump();
        EXPECT_TRUE(error->value("message", "").starts_with("AVURLAsset is not ")) << error->dump();
    }
}

TEST(PlayFaultTest, WithJsonTheLibrarysPrintsGoToStandardError) {
    test::TestOrigin origin;
    // A refused probe is printed by the library; the content then counts as not HLS and the
    // player itself meets the failing origin.
    origin.script("/master.m3u8", {{405}}, "HEAD");
    origin.script("/master.m3u8", {{503}}, "GET");
    const auto run = playJson(origin.url("/master.m3u8"));
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(run.notJson.empty()) << run.notJson.front();
    EXPECT_NE(run.err.find("405\n"), std::string::npos) << run.err;
    ASSERT_NE(run.event("error"), nullptr);
    EXPECT_EQ(run.event("error")->value("code", 0), 0x8201);
}

} // namespace
