#include "API/OvaltoAccess.h"
#include "Command.h"
#include "Origin.h"
#include "PlaySubtitles.h"
#include "PreparationOutcome.h"
#include "PreparedSession.h"
#include "ProtectedPlay.h"
#include "QoeSession.h"
#include "RetryReporter.h"
#include "Timeline.h"
#include "ovalto/Notifications.h"
#include "ovalto/Ovalto.h"
#include "ovalto/OvaltoError.h"
#include "platform/NotificationCenter.h"
#include "platform/Player.h"
#include "platform/PlayerItem.h"
#include "platform/RunLoop.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <sstream>

namespace ovalto::tool {

namespace {

const char* playUsage = R"(usage: ovalto play [URL] [options]

Prepares URL through the library and plays it with the headless player, printing what happened:
the rewritten master playlist, every manifest and fragment request and response (with the edge
host, size and time), the start-up time, re-buffering periods, the tracks, and a summary.
Without URL it serves the built-in sample on a loopback port and plays that.

  --header NAME:VALUE         an HTTP header for playlist and segment requests (repeatable;
                              "Cookie:a=1; b=2" also becomes cookies)
  --custom-header NAME:VALUE  a custom header given with the content URL (repeatable)
  --edge PRIORITY=URL         a delivery server for segments; the lowest priority wins (repeatable)
  --select TYPE=N             play rendition N (0-based, as listed under tracks) of TYPE
                              audio, text or video (repeatable)
  --rate R                    playback rate (default 1; 4 plays 20 s of media in 5 s)
  --duration S                stop after S seconds of media (default: to the end; live: 30)
  --log-level L               library log level on standard error: debug, info, warning, error,
                              silent (default error)
  --trace                     also print every request the player makes
  --json                      one JSON object per event on standard output
  --timeout S                 give up when preparation takes longer than S seconds (default 60)
  --subtitles FILE|URL        a side-car subtitle document; each delivered text and cue is printed
                              (sample:srt, sample:vtt, sample:ttml: the built-in sample's)
  --mime MIME                 its MIME type (application/x-subrip, text/vtt, application/nttml+xml
                              …; implied for the sample's)
%s

The timeline goes to standard output, library logs to standard error. Exit status: 0 when the
stream played, 1 when preparation or playback failed, 2 for bad usage.
)";

struct PlayOptions {
    std::optional<std::string> url;
    Headers headers;
    Headers customHeaders;
    EdgeList edges;
    std::vector<std::pair<MediaType, long>> selections;
    double rate = 1.0;
    std::optional<double> duration;
    OVALogLevel logLevel = OVALogLevel::error;
    bool trace = false;
    bool json = false;
    double timeout = 60;
    std::shared_ptr<PlaySubtitles> subtitles = std::make_shared<PlaySubtitles>();
    QoeSession qoe;
    ProtectedPlay protection;
};

std::atomic<bool> interrupted{false};
extern "C" void onInterrupt(int) {
    interrupted = true;
}

bool splitPair(const std::string& text, char separator, std::string& first, std::string& second) {
    auto at = text.find(separator);
    if (at == std::string::npos || at == 0) return false;
    first = text.substr(0, at);
    second = text.substr(at + 1);
    while (!second.empty() && second.front() == ' ' && separator == ':')
        second.erase(0, 1);
    return true;
}

std::optional<double> parseDouble(const std::string& text) {
    char* end = nullptr;
    double value = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !std::isfinite(value)) return std::nullopt;
    return value;
}

// Parses the arguments; returns an exit status when the command should stop (help or an error).
std::optional<int> parseOptions(const std::vector<std::string>& args, PlayOptions& options) {
    auto fail = [](const std::string& message) {
        std::cerr << "ovalto play: " << message << "\nRun `ovalto play --help` for the options.\n";
        return 2;
    };
    for (std::size_t i = 0; i < args.size(); ++i) {
        const auto& arg = args[i];
        if (arg == "--help" || arg == "-h") {
            std::printf(playUsage, QoeSession::usage);
            std::cout << "\nProtected content:\n" << ProtectedPlay::usage;
            return 0;
        }
        std::string problem;
        if (int taken = options.protection.parse(args, i, problem)) {
            if (taken < 0) return fail(problem);
            continue;
        }
        if (arg == "--json") {
            options.json = true;
            continue;
        }
        if (arg == "--trace") {
            options.trace = true;
            continue;
        }
        if (arg.rfind("--", 0) != 0) {
            if (options.url) return fail("more than one URL given");
            options.url = arg;
            continue;
        }
        if (i + 1 >= args.size()) return fail(arg + " needs a value");
        const auto& value = args[++i];
        std::string first, second;
        if (arg == "--header" || arg == "--custom-header") {
            if (!splitPair(value, ':', first, second))
                return fail(arg + " takes NAME:VALUE, not '" + value + "'");
            (arg == "--header" ? options.headers : options.customHeaders)[first] = second;
        } else if (arg == "--edge") {
            auto priority = splitPair(value, '=', first, second) ? parseDouble(first) : std::nullopt;
            if (!priority || !platform::Url::parse(second))
                return fail("--edge takes PRIORITY=URL, not '" + value + "'");
            options.edges.push_back({static_cast<long>(*priority), second});
        } else if (arg == "--select") {
            auto index = splitPair(value, '=', first, second) ? parseDouble(second) : std::nullopt;
            auto type = MediaType::fromRawValue(first);
            if (!index || !type)
                return fail("--select takes audio=N, text=N or video=N, not '" + value + "'");
            options.selections.emplace_back(*type, static_cast<long>(*index));
        } else if (arg == "--rate" || arg == "--duration" || arg == "--timeout") {
            auto number = parseDouble(value);
            if (!number || *number <= 0) return fail(arg + " takes a positive number, not '" + value + "'");
            if (arg == "--rate") options.rate = *number;
            if (arg == "--duration") options.duration = *number;
            if (arg == "--timeout") options.timeout = *number;
        } else if (PlaySubtitles::takes(arg)) {
            if (auto error = options.subtitles->set(arg, value)) return fail(*error);
        } else if (arg == "--log-level") {
            static const std::pair<const char*, OVALogLevel> levels[] = {{"debug", OVALogLevel::debug},
                                                                         {"info", OVALogLevel::info},
                                                                         {"warning", OVALogLevel::warning},
                                                                         {"error", OVALogLevel::error},
                                                                         {"silent", OVALogLevel::silent}};
            bool known = false;
            for (const auto& [name, level] : levels) {
                if (value == name) {
                    options.logLevel = level;
                    known = true;
                }
            }
            if (!known) return fail("--log-level takes debug, info, warning, error or silent");
        } else if (std::string error; options.qoe.take(arg, value, error)) {
            if (!error.empty()) return fail(error);
        } else {
            return fail("unknown option " + arg);
        }
    }
    if (auto error = options.subtitles->validate()) return fail(*error);
    return std::nullopt;
}

std::string formatSeconds(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f s", seconds);
    return text;
}

// Seconds of media buffered ahead of `position`.
double bufferedAhead(const platform::PlayerItem& item, double position) {
    double ahead = 0;
    for (const auto& range : item.loadedTimeRanges()) {
        double start = range.start.seconds(), end = start + range.duration.seconds();
        if (start <= position + 0.001 && end > position) ahead = std::max(ahead, end - position);
    }
    return ahead;
}

class Session {
public:
    Session(PlayOptions options, Timeline& timeline)
        : options_(std::move(options))
        , timeline_(timeline) {}
    void setAfterPreparation(AfterPreparation after) { after_ = std::move(after); }

