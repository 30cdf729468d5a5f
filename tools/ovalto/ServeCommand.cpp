#include "Command.h"
#include "Origin.h"

#include <algorithm>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace ovalto::tool {

namespace {

const char* serveUsage = R"(usage: ovalto serve [DIR] [--port P] [--host H] [--live] [--window N]
                   [--outage AT+LENGTH] [--quiet]

Serves an HLS presentation over HTTP on loopback, with the content types players expect
(application/vnd.apple.mpegurl for playlists).

  DIR          the presentation directory (default: the built-in sample)
  --port P     the port to listen on (default: any free port)
  --host H     the address to bind (default 127.0.0.1)
  --live       serve every media playlist as a live window that slides in real time over its
               segments, looping with a discontinuity at each wrap; the window follows the wall
               clock, so a restarted origin continues the same stream
  --window N   segments in a live window (default 3)
  --outage AT+LENGTH
               from AT seconds after the start, drop every connection for LENGTH seconds, as
               an origin that went away would (repeatable; for example --outage 20+1.2)
  --quiet      do not log each request on standard error

Stops on Ctrl-C.
)";

int serve(const std::vector<std::string>& args) {
    Origin::Options options;
    options.directory = builtInSampleDirectory();
    bool quiet = false;
    std::vector<std::pair<double, double>> outages; // start and length, seconds
    for (std::size_t i = 0; i < args.size(); ++i) {
        const auto& arg = args[i];
        auto value = [&]() -> std::optional<std::string> {
            if (i + 1 >= args.size()) return std::nullopt;
            return args[++i];
        };
        if (arg == "--help" || arg == "-h") {
            std::cout << serveUsage;
            return 0;
        } else if (arg == "--live") {
            options.live = true;
        } else if (arg == "--quiet") {
            quiet = true;
        } else if (arg == "--outage") {
            auto v = value();
            char* plus = nullptr;
            const double at = v ? std::strtod(v->c_str(), &plus) : -1;
            char* end = plus;
            const double length = plus && *plus == '+' ? std::strtod(plus + 1, &end) : -1;
            if (!v || at < 0 || length <= 0 || *end != '\0') {
                std::cerr << "ovalto serve: --outage takes AT+LENGTH in seconds, such as 20+1.2\n";
                return 2;
            }
            outages.emplace_back(at, length);
        } else if (arg == "--port" || arg == "--window" || arg == "--host") {
            auto v = value();
            if (!v) {
                std::cerr << "ovalto serve: " << arg << " needs a value\n";
                return 2;
            }
            if (arg == "--host") {
                options.host = *v;
                continue;
            }
            char* end = nullptr;
            long number = std::strtol(v->c_str(), &end, 10);
            if (*end != '\0' || number < 0 || number > 65535 || (arg == "--window" && number < 1)) {
                std::cerr << "ovalto serve: " << arg << " takes a number, not '" << *v << "'\n";
                return 2;
            }
            (arg == "--port" ? options.port : options.liveWindow) = static_cast<int>(number);
        } else if (!arg.empty() && arg[0] == '-') {
            std::cerr << "ovalto serve: unknown option " << arg << "\n" << serveUsage;
            return 2;
        } else {
            options.directory = arg;
        }
    }
    if (!quiet) {
        options.onRequest = [](const std::string& method, const std::string& path, int status,
                               std::size_t bytes) {
            std::cerr << method << " " << path << " " << status << " " << bytes << " bytes\n";
        };
    }

    // Block the stop signals before the server threads start so that only sigwait sees them.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    Origin origin(options);
    std::string error;
    if (!origin.start(&error)) {
        std::cerr << "ovalto serve: " << error << "\n";
        return 1;
    }
    std::cout << "Serving " << options.directory << (options.live ? " as a live stream" : "") << " at "
              << origin.baseUrl() << "\n"
              << "Master playlist: " << origin.baseUrl() << "master.m3u8\n"
              << std::flush;
    // Outages follow the wall clock of this run on a thread of their own.
    std::sort(outages.begin(), outages.end());
    std::mutex mutex;
    std::condition_variable stopping;
    bool stopped = false;
    std::thread faults([&] {
        const auto started = std::chrono::steady_clock::now();
        const auto at = [&](double seconds) {
            return started + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                 std::chrono::duration<double>(seconds));
        };
        std::unique_lock lock(mutex);
        for (const auto& [start, length] : outages) {
            if (stopping.wait_until(lock, at(start), [&] { return stopped; })) return;
            origin.setDown(true);
            std::cerr << "outage for " << length << " s\n";
            if (stopping.wait_until(lock, at(start + length), [&] { return stopped; })) return;
            origin.setDown(false);
            std::cerr << "outage over\n";
        }
    });
    int signal = 0;
    sigwait(&signals, &signal);
    {
        std::lock_guard lock(mutex);
        stopped = true;
    }
    stopping.notify_all();
    faults.join();
    origin.stop();
    return 0;
}

CommandRegistrar registrar({"serve", "serve a presentation over HTTP on loopback (VOD or --live)", serve});

} // namespace

std::string builtInSampleDirectory() {
    if (const char* dir = std::getenv("OVALTO_SAMPLE_DIR"); dir && *dir) return dir;
    // An installed tool (away from its source tree) has the sample in <prefix>/share/ovalto.
    std::error_code error;
    const auto installed =
        std::filesystem::read_symlink("/proc/self/exe", error).parent_path() / "../share/ovalto/sample";
    if (!std::filesystem::is_directory(OVALTO_SAMPLE_DIR) && std::filesystem::is_directory(installed, error))
        return installed.lexically_normal().string();
    return OVALTO_SAMPLE_DIR;
}

} // namespace ovalto::tool
