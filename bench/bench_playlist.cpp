// Playlist parse + generate, as the playlist resource runs them for every playlist request: a
// large master, a long VOD media playlist and the reloads of a live window. `bench/compare` runs
// the same inputs (written with --write-inputs=DIR) through python3-m3u8 for a baseline.
#include "PlayList/MasterPlayList.h"
#include "PlayList/MediaPlayList.h"
#include "PlayList/Presentation.h"
#include "ovalto/Ovalto.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

using namespace ovalto;

namespace {

constexpr int liveReloads = 10000;

// 20 variants with 6 audio and 6 subtitle renditions, as packagers write them.
std::string masterPlayList() {
    std::string text = "#EXTM3U\n#EXT-X-VERSION:6\n#EXT-X-INDEPENDENT-SEGMENTS\n";
    const char* languages[] = {"en", "fr", "de", "es", "it", "ja"};
    for (int i = 0; i < 6; ++i) {
        text += "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"aac\",LANGUAGE=\"" + std::string(languages[i]) +
                "\",NAME=\"Audio " + languages[i] + "\",AUTOSELECT=YES,DEFAULT=" + (i == 0 ? "YES" : "NO") +
                ",CHANNELS=\"2\",URI=\"audio/" + languages[i] + "/index.m3u8\"\n";
    }
    for (int i = 0; i < 6; ++i) {
        text += "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"subs\",LANGUAGE=\"" + std::string(languages[i]) +
                "\",NAME=\"Subtitles " + languages[i] + "\",AUTOSELECT=YES,FORCED=NO,URI=\"subs/" +
                languages[i] + "/index.m3u8\"\n";
    }
    for (int i = 0; i < 20; ++i) {
        const int bandwidth = 300000 + i * 397000;
        const int height = 144 + i * 48;
        text += "#EXT-X-STREAM-INF:BANDWIDTH=" + std::to_string(bandwidth) +
                ",AVERAGE-BANDWIDTH=" + std::to_string(bandwidth * 9 / 10) +
                ",CODECS=\"avc1.640028,mp4a.40.2\",RESOLUTION=" + std::to_string(height * 16 / 9) + "x" +
                std::to_string(height) + ",FRAME-RATE=29.970,AUDIO=\"aac\",SUBTITLES=\"subs\"\n";
        text += "video/" + std::to_string(height) + "p/index.m3u8\n";
    }
    for (int i = 0; i < 4; ++i) {
        text += "#EXT-X-I-FRAME-STREAM-INF:BANDWIDTH=" + std::to_string(90000 + i * 40000) +
                ",CODECS=\"avc1.640028\",URI=\"video/iframes_" + std::to_string(i) + ".m3u8\"\n";
    }
    return text;
}

// `count` byte-range segments of fMP4 with an initialisation section and a key every 100
// segments (one media file per key period).
std::string vodPlayList(int count = 10000) {
    std::string text = "#EXTM3U\n#EXT-X-VERSION:7\n#EXT-X-TARGETDURATION:7\n#EXT-X-MEDIA-SEQUENCE:0\n"
                       "#EXT-X-PLAYLIST-TYPE:VOD\n#EXT-X-INDEPENDENT-SEGMENTS\n"
                       "#EXT-X-MAP:URI=\"init.mp4\",BYTERANGE=\"1234@0\"\n";
    long offset = 1234;
    for (int i = 0; i < count; ++i) {
        if (i % 100 == 0) {
            text += "#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"skd://keys.example.com/asset/" +
                    std::to_string(i / 100) +
                    "\",KEYFORMAT=\"com.apple.streamingkeydelivery\",KEYFORMATVERSIONS=\"1\"\n";
            offset = 1234;
        }
        const long length = 400000 + (i * 7919) % 90000;
        text += i % 7 == 6 ? "#EXTINF:5.005,\n" : "#EXTINF:6.006,\n";
        text += "#EXT-X-BYTERANGE:" + std::to_string(length) + "@" + std::to_string(offset) + "\n";
        text += "media_" + std::to_string(i / 100) + ".mp4\n";
        offset += length;
    }
    text += "#EXT-X-ENDLIST\n";
    return text;
}

// The live window of six segments at media sequence `sequence`.
std::string liveWindow(int sequence) {
    std::string text = "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:6\n#EXT-X-MEDIA-SEQUENCE:" +
                       std::to_string(sequence) + "\n";
    for (int n = sequence; n < sequence + 6; ++n) {
        text += "#EXT-X-PROGRAM-DATE-TIME:2024-03-18T21:" + std::to_string(10 + n / 10 % 50) + ":" +
                std::to_string(10 + n % 10 * 4) + ".000Z\n";
        text += "#EXTINF:6.000,\nlive/segment_" + std::to_string(n) + ".ts\n";
    }
    return text;
}

const platform::Url masterUrl =
    *platform::Url::parse("https://cdn.example.com/vod/show/master.m3u8?token=abcdef");
const platform::Url mediaUrl =
    *platform::Url::parse("https://cdn.example.com/vod/show/video/720p/index.m3u8");

std::shared_ptr<Representation> placedRepresentation() {
    auto representation = std::make_shared<Representation>();
    representation->streamIndex.set(18);
    representation->bitrate.set(2684000);
    return representation;
}

void BM_MasterParseGenerate(benchmark::State& state) {
    const std::string text = masterPlayList();
    Presentation presentation;
    MasterPlayList master;
    for (auto _ : state) {
        if (!master.parsePlayList(text, masterUrl, presentation)) state.SkipWithError("not parsed");
        benchmark::DoNotOptimize(master.generatePlayList(presentation));
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
    state.SetLabel(std::to_string(text.size()) + " bytes");
}
BENCHMARK(BM_MasterParseGenerate)->Unit(benchmark::kMicrosecond);

void BM_VodParseGenerate(benchmark::State& state) {
    const std::string text = vodPlayList();
    auto representation = placedRepresentation();
    MediaPlayList media;
    for (auto _ : state) {
        if (!media.parsePlayList(text, mediaUrl, *representation)) state.SkipWithError("not parsed");
        benchmark::DoNotOptimize(media.generatePlayList(*representation));
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
    state.SetLabel(std::to_string(text.size()) + " bytes");
}
BENCHMARK(BM_VodParseGenerate)->Unit(benchmark::kMillisecond);

// The two halves apart, to see where the time goes.
void BM_VodParse(benchmark::State& state) {
    const std::string text = vodPlayList();
    auto representation = placedRepresentation();
    MediaPlayList media;
    for (auto _ : state)
        benchmark::DoNotOptimize(media.parsePlayList(text, mediaUrl, *representation));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_VodParse)->Unit(benchmark::kMillisecond);

void BM_VodGenerate(benchmark::State& state) {
    const std::string text = vodPlayList();
    auto representation = placedRepresentation();
    MediaPlayList media;
    media.parsePlayList(text, mediaUrl, *representation);
    for (auto _ : state)
        benchmark::DoNotOptimize(media.generatePlayList(*representation));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_VodGenerate)->Unit(benchmark::kMillisecond);

// One iteration is 10,000 reloads of a sliding six-segment window into one representation, as
// a player polls a live stream; "reload" is the time of one.
void BM_LiveWindowReloads(benchmark::State& state) {
    std::vector<std::string> windows;
    std::size_t bytes = 0;
    for (int i = 0; i < liveReloads; ++i) {
        windows.push_back(liveWindow(1000 + i));
        bytes += windows.back().size();
    }
    MediaPlayList media;
    for (auto _ : state) {
        auto representation = placedRepresentation();
        for (const auto& window : windows) {
            if (!media.parsePlayList(window, mediaUrl, *representation)) state.SkipWithError("not parsed");
            benchmark::DoNotOptimize(media.generatePlayList(*representation));
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
    state.counters["reload"] = benchmark::Counter(liveReloads, benchmark::Counter::kIsIterationInvariantRate |
                                                                   benchmark::Counter::kInvert);
}
BENCHMARK(BM_LiveWindowReloads)->Unit(benchmark::kMillisecond);

// --write-inputs=DIR: master.m3u8, vod.m3u8, live.m3u8s (the windows, NUL-separated) and
// vod-100k.m3u8, the 100,000-segment VOD that the whole-process comparison rewrites.
bool writeInputs(const std::filesystem::path& directory) {
    std::filesystem::create_directories(directory);
    std::ofstream(directory / "master.m3u8", std::ios::binary) << masterPlayList();
    std::ofstream(directory / "vod.m3u8", std::ios::binary) << vodPlayList();
    std::ofstream(directory / "vod-100k.m3u8", std::ios::binary) << vodPlayList(100000);
    std::ofstream live(directory / "live.m3u8s", std::ios::binary);
    for (int i = 0; i < liveReloads; ++i)
        live << liveWindow(1000 + i) << '\0';
    return static_cast<bool>(live);
}

} // namespace

int main(int argc, char** argv) {
    constexpr std::string_view option = "--write-inputs=";
    for (int i = 1; i < argc; ++i) {
        if (std::string_view(argv[i]).starts_with(option))
            return writeInputs(argv[i] + option.size()) ? 0 : 1;
    }
    // The debug log would copy every playlist twice; a deployed player runs at warning or above.
    Ovalto::logLevel = OVALogLevel::warning;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