    int run() {
        Ovalto::logLevel = options_.logLevel;
        std::unique_ptr<Origin> origin;
        if (!options_.url && options_.protection.servesSample()) {
            std::string error;
            options_.url = options_.protection.start(timeline_, error);
            if (!options_.url) return std::cerr << "ovalto play: " << error << "\n", 1;
        }
        if (!options_.url) {
            Origin::Options serve;
            serve.directory = builtInSampleDirectory();
            origin = std::make_unique<Origin>(serve);
            std::string error;
            if (!origin->start(&error)) {
                std::cerr << "ovalto play: cannot serve the built-in sample: " << error << "\n";
                return 1;
            }
            options_.url = origin->baseUrl() + "master.m3u8";
            timeline_.event("origin", "serving the built-in sample at " + *options_.url,
                            {{"url", *options_.url}});
        }
        auto url = platform::Url::parse(*options_.url);
        if (!url) {
            std::cerr << "ovalto play: '" << *options_.url << "' is not a URL\n";
            return 2;
        }
        if (!prepare(*url)) return 1;
        if (after_) return after_(facade_, timeline_, interrupted);
        return play();
    }

private:
    bool prepare(const platform::Url& url) {
        listener_ = std::make_shared<TimelineListener>(timeline_);
        facade_ = Ovalto::create(options_.qoe.listener(listener_, timeline_));
        if (!options_.headers.empty())
            facade_->configurations[ConfigurationKey::httpHeaders] = options_.headers;
        if (std::string error; !options_.protection.configure(facade_->configurations, error))
            return std::cerr << "ovalto play: " << error << "\n", false;

        PreparationOutcome outcome(facade_);
        facade_->prepare(url, options_.customHeaders.empty() ? std::nullopt
                                                             : std::optional(options_.customHeaders));
        if (!options_.edges.empty()) facade_->setEdgeList(options_.edges);

        auto deadline = std::chrono::steady_clock::now() +
                        std::chrono::milliseconds(static_cast<long>(options_.timeout * 1000));
        auto& loop = platform::RunLoop::main();
        loop.runUntil([&] { return outcome.ended() || interrupted; }, deadline);

        if (!outcome.prepared()) {
            if (auto failure = outcome.error()) {
                auto typed = OvaltoError::from(*failure);
                int code = typed ? typed->code() : static_cast<int>(failure->code);
                char hex[16];
                std::snprintf(hex, sizeof hex, "0x%X", static_cast<unsigned>(code));
                std::cerr << "ovalto play: preparation failed: error " << hex << " (" << code
                          << "): " << failure->localizedDescription << "\n";
                timeline_.event("error", failure->localizedDescription,
                                {{"code", code}, {"message", failure->localizedDescription}});
            } else {
                std::cerr << "ovalto play: preparation "
                          << (interrupted ? "interrupted"
                                          : "timed out after " + formatSeconds(options_.timeout))
                          << "\n";
            }
            return false;
        }
        item_ = facade_->playerItem();
        timeline_.event("prepared", "player item ready for " + url.absoluteString());
        printMaster();
        printTracks();
        options_.subtitles->attach(*facade_, timeline_);
        return true;
    }

