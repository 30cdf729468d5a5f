// The `ovalto` tool's commands as a user runs them, in this process with standard output and
// error captured: what each prints, the exit statuses, and the messages a user gets on failure;
// the tool's origin and soak monitor; real players through the bridge.
#include "Command.h"
#include "Origin.h"
#include "RewriteCommand.h"
#include "SoakMonitor.h"
#include "support/CapturedStreams.h"
#include "support/TestOrigin.h"

#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <nlohmann/json.hpp>
#include <pthread.h>
#include <sys/socket.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

using namespace ovalto;
using namespace std::chrono_literals;
using namespace std::string_literals;
using Args = std::vector<std::string>;
using Fault = tool::Origin::Fault;

namespace {

struct CommandRun {
    int status = -1;
    std::string out, err;
    bool operator==(const CommandRun&) const = default;
    friend void PrintTo(const CommandRun& run, std::ostream* os) {
        *os << "status " << run.status << "\nout: " << run.out << "\nerr: " << run.err;
    }
};

// Runs `ovalto <command> <args>`. Rewrite is given streams of its own, so that what it prints
// stays apart from what the library prints.
CommandRun ovalto(const std::string& command, const Args& args) {
    test::CapturedStreams streams;
    std::ostringstream out, err;
    if (command == "rewrite") return {tool::rewriteCommand(args, out, err), out.str(), err.str()};
    const int status = tool::findCommand(command)->run(args);
    return {status, streams.out(), streams.err()};
}

const std::string playlists = OVALTO_TEST_DATA "/playlists/";

std::string playlist(const std::string& name) {
    return *tool::readFile(playlists + name);
}

// MARK: - rewrite

TEST(RewriteCommandTest, PrintsWhatThePlayerReceivesForAFileOrAUrl) {
    test::TestOrigin server;
    server.serve("/show/master.m3u8", playlist("master_multi_audio_subtitles.m3u8"));
    const std::pair<Args, std::string> rows[] = {
        {{playlists + "master_packager_absolute.m3u8"}, "master_packager_absolute.expected"},
        {{playlists + "media_vod_fmp4_fairplay.m3u8", "--stream", "1", "--bitrate", "800000"},
         "media_vod_fmp4_fairplay.expected"},
        // resolved against the URL
        {{server.url("/show/master.m3u8")}, "master_multi_audio_subtitles.expected"},
    };
    for (const auto& [args, expected] : rows)
        EXPECT_EQ(ovalto("rewrite", args), (CommandRun{0, playlist(expected), ""}));
    const auto defaults = ovalto("rewrite", {playlists + "media_live_ts_aes.m3u8"});
    EXPECT_NE(defaults.out.find("\nrdtp://local/0/1500000/4521.ts\n"), std::string::npos) << defaults.out;

    const auto gone = ovalto("rewrite", {server.url("/show/gone.m3u8")});
    const auto why =
        "cannot download " + server.url("/show/gone.m3u8") + ": the server answered HTTP status 404";
    EXPECT_EQ(std::tuple(gone.status, gone.out), std::tuple(1, ""));
    EXPECT_NE(gone.err.find(why), std::string::npos) << gone.err;
}

TEST(RewriteCommandTest, ShowsTheLibrarysWarningsBesideTheResult) {
    const auto rewritten = tool::rewritePlayList("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=fast\nv.m3u8\n",
                                                 *platform::Url::parse("http://h/master.m3u8"), 0, 0);
    EXPECT_EQ(
        std::tuple(rewritten.isMaster, rewritten.playList, rewritten.warnings),
        std::tuple(true, "#EXTM3U\n#EXT-X-VERSION:7\n#EXT-X-STREAM-INF:BANDWIDTH=fast\n0/1500000/media.m3u8",
                   Args{"BANDWIDTH=fast is not a 32-bit decimal integer; the variant is keyed 1500000."}));
}

// MARK: - rewrite --through-loader: the answers a player gets from the resource loader

TEST(ThroughLoaderTest, PrintsEachRequestWithItsAnswer) {
    test::TestOrigin origin;
    origin.serve("/live/master.m3u8", "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=800000\nsd/index.m3u8\n");
    origin.serve("/live/sd/index.m3u8",
                 "#EXTM3U\n#EXT-X-TARGETDURATION:6\n#EXT-X-MEDIA-SEQUENCE:7\n"
                 "#EXT-X-MAP:URI=\"init.mp4\"\n#EXTINF:6,\nseg7.ts\n#EXTINF:6,\nseg8.ts\n"
                 "#EXTINF:6,\nseg9.ts\n#EXTINF:6,\nseg10.ts\n#EXT-X-ENDLIST\n");
    const auto run = ovalto("rewrite", {"--through-loader", origin.url("/live/master.m3u8")});
    EXPECT_EQ(run.status, 0) << run.err;

    const Args inOrder{
        "> cplp://local/master.m3u8\n< data, ",
        "0/800000/media.m3u8",
        "> cplp://local/0/800000/media.m3u8\n< data, ",
        "rdtp://local/0/800000/7.ts",
        "> rdtp://local/0/800000/-1.ts\n< redirect 302 " + origin.url("/live/sd/init.mp4") + "\n",
        "> rdtp://local/0/800000/7.ts\n< redirect 302 " + origin.url("/live/sd/seg7.ts") + "\n",
        "> rdtp://local/0/800000/9.ts\n< redirect 302 " + origin.url("/live/sd/seg9.ts") + "\n",
    };
    std::size_t at = 0;
    for (const auto& text : inOrder) {
        const auto found = run.out.find(text, at);
        ASSERT_NE(found, std::string::npos) << "missing after " << at << ": " << text << "\n" << run.out;
        at = found + text.size();
    }
    EXPECT_EQ(run.out.find("rdtp://local/0/800000/10.ts\n<"), std::string::npos) << "three segments only";
}

TEST(ThroughLoaderTest, MasterFailureExitsNonZeroWithTheError) {
    test::TestOrigin origin;
    origin.script("/gone/master.m3u8", {{503}});
    const auto run = ovalto("rewrite", {"--through-loader", origin.url("/gone/master.m3u8")});
    const auto answer =
        run.out.find("> cplp://local/master.m3u8\n< error 503: PlayList response is not valid.\n");
    EXPECT_EQ(std::tuple(run.status, answer != std::string::npos, origin.requestCount("/gone/master.m3u8")),
              std::tuple(1, true, 4))
        << run.out;
}

// MARK: - subtitles: the tables of a side-car document as JSON

TEST(SubtitlesCommandTest, JsonHoldsBothTablesWithDecimalKeys) {
    const auto srt = ovalto("subtitles", {"sample:srt", "--json"});
    ASSERT_EQ(srt.status, 0) << srt.err;
    const auto json = nlohmann::json::parse(srt.out);
    const auto cue =
        R"({"startTimeMs":2000,"endTimeMs":3000,"setting":null,"payload":"Cue 2: the pattern at 2 seconds"})";
    EXPECT_EQ(std::tuple(json.size(), json["texts"].size(), json["texts"]["200"], json["texts"]["300"],
                         json["cues"]["200"]),
              std::tuple(2u, 12u, "Cue 2: the pattern at 2 seconds", "", nlohmann::json::parse(cue)));
    // The WebVTT twin prints the same object, the cue-point document texts only.
    EXPECT_EQ(ovalto("subtitles", {"sample:vtt", "--json"}).out, srt.out);
    const auto ttml = nlohmann::json::parse(
        ovalto("subtitles", {"sample:ttml", "--mime", "application/xml+nttml", "--json"}).out);
    EXPECT_EQ(std::tuple(ttml["texts"].size(), ttml["cues"].empty()), std::tuple(12u, true));
}

// MARK: - Bad usage and failures of every command

TEST(ToolArgumentsTest, BadUsageAndUnreadableInputSayWhyOnStandardErrorWithTheirExitStatus) {
    const auto temporary = std::filesystem::temp_directory_path();
    // An empty file is read, as it cannot be mapped.
    const std::string page = temporary / "ovalto-rewrite-page.html",
                      empty = temporary / "ovalto-rewrite-empty.m3u8";
    std::ofstream(page) << "<html><body>Moved</body></html>\n";
    std::ofstream{empty};
    const char* const notHls = "this is not an HLS playlist: it does not begin with #EXT";
    const char* const outage = "--outage takes AT+LENGTH";
    const std::string stream = "http://127.0.0.1:1/m.m3u8";
    // command, arguments, exit status, part of the reason on standard error
    const std::tuple<const char*, Args, int, std::string> cases[] = {
        {"rewrite", {"/nonexistent/m.m3u8"}, 1, "ovalto rewrite: cannot read /nonexistent/m.m3u8: No such"},
        {"rewrite", {page}, 1, notHls},
        {"rewrite", {empty}, 1, notHls},
        {"rewrite",
         {playlists + "media_unreadable_duration.m3u8"},
         1,
         "the library refuses to write this media playlist: The fragment duration is REQUIRED.\n"},
        {"rewrite", {stream}, 1, "ovalto rewrite: cannot download " + stream},
        {"rewrite", {}, 2, "which playlist?"},
        {"rewrite", {"a.m3u8", "b.m3u8"}, 2, "one playlist at a time"},
        {"rewrite", {"a.m3u8", "--bitrate", "fast"}, 2, "--bitrate takes a 32-bit integer, not 'fast'"},
        {"rewrite", {"a.m3u8", "--stream"}, 2, "--stream needs a value"},
        {"rewrite", {"a.m3u8", "--base-url", "relative/path"}, 2, "--base-url needs an absolute URL"},
        {"rewrite", {"a.m3u8", "--frobnicate"}, 2, "unknown option --frobnicate"},
        {"rewrite", {"--through-loader", "not/absolute"}, 2, "--through-loader needs an absolute URL"},
        {"serve", {"--outage"}, 2, outage},
        {"serve", {"--outage", "20"}, 2, outage},
        {"serve", {"--outage", "20+0"}, 2, outage},
        {"serve", {"--outage", "-1+2"}, 2, outage},
        {"serve", {"--outage", "20+1.2s"}, 2, outage},
        {"serve", {"--port", "70000"}, 2, "--port takes a number"},
        {"serve", {"--window", "0"}, 2, "--window takes a number"},
        {"serve", {"--bogus"}, 2, "unknown option --bogus"},
        {"soak", {}, 2, "a stream URL is needed"},
        {"soak", {stream, "--duration"}, 2, "--duration takes a time"},
        {"soak", {stream, "--duration", "10d"}, 2, "--duration takes a time"},
        {"soak", {stream, "--interval", "0"}, 2, "--interval takes a time"},
        {"soak", {stream, "--duration", "-5m"}, 2, "--duration takes a time"},
        {"soak", {stream, "extra"}, 2, "unexpected argument extra"},
        {"subtitles", {"a.srt", "--mime", "text/plain"}, 2, "known types: application/x-subrip"},
        {"subtitles", {"a.srt"}, 2, "--mime MIME is needed"},
        {"subtitles", {"sample:ass"}, 2, "unknown sample side-car"},
        {"subtitles", {"/nonexistent/a.srt", "--mime", "application/x-subrip"}, 1, "no such file"},
        {"subtitles", {"/nonexistent/a.ttml", "--mime", "application/nttml+xml"}, 1, "a.ttml is not valid."},
    };
    for (const auto& [command, args, status, reason] : cases) {
        SCOPED_TRACE(std::string(command) + " " + (args.empty() ? "" : args.back()));
        const auto run = ovalto(command, args);
        EXPECT_EQ(std::tuple(run.status, run.err.find(reason) != std::string::npos), std::tuple(status, true))
            << run.err;
        // Only subtitles shows what it read, which is nothing.
        EXPECT_TRUE(run.out.empty() || command == "subtitles"s) << run.out;
    }
    std::filesystem::remove(page);
    std::filesystem::remove(empty);
}

// MARK: - serve's origin: content types, and the live window sliding over VOD segments

std::vector<std::string> segmentsOf(const std::string& playlist) {
    std::vector<std::string> uris;
    std::istringstream in(playlist);
    for (std::string line; std::getline(in, line);)
        if (!line.empty() && line[0] != '#') uris.push_back(line);
    return uris;
}

TEST(LiveWindowTest, SlidesOneSegmentPerTargetDurationAndLoopsButLeavesMastersAlone) {
    const std::string vod =
        "#EXTM3U\r\n#EXT-X-VERSION:7\r\n#EXT-X-TARGETDURATION:2\r\n#EXT-X-MEDIA-SEQUENCE:0\r\n"
        "#EXT-X-PLAYLIST-TYPE:VOD\r\n#EXT-X-MAP:URI=\"init.mp4\"\r\n"
        "#EXTINF:2.0,\r\ns0.m4s\r\n#EXTINF:2.0,\r\ns1.m4s\r\n#EXTINF:2.0,\r\ns2.m4s\r\n"
        "#EXTINF:2.0,\r\ns3.m4s\r\n#EXT-X-ENDLIST\r\n";
    // elapsed, media sequence, segments, discontinuity
    const std::tuple<std::chrono::milliseconds, std::string, Args, bool> cases[] = {
        {0ms, "0", {"s0.m4s", "s1.m4s", "s2.m4s"}, false},
        {1999ms, "0", {"s0.m4s", "s1.m4s", "s2.m4s"}, false},
        {2000ms, "1", {"s1.m4s", "s2.m4s", "s3.m4s"}, false},
        {4000ms, "2", {"s2.m4s", "s3.m4s", "s0.m4s"}, true},
        {16000ms, "8", {"s0.m4s", "s1.m4s", "s2.m4s"}, true},
    };
    for (const auto& [elapsed, sequence, segments, discontinuity] : cases) {
        const auto window = tool::Origin::liveWindow(vod, elapsed, 3).value_or("");
        const auto has = [&](const std::string& text) { return window.find(text) != std::string::npos; };
        EXPECT_EQ(std::tuple(has("#EXT-X-MEDIA-SEQUENCE:" + sequence + "\n"), segmentsOf(window),
                             has("#EXT-X-DISCONTINUITY\n"), has("ENDLIST"), has("PLAYLIST-TYPE"),
                             has("#EXT-X-MAP:URI=\"init.mp4\"")),
                  std::tuple(true, segments, discontinuity, false, false, true))
            << window;
    }
    EXPECT_FALSE(tool::Origin::liveWindow("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\nv.m3u8\n", 0ms, 3));
    EXPECT_EQ(segmentsOf(tool::Origin::liveWindow("#EXTM3U\n#EXTINF:4,\nonly.ts\n", 0ms, 3).value_or("")),
              Args{"only.ts"});
}

// TCP_NODELAY of every connection this process accepted on `port`.
std::vector<int> noDelayOfAccepted(int port) {
    std::vector<int> found;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
        const int fd = std::stoi(entry.path().filename().string());
        sockaddr_in local{}, peer{};
        socklen_t localLength = sizeof(local), peerLength = sizeof(peer), length = sizeof(int);
        int noDelay = 0;
        if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localLength) == 0 &&
            local.sin_family == AF_INET && ntohs(local.sin_port) == port &&
            ::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peerLength) == 0 &&
            ::getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, &length) == 0)
            found.push_back(noDelay);
    }
    return found;
}

