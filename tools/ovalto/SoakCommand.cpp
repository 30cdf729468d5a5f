#include "Command.h"
#include "SoakMonitor.h"
#include "ovalto/Notifications.h"
#include "ovalto/Ovalto.h"
#include "platform/NotificationCenter.h"
#include "platform/Player.h"
#include "platform/PlayerItem.h"
#include "platform/RunLoop.h"

#include <atomic>
#include <cmath>
#include <csignal>
#include <iostream>
#include <mutex>

namespace ovalto::tool {

namespace {

const char* soakUsage = R"(usage: ovalto soak URL [--duration D] [--interval I]

Prepares URL through the library and plays it with the headless player for a long time,
printing at every interval the resident memory, open file descriptors and threads of the
process, and the playlists and segments the player fetched so far.

  --duration D   how long to play (default 1h); D is a number with s, m or h (seconds if bare)
  --interval I   time between two lines (default 10s)

Fails (exit status 1) when playback fails, when the resident memory grows by more than 5 MB after
the first minute, or when descriptors or threads grow after it. Bad usage: exit status 2.
)";

std::atomic<bool> interrupted{false};
extern "C" void onSoakInterrupt(int) {
    interrupted = true;
}

std::optional<double> parseSeconds(const std::string& text) {
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (text.empty() || end == text.c_str() || !std::isfinite(value) || value <= 0) return std::nullopt;
    const std::string unit = end;
    if (unit.empty() || unit == "s") return value;
    if (unit == "m") return value * 60;
    if (unit == "h") return value * 3600;
    return std::nullopt;
}

int soak(const std::vector<std::string>& args) {
    std::optional<std::string> url;
    double duration = 3600, interval = 10;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const auto& arg = args[i];
        if (arg == "--help" || arg == "-h") {
            std::cout << soakUsage;
            return 0;
        }
        if (arg == "--duration" || arg == "--interval") {
            auto value = i + 1 < args.size() ? parseSeconds(args[++i]) : std::nullopt;
            if (!value) {
                std::cerr << "ovalto soak: " << arg << " takes a time such as 90s, 10m or 1h\n";
                return 2;
            }
            (arg == "--duration" ? duration : interval) = *value;
        } else if (!arg.empty() && arg[0] != '-' && !url) {
            url = arg;
        } else {
            std::cerr << "ovalto soak: unexpected argument " << arg << "\n" << soakUsage;
            return 2;
        }
    }
    auto parsed = url ? platform::Url::parse(*url) : std::nullopt;
    if (!parsed) {
        std::cerr << "ovalto soak: a stream URL is needed\n" << soakUsage;
        return 2;
    }
    std::signal(SIGINT, onSoakInterrupt);
    std::signal(SIGTERM, onSoakInterrupt);
    Ovalto::logLevel = OVALogLevel::error;

    const auto started = std::chrono::steady_clock::now();
    const auto elapsed = [&] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    };
    auto facade = Ovalto::create();
    std::atomic<bool> prepared{false}, failed{false};
    std::mutex failureMutex;
    std::string failure;
    auto& center = platform::NotificationCenter::defaultCenter();
    auto preparation = center.addObserver(OvaltoPreparationNotification, facade,
                                          [&](const platform::Notification&) { prepared = true; });
    facade->prepare(*parsed);
    auto& loop = platform::RunLoop::main();
    loop.runUntil([&] { return prepared.load() || interrupted.load(); },
                  std::chrono::steady_clock::now() + std::chrono::seconds(60));
    center.removeObserver(preparation);
    if (!prepared) {
        std::cerr << "ovalto soak: preparation of " << *url << " did not finish\n";
        return 1;
    }
    auto item = facade->playerItem();
    auto failedToken = center.addObserver(
        platform::playerItemFailedToPlayToEndTimeNotification, item, [&](const platform::Notification& note) {
            auto it = note.userInfo.find(platform::playerItemFailedToPlayToEndTimeErrorKey);
            std::lock_guard lock(failureMutex);
            if (it != note.userInfo.end())
                if (auto* error = std::any_cast<platform::Error>(&it->second))
                    failure = error->localizedDescription;
            failed = true;
        });
    std::atomic<std::int64_t> playlists{0}, segments{0};
    auto player = platform::Player::create();
    player->setRequestTrace([&](const platform::RequestTraceLine& line) {
        // Rewritten or not, playlists keep their extension.
        const auto query = line.url.find('?');
        const std::string path = line.url.substr(0, query);
        ++(path.ends_with(".m3u8") ? playlists : segments);
    });
    player->replaceCurrentItem(item);
    player->play();

    SoakMonitor monitor;
    const auto sample = [&] {
        auto figures = SoakMonitor::measure(elapsed(), playlists, segments);
        monitor.add(figures);
        std::cout << SoakMonitor::describe(figures) << std::endl;
    };
    sample();
    auto timer =
        platform::Timer::scheduledTimer(std::chrono::milliseconds(static_cast<long>(interval * 1000)), true,
                                        [&](platform::Timer&) { sample(); });
    loop.runUntil([&] { return failed.load() || interrupted.load() || elapsed() >= duration; },
                  std::chrono::steady_clock::time_point::max());
    timer->invalidate();
    if (!failed) sample();
    center.removeObserver(failedToken);
    player.reset();
    facade.reset();

    if (failed) {
        std::lock_guard lock(failureMutex);
        std::cout << "FAIL: playback failed after " << static_cast<long>(elapsed()) << " s: " << failure
                  << "\n";
        return 1;
    }
    if (auto growth = monitor.failure()) {
        std::cout << "FAIL: " << *growth << "\n";
        return 1;
    }
    if (auto base = monitor.baseline()) {
        std::cout << "PASS: flat after the first minute (baseline at " << static_cast<long>(base->seconds)
                  << " s: " << SoakMonitor::describe(*base) << ")\n";
    } else {
        std::cout << "PASS: too short to judge growth (under a minute)\n";
    }
    return 0;
}

CommandRegistrar registrar({"soak",
                            "play a stream for a long time and check that memory, descriptors and "
                            "threads stay flat",
                            soak});

} // namespace

} // namespace ovalto::tool