    void printMaster() {
        auto loader = OvaltoAccess::engine(*facade_)->resourceLoader.get();
        auto master = loader ? loader->presentation->playList.get() : std::nullopt;
        if (!master) return;
        if (timeline_.json()) {
            timeline_.event("master", "", {{"playlist", *master}});
            return;
        }
        std::ostringstream text;
        text << "rewritten master playlist, as the player receives it:\n";
        std::istringstream lines(*master);
        for (std::string line; std::getline(lines, line);)
            text << "            | " << line << "\n";
        timeline_.event("master", text.str().substr(0, text.str().size() - 1));
    }

    void printTracks() {
        for (MediaType type : {MediaType::audio, MediaType::text, MediaType::video}) {
            auto names = facade_->tracks(type);
            std::string joined;
            for (std::size_t i = 0; i < names.size(); ++i)
                joined += (i ? ", " : "") + std::to_string(i) + ": " + names[i];
            timeline_.event("tracks",
                            std::string(type.rawValue()) + "  " + (joined.empty() ? "(none)" : joined),
                            {{"type", type.rawValue()}, {"names", names}});
        }
        for (const auto& [type, index] : options_.selections) {
            timeline_.event("select", std::string(type.rawValue()) + " " + std::to_string(index),
                            {{"type", type.rawValue()}, {"index", index}});
            facade_->selectTrack(index, type);
        }
    }