TEST(OriginTest, ServesTheSampleWithHlsContentTypesWithoutNagleDelay) {
    std::atomic<int> served{0};
    tool::Origin origin(
        {.directory = tool::builtInSampleDirectory(), .onRequest = [&](auto&&...) { ++served; }});
    ASSERT_TRUE(origin.start());
    httplib::Client client("127.0.0.1", origin.port());
    client.set_keep_alive(true);
    auto master = client.Get("/master.m3u8");
    ASSERT_TRUE(master);
    EXPECT_EQ(std::tuple(master->status, master->get_header_value("Content-Type"),
                         master->body.find("#EXT-X-STREAM-INF") != std::string::npos),
              std::tuple(200, "application/vnd.apple.mpegurl", true));
    // httplib sends headers and body in two writes; with Nagle's algorithm the body of each answer
    // on a kept-alive connection would wait for the client's delayed acknowledgement.
    EXPECT_EQ(noDelayOfAccepted(origin.port()), std::vector<int>{1});
    EXPECT_EQ(client.Get("/video/low/seg0.m4s")->get_header_value("Content-Type"), "video/iso.segment");
    EXPECT_EQ(client.Get("/missing.m3u8")->status, 404);
    origin.stop();
    EXPECT_EQ(served.load(), 3);
}

