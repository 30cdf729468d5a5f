// What content keys cost, each measurement paired with a baseline from the same run and
// reported as a ratio:
//  - one licence exchange over loopback (key request made, POSTed to the licence server,
//    answer read into the key) against a POST of the same size that the server refuses at once;
//  - decrypting a 2 MB segment and checking it is media against a plain copy of the same bytes.
#include "LicenseServer.h"
#include "Resources/LicenseExchange.h"
#include "Utils/URLExtension.h"
#include "platform/ContentKey.h"
#include "platform/KeyExchange.h"
#include "platform/SegmentCipher.h"
#include "platform/UrlSession.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>

using namespace ovalto;
using Clock = std::chrono::steady_clock;

namespace {

const platform::ContentKey demo{platform::Data(16, 'K'), platform::Data(16, 'V'), "abc123", 0};

double microseconds(Clock::duration total, benchmark::IterationCount iterations) {
    return std::chrono::duration<double, std::micro>(total).count() / static_cast<double>(iterations);
}

void BM_LicenseExchange(benchmark::State& state) {
    static const auto identity = platform::KeyVendorIdentity::generate("bench");
    tool::LicenseServer server(*identity, {.keys = {{"abc123", demo}}});
    if (!server.start()) return state.SkipWithError("cannot start the licence server");
    const Configurations configurations{
        {ConfigurationKey::licenseServerUrl, *platform::Url::parse(server.url())},
    };
    Clock::duration exchange{}, baseline{};
    for (auto _ : state) {
        auto start = Clock::now();
        auto request = platform::KeyExchange::makeRequest(identity->certificatePem(), "abc123", false);
        auto& made = std::get<platform::KeyExchange::Request>(request);
        auto answer =
            LicenseExchange::licenseData(configurations, made.serverPlaybackContext, "abc123", std::nullopt);
        auto* ckc = std::get_if<std::optional<platform::Data>>(&answer);
        if (!ckc || !*ckc) return state.SkipWithError("the licence exchange failed");
        auto key = platform::KeyExchange::readAnswer(**ckc, made.session);
        benchmark::DoNotOptimize(key);
        exchange += Clock::now() - start;

        // The same HTTP round trip, refused before any cryptography.
        start = Clock::now();
        auto refused = LicenseExchange::licenseData(
            configurations, platform::Data(made.serverPlaybackContext.size(), 'x'), "abc123", std::nullopt);
        benchmark::DoNotOptimize(refused);
        baseline += Clock::now() - start;
    }
    state.counters["exchange_us"] = microseconds(exchange, state.iterations());
    state.counters["post_us"] = microseconds(baseline, state.iterations());
    state.counters["ratio"] =
        microseconds(exchange, state.iterations()) / microseconds(baseline, state.iterations());
}
BENCHMARK(BM_LicenseExchange)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_DecryptSegment(benchmark::State& state) {
    platform::Data clear;
    while (clear.size() < 2'000'000)
        clear += '\x47' + platform::Data(187, 'p');
    const auto encrypted = *platform::SegmentCipher::encrypt(clear, demo.key, demo.iv);
    Clock::duration decrypt{}, copy{};
    for (auto _ : state) {
        auto start = Clock::now();
        auto out = platform::SegmentCipher::decrypt(encrypted, demo.key, demo.iv);
        if (!out || !platform::SegmentCipher::looksLikeMedia(*out))
            return state.SkipWithError("decryption failed");
        benchmark::DoNotOptimize(out->data());
        decrypt += Clock::now() - start;

        start = Clock::now();
        platform::Data plain(encrypted.size(), '\0');
        std::memcpy(plain.data(), encrypted.data(), encrypted.size());
        benchmark::DoNotOptimize(plain.data());
        copy += Clock::now() - start;
    }
    const double bytes = static_cast<double>(encrypted.size()) * static_cast<double>(state.iterations());
    const auto gigabytesPerSecond = [&](Clock::duration total) {
        return bytes / std::chrono::duration<double>(total).count() / 1e9;
    };
    state.counters["decrypt_GBps"] = gigabytesPerSecond(decrypt);
    state.counters["copy_GBps"] = gigabytesPerSecond(copy);
    state.counters["ratio"] = std::chrono::duration<double>(decrypt) / std::chrono::duration<double>(copy);
}
BENCHMARK(BM_DecryptSegment)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
