#include "SubtitlesCommand.h"

#include "Command.h"
#include "SubtitleSource.h"
#include "TimedText/TimedText.h"
#include "ovalto/MediaType.h"
#include "ovalto/OVALog.h"
#include "ovalto/Ovalto.h"
#include "platform/SystemLog.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <map>
#include <mutex>

namespace ovalto::tool {

namespace {

const char* subtitlesUsage = R"(usage: ovalto subtitles FILE|URL --mime MIME [options]

Parses a side-car subtitle document as the library does and prints its tables in time order:
the texts (key in hundredths of a second, time, text; an empty text clears the display), then
the cues (start, end, setting, payload), and how many of each.

  --mime MIME           application/x-subrip, text/vtt, application/nttml+xml (or
                        application/xml+nttml), application/smil+xml, application/x-ass
  --header NAME:VALUE   an HTTP header for an http(s) document (repeatable)
  --json                one JSON object {"texts": {key: text}, "cues": {key: {startTimeMs,
                        endTimeMs, setting, payload}}} with keys as decimal strings

FILE may also be sample:srt, sample:vtt or sample:ttml, the built-in sample's side-cars (their
MIME type is implied). Exit status: 0, 1 when the document could not be read or parsed, 2 for
bad usage.
)";

// "00:01:02.34" for a key in hundredths.
std::string clock(std::int64_t key) {
    const bool negative = key < 0;
    const std::uint64_t magnitude =
        negative ? 0 - static_cast<std::uint64_t>(key) : static_cast<std::uint64_t>(key);
    char text[48];
    std::snprintf(text, sizeof text, "%s%02llu:%02llu:%02llu.%02llu", negative ? "-" : "",
                  static_cast<unsigned long long>(magnitude / 360000),
                  static_cast<unsigned long long>(magnitude / 6000 % 60),
                  static_cast<unsigned long long>(magnitude / 100 % 60),
                  static_cast<unsigned long long>(magnitude % 100));
    return text;
}

// Line feeds shown as "\n", so that every entry stays on one line.
std::string oneLine(const std::string& text) {
    std::string out;
    for (char c : text)
        out += c == '\n' ? std::string("\\n") : std::string(1, c);
    return out;
}

template <class Map> std::vector<std::int64_t> sortedKeys(const Map& map) {
    std::vector<std::int64_t> keys;
    keys.reserve(map.size());
    for (const auto& entry : map)
        keys.push_back(entry.first);
    std::sort(keys.begin(), keys.end());
    return keys;
}

// The warning and error lines the library logs while it lives (kept off standard error).
class FailureCapture {
public:
    FailureCapture()
        : echo_(platform::SystemLog::echoesToStandardError()) {
        token_ = platform::SystemLog::addSink([this](const std::string& line) {
            if (line.find("[Error ") == std::string::npos && line.find("[Warning ") == std::string::npos)
                return;
            std::lock_guard lock(mutex_);
            const auto close = line.find("] ");
            lines_.push_back(close == std::string::npos ? line : line.substr(close + 2));
        });
        platform::SystemLog::setEchoToStandardError(false);
    }
    ~FailureCapture() {
        platform::SystemLog::removeSink(token_);
        platform::SystemLog::setEchoToStandardError(echo_);
    }
    FailureCapture(const FailureCapture&) = delete;
    FailureCapture& operator=(const FailureCapture&) = delete;
    std::vector<std::string> lines() const {
        std::lock_guard lock(mutex_);
        return lines_;
    }

private:
    bool echo_;
    int token_ = 0;
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

} // namespace

int subtitlesCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    auto fail = [&](const std::string& message) {
        err << "ovalto subtitles: " << message << "\nRun `ovalto subtitles --help` for the options.\n";
        return 2;
    };
    std::optional<std::string> source, mime;
    Headers headers;
    bool json = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const auto& arg = args[i];
        if (arg == "--help" || arg == "-h") {
            out << subtitlesUsage;
            return 0;
        }
        if (arg == "--json") {
            json = true;
        } else if (arg == "--mime" || arg == "--header") {
            if (i + 1 >= args.size()) return fail(arg + " needs a value");
            const auto& value = args[++i];
            if (arg == "--mime") {
                mime = value;
                continue;
            }
            const auto colon = value.find(':');
            if (colon == std::string::npos || colon == 0)
                return fail("--header takes NAME:VALUE, not '" + value + "'");
            auto headerValue = value.substr(colon + 1);
            headerValue.erase(0, headerValue.find_first_not_of(' ') == std::string::npos
                                     ? headerValue.size()
                                     : headerValue.find_first_not_of(' '));
            headers[value.substr(0, colon)] = headerValue;
        } else if (arg.starts_with("--")) {
            return fail("unknown option " + arg);
        } else if (source) {
            return fail("more than one document given");
        } else {
            source = arg;
        }
    }
    if (!source) return fail("no document given");
    std::string error;
    auto resolved = SubtitleSource::resolve(*source, mime, error);
    if (!resolved) return fail(error);

    auto parser = MimeType::fromString(resolved->mimeType)->timedText();
    std::vector<std::string> failures;
    {
        const auto level = Ovalto::logLevel.load();
        Ovalto::logLevel = OVALogLevel::warning;
        FailureCapture capture;
        parser->parse(resolved->url, headers);
        failures = capture.lines();
        Ovalto::logLevel = level;
    }

    const auto textKeys = sortedKeys(parser->texts);
    const auto cueKeys = sortedKeys(parser->cues);
    if (json) {
        nlohmann::ordered_json texts = nlohmann::ordered_json::object();
        for (auto key : textKeys)
            texts[std::to_string(key)] = parser->texts.at(key);
        nlohmann::ordered_json cues = nlohmann::ordered_json::object();
        for (auto key : cueKeys) {
            const auto& cue = *parser->cues.at(key);
            cues[std::to_string(key)] = {{"startTimeMs", cue.startTimeMs},
                                         {"endTimeMs", cue.endTimeMs ? nlohmann::ordered_json(*cue.endTimeMs)
                                                                     : nlohmann::ordered_json(nullptr)},
                                         {"setting", cue.setting ? nlohmann::ordered_json(*cue.setting)
                                                                 : nlohmann::ordered_json(nullptr)},
                                         {"payload", cue.payload}};
        }
        nlohmann::ordered_json document = {{"texts", std::move(texts)}, {"cues", std::move(cues)}};
        out << document.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
    } else {
        out << "texts\n";
        std::size_t clears = 0;
        for (auto key : textKeys) {
            const auto& text = parser->texts.at(key);
            clears += text.empty();
            out << "  "
                << std::string(std::max<int>(0, 8 - static_cast<int>(std::to_string(key).size())), ' ') << key
                << "  " << clock(key) << "  " << (text.empty() ? "(clear)" : oneLine(text)) << "\n";
        }
        out << "cues\n";
        for (auto key : cueKeys) {
            const auto& cue = *parser->cues.at(key);
            out << "  "
                << std::string(std::max<int>(0, 8 - static_cast<int>(std::to_string(key).size())), ' ') << key
                << "  " << cue.startTimeMs << " ms --> "
                << (cue.endTimeMs ? std::to_string(*cue.endTimeMs) + " ms" : std::string("-")) << "  "
                << (cue.setting ? "[" + *cue.setting + "]  " : std::string()) << oneLine(cue.payload) << "\n";
        }
        out << textKeys.size() << " texts (" << clears << " clear marks), " << cueKeys.size() << " cues\n";
    }
    if (!failures.empty()) {
        err << "ovalto subtitles: " << failures.front() << "\n";
        return 1;
    }
    return 0;
}

namespace {
int run(const std::vector<std::string>& args) {
    return subtitlesCommand(args, std::cout, std::cerr);
}
CommandRegistrar registrar({"subtitles", "parse a side-car subtitle document and print its tables", run});
} // namespace

} // namespace ovalto::tool