TEST(OriginTest, LiveModeWindowsMediaPlaylistsAndARestartedOriginContinuesTheStream) {
    const tool::Origin::Options options{.directory = tool::builtInSampleDirectory(),
                                        .live = true,
                                        .liveEpoch = std::chrono::system_clock::now() - 1h,
                                        .onRequest = {}};
    const auto mediaSequence = [&] {
        tool::Origin origin(options);
        EXPECT_TRUE(origin.start());
        httplib::Client client("127.0.0.1", origin.port());
        auto master = client.Get("/master.m3u8");
        EXPECT_TRUE(master && master->body.find("video/high/media.m3u8") != std::string::npos);
        auto media = client.Get("/video/low/media.m3u8");
        if (!media) return -1L;
        EXPECT_EQ(segmentsOf(media->body).size(), 3u);
        const auto at = media->body.find("#EXT-X-MEDIA-SEQUENCE:");
        return at == std::string::npos ? -1L : std::atol(media->body.c_str() + at + 22);
    };
    const long before = mediaSequence(), after = mediaSequence();
    EXPECT_GT(before, 100); // an hour into the stream, not at its start
    // The second origin's window starts where the first one's was, or a segment later.
    EXPECT_TRUE(after == before || after == before + 1) << before << " then " << after;
}

