// The QoE report as the manager builds and encodes it: encoding a long session's report against
// nlohmann-json dumping the same document built by hand, and what the listener adds to each
// fragment on the playback path against merely filling the record.
#include "QOEManager/QOEManager.h"
#include "nivora/Nivora.h"
#include "ovalto/Ovalto.h"

#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>

using namespace ovalto;

namespace {

constexpr int tracks = 20;
constexpr int fragments = 10000;

qoe::QOEReport longReport() {
    qoe::QOEReport report(
        {"Debian GNU/Linux", "12", "ovalto", "Linux", "F1142C71-331B-4939-B640-40E0DA034D75"}, {});
    report.transactionId = 1795420407;
    report.time = 1795420407;
    report.manifest = "https://cdn.example.com/live/channel-1/master.m3u8";
    report.playbackInfo.startupTime = 850;
    report.playbackInfo.buffering = {{1795420000, 1200, 800000}, {1795420100, 300, 400000}};
    report.networkInfo.type = "WiFi";
    for (int i = 0; i < fragments; ++i) {
        const int track = i % tracks;
        qoe::Track t;
        t.id = track;
        t.name = t.type = track < 2 ? "audio" : "video";
        t.fragments.push_back({i / tracks, 800000 + track * 100000,
                               "https://cdn.example.com/live/channel-1/" + std::to_string(track) + "/seg" +
                                   std::to_string(i / tracks) + ".m4s",
                               (i / tracks) * 2000, 2000, 120000 + i, 15 + i % 40});
        report.addFragment(std::move(t));
    }
    return report;
}

// The same document, built the way one would without the field lists.
nlohmann::json handBuilt(const qoe::QOEReport& report) {
    auto optional = [](const auto& value) {
        return value ? nlohmann::json(*value) : nlohmann::json(nullptr);
    };
    nlohmann::json document = {
        {"transactionId", optional(report.transactionId)},
        {"time", optional(report.time)},
        {"manifest", optional(report.manifest)},
        {"deviceInfo",
         {{"os", report.deviceInfo.os},
          {"osVersion", report.deviceInfo.osVersion},
          {"player", report.deviceInfo.player},
          {"model", report.deviceInfo.model},
          {"deviceId", report.deviceInfo.deviceId}}},
        {"networkInfo",
         {{"carrier",
           {{"name", optional(report.networkInfo.carrier.name)},
            {"mcc", optional(report.networkInfo.carrier.mcc)},
            {"mnc", optional(report.networkInfo.carrier.mnc)}}},
          {"type", optional(report.networkInfo.type)}}},
    };
    auto& playback = document["playbackInfo"] = {{"sessionId", report.playbackInfo.sessionId},
                                                 {"startupTime", optional(report.playbackInfo.startupTime)}};
    for (const auto& b : report.playbackInfo.buffering)
        playback["buffering"].push_back(
            {{"currentTime", b.currentTime}, {"duration", b.duration}, {"bitrate", b.bitrate}});
    for (const auto& track : report.tracks) {
        nlohmann::json t = {{"id", track.id}, {"name", track.name}, {"type", track.type}};
        for (const auto& f : track.fragments)
            t["fragments"].push_back({{"index", f.index},
                                      {"bitrate", f.bitrate},
                                      {"uri", f.uri},
                                      {"startTime", f.startTime},
                                      {"duration", f.duration},
                                      {"size", f.size},
                                      {"downloadTime", f.downloadTime}});
        document["tracks"].push_back(std::move(t));
    }
    return document;
}

void ReportToJSON(benchmark::State& state) {
    const auto report = longReport();
    std::size_t bytes = 0;
    for (auto _ : state) {
        auto json = report.toJSON();
        bytes = json->size();
        benchmark::DoNotOptimize(json);
    }
    state.counters["bytes"] = static_cast<double>(bytes);
}
BENCHMARK(ReportToJSON)->Unit(benchmark::kMillisecond);

// Baseline: dumping the hand-built document (building it is not timed).
void NlohmannDumpOfTheSameDocument(benchmark::State& state) {
    const auto document = handBuilt(longReport());
    std::size_t bytes = 0;
    for (auto _ : state) {
        auto json = document.dump();
        bytes = json.size();
        benchmark::DoNotOptimize(json);
    }
    state.counters["bytes"] = static_cast<double>(bytes);
}
BENCHMARK(NlohmannDumpOfTheSameDocument)->Unit(benchmark::kMillisecond);

class NoOpNetworkPlugin : public nivora::NetworkPlugin {
public:
    void onManifestRequest(Request&) override {}
    void onManifestResponse(Response&) override {}
    void onFragmentRequest(Request&, nivora::MediaType) override {}
    void onFragmentResponse(Response&, nivora::MediaType) override {}
};

class BenchNivora : public nivora::Nivora {
public:
    std::shared_ptr<nivora::NetworkPlugin> getNetworkPlugin() override { return network; }
    std::shared_ptr<nivora::QOEPlugin> getQOEPlugin() override { return nullptr; }
    std::shared_ptr<NoOpNetworkPlugin> network = std::make_shared<NoOpNetworkPlugin>();
};

ResponseInfo fragmentResponse(std::int64_t index) {
    ResponseInfo info;
    info.uri = "https://cdn.example.com/live/channel-1/3/seg" + std::to_string(index) + ".m4s";
    info.originalUri = info.uri;
    info.edgeIP = "203.0.113.7";
    info.size = 120000;
    info.type = "video";
    info.start = platform::MediaTime::make(index * 2000, 1000);
    info.duration = platform::MediaTime::make(2000, 1000);
    info.downloadTime = platform::MediaTime::make(15, 1000);
    info.streamIndex = static_cast<std::int32_t>(index % tracks);
    info.fragmentIndex = index;
    info.bitrate = 800000;
    return info;
}

// Baseline: what the engine spends filling the record that the listener receives.
void FragmentRecordOnly(benchmark::State& state) {
    std::int64_t index = 0;
    for (auto _ : state) {
        auto info = fragmentResponse(index++);
        benchmark::DoNotOptimize(info);
    }
}
BENCHMARK(FragmentRecordOnly)->Iterations(100000);

// The record plus the manager: the report entry, the plug-in's hook and the event message.
void FragmentThroughTheListener(benchmark::State& state) {
    Ovalto::logLevel = OVALogLevel::error;
    auto nivora = std::make_shared<BenchNivora>();
    auto manager = std::make_shared<QOEManager>(qoe::QOEReport({"os", "1", "bench", "Linux", "id"}, {}));
    manager->setNivora(nivora);
    std::int64_t index = 0;
    for (auto _ : state) {
        auto info = fragmentResponse(index++);
        manager->onFragmentResponse(info);
    }
}
BENCHMARK(FragmentThroughTheListener)->Iterations(100000);

} // namespace

BENCHMARK_MAIN();