    int play() {
        std::atomic<bool> ended{false};
        std::optional<std::string> failure;
        std::mutex failureMutex;
        auto& center = platform::NotificationCenter::defaultCenter();
        auto tokens = {
            center.addObserver(platform::playerItemDidPlayToEndTimeNotification, item_,
                               [&](const platform::Notification&) {
                                   timeline_.event("end", "played to the end");
                                   ended = true;
                               }),
            center.addObserver(platform::playerItemFailedToPlayToEndTimeNotification, item_,
                               [&](const platform::Notification& note) {
                                   std::string text = "playback failed";
                                   auto it =
                                       note.userInfo.find(platform::playerItemFailedToPlayToEndTimeErrorKey);
                                   if (it != note.userInfo.end())
                                       if (const auto* error = std::any_cast<platform::Error>(&it->second))
                                           text += ": " + error->localizedDescription;
                                   timeline_.event("failed", text);
                                   std::lock_guard lock(failureMutex);
                                   failure = text;
                                   ended = true;
                               }),
            center.addObserver(platform::playerItemTimeJumpedNotification, item_,
                               [&](const platform::Notification&) { timeline_.event("time jumped", ""); }),
        };

        auto player = platform::Player::create();
        retries_ = std::make_unique<RetryReporter>(timeline_, item_);
        if (options_.trace) {
            player->setRequestTrace([this](const platform::RequestTraceLine& line) {
                timeline_.event("player request", line.text(),
                                {{"url", line.url},
                                 {"viaDelegate", line.viaDelegate},
                                 {"status", line.statusCode},
                                 {"bytes", line.bytes},
                                 {"seconds", line.seconds}});
            });
        }
        player->replaceCurrentItem(item_); // after the trace, so that it sees every request
        const bool live = item_->duration().isIndefinite();
        const double limit = options_.duration.value_or(live ? 30.0 : 0.0);
        const double startedAt = timeline_.secondsSinceStart();
        player->setRate(options_.rate);
        timeline_.event("play",
                        "rate " +
                            formatSeconds(options_.rate).substr(0, formatSeconds(options_.rate).size() - 2) +
                            (live ? ", live" : "") + (limit > 0 ? ", for " + formatSeconds(limit) : ""));

        const bool terminal = !timeline_.json() && isatty(STDOUT_FILENO);
        double firstPosition = -1;
        auto reachedLimit = [&] {
            double position = item_->currentTime().seconds();
            if (std::isnan(position)) return false;
            if (firstPosition < 0 && position > 0) firstPosition = 0;
            // Live streams start at the live edge: count the media played, not the position.
            double played = live ? (timeline_.secondsSinceStart() - startedAt) * options_.rate : position;
            return limit > 0 && played >= limit;
        };
        auto ticker =
            platform::Timer::scheduledTimer(std::chrono::milliseconds(250), true, [&](platform::Timer&) {
                if (!terminal) return;
                double position = item_->currentTime().seconds();
                auto log = item_->accessLog();
                double bitrate = log && !log->events.empty() ? log->events.back().indicatedBitrate : 0;
                timeline_.progress("  position " + formatSeconds(std::isnan(position) ? 0 : position) +
                                   "  buffer " + formatSeconds(bufferedAhead(*item_, position)) +
                                   "  bitrate " + std::to_string(static_cast<long>(bitrate / 1000)) +
                                   " kbit/s");
            });
        platform::RunLoop::main().runUntil(
            [&] { return ended.load() || interrupted.load() || reachedLimit(); },
            std::chrono::steady_clock::time_point::max());
        ticker->invalidate();
        player->pause();
        for (auto token : tokens)
            center.removeObserver(token);
        if (interrupted)
            timeline_.event("stop", "interrupted");
        else if (!ended)
            timeline_.event("stop", "played " + formatSeconds(limit) + " of media");

        summary(player->currentTime().seconds());
        player.reset();
        retries_.reset();
        facade_.reset(); // concludes the session
        options_.qoe.finish();
        std::lock_guard lock(failureMutex);
        return failure ? 1 : 0;
    }