// MARK: - serve

TEST(ServeCommandTest, ScriptedOutageDropsTheOriginAndBringsItBack) {
    const int port = [] { return test::TestOrigin().port(); }(); // free again once that origin is gone
    CommandRun run;
    std::thread server([&] {
        run = ovalto("serve", {"--port", std::to_string(port), "--quiet", "--outage", "0.2+1.5"});
    });

    // Down (a connection accepted and dropped, not refused as before the start), then up again:
    // seen in that order, whatever the machine's pace.
    httplib::Client client("127.0.0.1", port);
    client.set_connection_timeout(1s);
    client.set_read_timeout(1s);
    bool sawDown = false, backUp = false;
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    while (!backUp && std::chrono::steady_clock::now() < deadline) {
        auto answer = client.Get("/master.m3u8");
        if (!answer && answer.error() != httplib::Error::Connection) sawDown = true;
        backUp = sawDown && answer && answer->status == 200;
        std::this_thread::sleep_for(20ms);
    }
    pthread_kill(server.native_handle(), SIGTERM);
    server.join();
    EXPECT_EQ(std::tuple(sawDown, backUp, run.status), std::tuple(true, true, 0));
    EXPECT_LT(run.err.find("outage for 1.5 s"), run.err.find("outage over")) << run.err;
}

