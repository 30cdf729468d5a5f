// Side-car subtitles: decoding and parsing a two-hour film (1,500 cues) in SubRip and WebVTT and a
// 2,000-cue-point NHK document, each against a plain line split of the same bytes in the same
// run; and one poller tick (two table probes and the callbacks), with the heap allocations it
// makes counted.
#include "Internal/OvaltoInternal.h"
#include "TimedText/NHKTTML.h"
#include "TimedText/SubRip.h"
#include "TimedText/TextDecoder.h"
#include "TimedText/WebVTT.h"
#include "ovalto/Ovalto.h"
#include "platform/Asset.h"

#include <benchmark/benchmark.h>
#include <expat.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <string_view>
#include <vector>

// Counts heap allocations, so that the tick's can be reported. The replacements pair malloc with
// free themselves, which GCC cannot see once they are inlined.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
namespace {
std::atomic<long> allocations{0};
}
void* operator new(std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}

using namespace ovalto;

namespace {

constexpr int filmCues = 1500;
constexpr int cuePoints = 2000;

std::string stamp(long ms, char separator) {
    char text[32];
    std::snprintf(text, sizeof text, "%02ld:%02ld:%02ld%c%03ld", ms / 3600000, ms / 60000 % 60,
                  ms / 1000 % 60, separator, ms % 1000);
    return text;
}

// 1,500 cues over two hours, one or two lines each, as a film's subtitles run.
std::string film(bool webvtt) {
    std::string text = webvtt ? "WEBVTT\n\n" : "";
    for (int i = 0; i < filmCues; ++i) {
        const long start = 5000 + i * 4800L;
        if (!webvtt) text += std::to_string(i + 1) + "\n";
        text += stamp(start, webvtt ? '.' : ',') + " --> " + stamp(start + 3200, webvtt ? '.' : ',') +
                (webvtt && i % 5 == 0 ? " align:start position:10%" : "") + "\n";
        text += "I never thought we would make it this far, said line " + std::to_string(i) + ".\n";
        if (i % 2 == 0) text += "- Neither did I, but here we are.\n";
        text += "\n";
    }
    return text;
}

std::string cuePointDocument() {
    std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<cuepoints lang=\"ja\" version=\"1\">\n";
    for (int i = 0; i < cuePoints; ++i) {
        text += "  <cuepoint time=\"" + std::to_string(i * 3.6) +
                "\"><tt xml:lang=\"ja\"><body><div><p begin=\"0s\" end=\"3s\" style=\"s1\">Line " +
                std::to_string(i) +
                " &amp; more<br/>the second line of this cue</p></div></body></tt></cuepoint>\n";
    }
    return text + "</cuepoints>\n";
}

const std::string& srtFilm() {
    static const std::string text = film(false);
    return text;
}
const std::string& vttFilm() {
    static const std::string text = film(true);
    return text;
}
const std::string& ttmlDocument() {
    static const std::string text = cuePointDocument();
    return text;
}

void baselineLineSplit(benchmark::State& state, const std::string& bytes) {
    std::vector<std::string_view> lines;
    for (auto _ : state) {
        lines.clear();
        std::string_view rest = bytes;
        while (!rest.empty()) {
            const auto end = rest.find('\n');
            lines.push_back(rest.substr(0, end));
            if (end == std::string_view::npos) break;
            rest.remove_prefix(end + 1);
        }
        benchmark::DoNotOptimize(lines.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}

template <class Parser> void parseFilm(benchmark::State& state, const std::string& bytes) {
    for (auto _ : state) {
        Parser parser;
        parser.parse(std::string_view(TextDecoder::decode(bytes)));
        benchmark::DoNotOptimize(parser.cues.size());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}

void BM_SubRipFilm(benchmark::State& state) {
    parseFilm<SubRip>(state, srtFilm());
}
void BM_SubRipFilmLineSplitBaseline(benchmark::State& state) {
    baselineLineSplit(state, srtFilm());
}
void BM_WebVTTFilm(benchmark::State& state) {
    parseFilm<WebVTT>(state, vttFilm());
}
void BM_WebVTTFilmLineSplitBaseline(benchmark::State& state) {
    baselineLineSplit(state, vttFilm());
}

void BM_CuePointDocument(benchmark::State& state) {
    Ovalto::logLevel = OVALogLevel::silent;
    for (auto _ : state) {
        NHKTTML parser;
        parser.parse(std::string_view(ttmlDocument()));
        benchmark::DoNotOptimize(parser.texts.size());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * ttmlDocument().size()));
}
void BM_CuePointDocumentLineSplitBaseline(benchmark::State& state) {
    baselineLineSplit(state, ttmlDocument());
}
// Expat reading the same bytes with no handlers: the floor of any expat-based parse.
void BM_CuePointDocumentBareExpatBaseline(benchmark::State& state) {
    for (auto _ : state) {
        XML_Parser parser = XML_ParserCreate(nullptr);
        const auto& bytes = ttmlDocument();
        benchmark::DoNotOptimize(XML_Parse(parser, bytes.data(), static_cast<int>(bytes.size()), 1));
        XML_ParserFree(parser);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * ttmlDocument().size()));
}

// One tick on an engine whose item stands at 0 s, with entries at key 0 in both tables.
void BM_PollerTick(benchmark::State& state) {
    Ovalto::logLevel = OVALogLevel::silent;
    auto facade = Ovalto::create();
    auto engine = OvaltoInternal::create(facade);
    engine->playerItem.set(platform::PlayerItem::create(
        platform::Asset::create(*platform::Url::parse("http://127.0.0.1:9/a.m3u8"))));
    auto parser = std::make_shared<SubRip>();
    parser->parse(std::string_view(srtFilm()));
    parser->parse(std::string_view("00:00:00,000 --> 00:00:01,000\nat zero\n"));
    engine->timedText.set(parser);
    long delivered = 0;
    engine->onTimedText.set(std::make_shared<const OvaltoInternal::TimedTextHandler>(
        [&](const platform::MediaTime&, const std::string& text) { delivered += !text.empty(); }));
    engine->onTimedTextCue.set(std::make_shared<const OvaltoInternal::TimedTextCueHandler>(
        [&](const std::shared_ptr<Cue>& cue) { delivered += cue != nullptr; }));
    const long before = allocations.load();
    for (auto _ : state)
        engine->deliverTimedText();
    state.counters["allocations/tick"] =
        static_cast<double>(allocations.load() - before) / static_cast<double>(state.iterations());
    if (delivered != 2 * static_cast<long>(state.iterations()))
        state.SkipWithError("the tick missed its entries");
}
// The floor of a tick: the two hash-table probes alone.
void BM_PollerTickProbeBaseline(benchmark::State& state) {
    SubRip parser;
    parser.parse(std::string_view(srtFilm()));
    parser.parse(std::string_view("00:00:00,000 --> 00:00:01,000\nat zero\n"));
    std::int64_t key = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(parser.texts.find(key));
        benchmark::DoNotOptimize(parser.cues.find(key));
        benchmark::ClobberMemory();
    }
}

} // namespace

BENCHMARK(BM_SubRipFilm);
BENCHMARK(BM_SubRipFilmLineSplitBaseline);
BENCHMARK(BM_WebVTTFilm);
BENCHMARK(BM_WebVTTFilmLineSplitBaseline);
BENCHMARK(BM_CuePointDocument);
BENCHMARK(BM_CuePointDocumentLineSplitBaseline);
BENCHMARK(BM_CuePointDocumentBareExpatBaseline);
BENCHMARK(BM_PollerTick);
BENCHMARK(BM_PollerTickProbeBaseline);
BENCHMARK_MAIN();