    void summary(double position) {
        auto figures = listener_->figures();
        std::int64_t segments = 0, bytes = 0;
        double transfer = 0;
        if (auto log = item_->accessLog()) {
            for (const auto& event : log->events) {
                segments += event.numberOfMediaRequests;
                bytes += event.numberOfBytesTransferred;
                transfer += event.transferDuration;
            }
        }
        if (std::isnan(position)) position = 0;
        const double averageBitrate = position > 0 ? static_cast<double>(bytes) * 8 / position : 0;
        const double throughput = transfer > 0 ? static_cast<double>(bytes) * 8 / transfer : 0;
        nlohmann::json fields = {{"startupMs", figures.startupMilliseconds
                                                   ? nlohmann::json(*figures.startupMilliseconds)
                                                   : nlohmann::json(nullptr)},
                                 {"rebufferings", figures.rebufferings},
                                 {"rebufferingMs", figures.rebufferingMilliseconds},
                                 {"segments", segments},
                                 {"bytes", bytes},
                                 {"mediaSeconds", position},
                                 {"averageBitrate", averageBitrate},
                                 {"throughput", throughput},
                                 {"manifestRequests", figures.manifestRequests},
                                 {"fragmentRequests", figures.fragmentRequests},
                                 {"retries", retries_ ? retries_->retries() : 0}};
        options_.subtitles->addFields(fields);
        if (timeline_.json()) {
            timeline_.event("summary", "", fields);
            return;
        }
        std::ostringstream text;
        text << "\nsummary\n"
             << "  start-up time        "
             << (figures.startupMilliseconds ? std::to_string(*figures.startupMilliseconds) + " ms" : "-")
             << "\n"
             << "  re-buffering         " << figures.rebufferings << " times, "
             << figures.rebufferingMilliseconds << " ms\n"
             << "  media played         " << formatSeconds(position) << "\n"
             << "  segments             " << segments << " (" << figures.fragmentRequests
             << " redirected by the library)\n"
             << "  playlists            " << figures.manifestRequests << " downloaded by the library\n"
             << "  bytes                " << bytes << "\n"
             << "  retries              " << (retries_ ? retries_->retries() : 0) << "\n"
             << "  average bitrate      " << static_cast<long>(averageBitrate / 1000) << " kbit/s\n"
             << "  download throughput  " << static_cast<long>(throughput / 1000) << " kbit/s\n"
             << options_.subtitles->summaryLine();
        if (isatty(STDOUT_FILENO)) timeline_.progress("");
        std::cout << text.str() << std::flush;
    }

    PlayOptions options_;
    AfterPreparation after_; // `ovalto bridge`: serve instead of playing
    Timeline& timeline_;
    std::shared_ptr<TimelineListener> listener_;
    std::shared_ptr<Ovalto> facade_;
    std::shared_ptr<platform::PlayerItem> item_;
    std::unique_ptr<RetryReporter> retries_;
};

int play(const std::vector<std::string>& args) {
    PlayOptions options;
    if (auto status = parseOptions(args, options)) return *status;
    std::signal(SIGINT, onInterrupt);
    std::signal(SIGTERM, onInterrupt);
    // With --json standard output carries the events only: what the library prints goes to
    // standard error for the run.
    std::ostream out(std::cout.rdbuf());
    std::streambuf* const saved = options.json ? std::cout.rdbuf(std::cerr.rdbuf()) : nullptr;
    const OVALogLevel savedLevel = Ovalto::logLevel.load();
    Timeline timeline(out, options.json);
    const int status = Session(std::move(options), timeline).run();
    Ovalto::logLevel = savedLevel;
    if (saved) std::cout.rdbuf(saved);
    return status;
}

} // namespace

int prepareThen(const std::vector<std::string>& args, const std::string& usage, AfterPreparation after) {
    PlayOptions options;
    if (std::find(args.begin(), args.end(), "--help") != args.end()) {
        std::cout << usage;
        return 0;
    }
    if (auto status = parseOptions(args, options)) return *status;
    std::signal(SIGINT, onInterrupt);
    std::signal(SIGTERM, onInterrupt);
    Timeline timeline(std::cout, options.json);
    Session session(std::move(options), timeline);
    session.setAfterPreparation(std::move(after));
    return session.run();
}

namespace {

CommandRegistrar registrar({"play", "prepare a stream through the library and play it (default: the sample)",
                            play});

} // namespace

} // namespace ovalto::tool