TEST(ServeCommandTest, ATakenPortIsRefusedNotShared) {
    test::TestOrigin first;
    CommandRun run;
    // On a thread of its own: serve blocks the stop signals of the thread it runs on.
    std::thread([&] { run = ovalto("serve", {"--port", std::to_string(first.port()), "--quiet"}); }).join();
    const auto why = "cannot listen on 127.0.0.1:" + std::to_string(first.port());
    EXPECT_EQ(std::tuple(run.status, run.err.find(why) != std::string::npos), std::tuple(1, true)) << run.err;
}

// MARK: - soak: memory may settle during the first minute, then stay within its allowance;
// descriptors and threads may flicker but not grow.

TEST(SoakMonitorTest, JudgesGrowthAfterTheWarmUp) {
    constexpr std::int64_t MB = 1 << 20;
    // what, a word of the failure (empty: a pass), samples as "seconds:rss MB:descriptors:threads"
    const std::tuple<const char*, std::string, const char*> rows[] = {
        {"growth during the warm-up is allowed", "", "0:10:8:8 30:40:9:10 60:40:9:10 120:44:9:10"},
        {"memory beyond the allowance fails", "memory", "0:10:8:8 60:40:9:10 90:42:9:10 120:45.5:9:10"},
        {"memory that comes back down still counts its peak", "memory", "60:40:9:10 90:46:9:10 120:40:9:10"},
        {"a descriptor caught in passing is no leak", "",
         "60:40:9:10 70:40:9:10 80:40:8:10 90:40:9:10 100:40:10:10 110:40:9:10 120:40:9:10 130:40:10:10 "
         "140:40:9:10"},
        {"descriptors that stay up are a leak", "descriptors",
         "60:40:8:10 70:40:8:10 80:40:8:10 90:40:9:10 100:40:10:10 110:40:9:10"},
        {"threads that stay up are a leak", "threads",
         "60:40:8:10 70:40:8:10 80:40:8:10 90:40:8:11 100:40:8:11 110:40:8:12"},
        {"fewer descriptors and threads are fine", "",
         "60:40:9:11 70:40:9:11 80:40:9:11 90:40:8:10 100:40:8:10"},
        {"nothing to judge before the warm-up ends", "", "0:10:8:8 30:90:20:20"},
    };
    for (const auto& [what, expected, samples] : rows) {
        SCOPED_TRACE(what);
        tool::SoakMonitor monitor(60, 5 * MB);
        std::istringstream in(samples);
        for (std::string sample; in >> sample;) {
            double seconds = 0, rss = 0;
            int files = 0, threads = 0;
            ASSERT_EQ(std::sscanf(sample.c_str(), "%lf:%lf:%d:%d", &seconds, &rss, &files, &threads), 4);
            monitor.add({seconds, static_cast<std::int64_t>(rss * MB), files, threads, 0, 0, {}});
        }
        const std::string failure = monitor.failure().value_or("");
        EXPECT_EQ(std::tuple(failure.empty(), failure.find(expected) != std::string::npos),
                  std::tuple(expected.empty(), true))
            << failure;
    }
}

TEST(SoakMonitorTest, MeasuresThisProcess) {
    const auto before = tool::SoakMonitor::measure(0, 0, 0);
    std::ifstream extra("/proc/self/status");
    const auto after = tool::SoakMonitor::measure(0, 0, 0);
    EXPECT_EQ(std::tuple(before.rssBytes > 0, before.threads >= 1, after.descriptors,
                         before.threadNames.find(" test_tools") != std::string::npos),
              std::tuple(true, true, before.descriptors + 1, true))
        << before.threadNames;
}

// MARK: - play against an origin that misbehaves: the tool ends with the engine's verdict as soon
// as the library gives it, and with --json standard output stays one JSON object per line.

// `ovalto play URL --json`: its first error event, and the lines of standard output that are not
// a JSON object.
struct JsonRun {
    CommandRun run;
    nlohmann::json error = nlohmann::json::object();
    Args notJson;

    explicit JsonRun(const std::string& url)
        // The timeout only guards against a hang: every case ends long before it.
        : run(ovalto("play", {url, "--json", "--timeout", "30", "--log-level", "silent"})) {
        std::istringstream lines(run.out);
        for (std::string line; std::getline(lines, line);) {
            const auto parsed = nlohmann::json::parse(line, nullptr, false);
            if (parsed.is_discarded() || !parsed.is_object())
                notJson.push_back(line);
            else if (parsed.value("event", "") == "error" && error.empty())
                error = parsed;
        }
    }
};

const std::string contentType = "Content-Type: application/vnd.apple.mpegurl\r\n";
const std::string master = "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=800000\nv/media.m3u8\n";

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
    const std::string masterOk = http(200, master, contentType);
    const struct {
        const char* what;
        std::string masterAnswer, mediaAnswer;
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
        {"media playlist 404", masterOk, http(404, "")},
        {"media playlist 500", masterOk, http(500, "")},
        {"media playlist truncated", masterOk, head("Content-Length: 400\r\n") + media},
        {"media playlist redirecting to itself", masterOk, http(302, "", "Location: /v/media.m3u8\r\n")},
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

        const JsonRun play(origin.url("/master.m3u8"));
        EXPECT_EQ(std::tuple(play.run.status, play.notJson, play.error.value("code", 0),
                             play.error.value("message", "").starts_with("AVURLAsset is not ")),
                  std::tuple(1, Args{}, c.code, true))
            << play.error.dump() << play.run.err;
    }
}

TEST(PlayFaultTest, WithJsonTheLibrarysPrintsGoToStandardError) {
    test::TestOrigin origin;
    // A refused probe is printed by the library; the content then counts as not HLS and the
    // player itself meets the failing origin.
    origin.script("/master.m3u8", {{405}}, "HEAD");
    origin.script("/master.m3u8", {{503}}, "GET");
    const JsonRun play(origin.url("/master.m3u8"));
    EXPECT_EQ(std::tuple(play.run.status, play.notJson, play.run.err.find("405\n") != std::string::npos,
                         play.error.value("code", 0)),
              std::tuple(1, Args{}, true, 0x8201))
        << play.run.err;
}

// MARK: - bridge: real HLS players (ffmpeg, mpv, GStreamer) on the built-in sample served by one
// loopback origin with a second one as the edge: the segments must come from the edge the library
// chose, the playlists from the origin through the library's listener.

// Duration in seconds of a media file, as ffprobe reads it; 0 when it cannot.
double durationOf(const std::filesystem::path& path) {
    const auto out = path.string() + ".duration";
    std::system(("ffprobe -v error -show_entries format=duration -of csv=p=0 '" + path.string() + "' > '" +
                 out + "' 2>/dev/null")
                    .c_str());
    return std::atof(tool::readFile(out).value_or("").c_str());
}

// How many requests `origin` answered whose path ends with `suffix`.
int count(const tool::Origin& origin, const std::string& suffix) {
    return static_cast<int>(
        std::ranges::count_if(origin.requests(), [&](const auto& e) { return e.path.ends_with(suffix); }));
}

// In `command`, {} is the master URL and {out} a file in the test's directory; `logged` is a text
// the client's {out}.log must hold, or empty when {out}.mp4 must last the sample's 12 s.
struct ClientRow {
    const char *what, *program;
    std::string command, logged;
};

class RealClientTest : public ::testing::TestWithParam<ClientRow> {};

TEST_P(RealClientTest, PlaysThroughTheBridgeFromTheChosenEdge) {
    const auto& row = GetParam();
    if (std::system(("command -v "s + row.program + " >/dev/null 2>&1").c_str()) != 0)
        GTEST_SKIP() << row.program << " is not installed (./ovalto.sh setup)";
    const auto directory = std::filesystem::temp_directory_path() /
                           ("ovalto-client-" + std::to_string(::getpid()) + "-" + row.program);
    std::filesystem::create_directories(directory);

    const tool::Origin::Options sample{.directory = tool::builtInSampleDirectory(), .onRequest = {}};
    tool::Origin origin(sample), edge(sample);
    ASSERT_TRUE(origin.start() && edge.start());
    std::string edgeUrl = edge.baseUrl();
    edgeUrl.pop_back(); // the library appends the segment's path below the master's directory

    std::string command = row.command;
    command.replace(command.find("{out}"), 5, (directory / "out").string());
    const auto run = ovalto("bridge", {origin.baseUrl() + "master.m3u8", "--edge", "1=" + edgeUrl,
                                       "--log-level", "silent", "--exec", "timeout 60 " + command});
    const std::string timeline = run.out + run.err;
    EXPECT_EQ(run.status, 0) << timeline;
    if (row.logged.empty())
        EXPECT_NEAR(durationOf(directory / "out.mp4"), 12.0, 0.5);
    else
        EXPECT_NE(tool::readFile(directory / "out.log").value_or("").find(row.logged), std::string::npos);
    // Segments from the edge only; the origin served the playlists (to the library) and the
    // initialisation sections, which are never moved.
    EXPECT_EQ(std::tuple(count(edge, ".m4s") > 0, count(origin, ".m4s"), count(edge, ".m3u8"),
                         count(origin, ".m3u8") > 0, timeline.find("manifest request") != std::string::npos,
                         timeline.find("GET /cplp/local/master.m3u8 20") != std::string::npos),
              std::tuple(true, 0, 0, true, true, true))
        << timeline;
    std::filesystem::remove_all(directory);
}

INSTANTIATE_TEST_SUITE_P(
    Clients, RealClientTest,
    ::testing::Values(
        ClientRow{"FfmpegCopiesEveryStreamOfTheSample", "ffmpeg",
                  "ffmpeg -nostdin -v error -i {} -map 0 -c copy -f mp4 {out}.mp4", ""},
        ClientRow{"MpvPlaysToTheEnd", "mpv",
                  "mpv --no-config --vo=null --ao=null --untimed --speed=10 --audio-pitch-correction=no "
                  "--really-quiet --log-file={out}.log {}",
                  "Exiting... (End of file)"},
        ClientRow{"GStreamerPlaybinReachesEndOfStream", "gst-launch-1.0",
                  "gst-launch-1.0 playbin uri={} video-sink=fakesink audio-sink=fakesink > {out}.log",
                  "Got EOS"}),
    [](const auto& info) { return std::string(info.param.what); });

} // namespace
