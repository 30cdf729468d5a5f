#include "TimedText/SubRip.h"

#include "TimedText/DocumentReader.h"
#include "TimedText/TextDecoder.h"
#include "TimedText/TimeKey.h"
#include "ovalto/OVALog.h"

#include <array>
#include <cstring>

namespace ovalto {

namespace {

constexpr const char* parseFunction = "parse(with:)";

// Lead bytes of a line break in UTF-8: LF, VT, FF, CR, and the first bytes of NEL (C2 85),
// LINE SEPARATOR (E2 80 A8) and PARAGRAPH SEPARATOR (E2 80 A9).
constexpr std::array<bool, 256> breakLeads = [] {
    std::array<bool, 256> leads{};
    for (unsigned char c : {0x0A, 0x0B, 0x0C, 0x0D, 0xC2, 0xE2})
        leads[c] = true;
    return leads;
}();

// The length of the line break at `p` (0 when there is none).
std::size_t breakLength(const char* p, const char* end) {
    const auto c = static_cast<unsigned char>(*p);
    if (c >= 0x0A && c <= 0x0D) return 1;
    if (c == 0xC2) return end - p >= 2 && static_cast<unsigned char>(p[1]) == 0x85 ? 2 : 0;
    if (end - p >= 3 && static_cast<unsigned char>(p[1]) == 0x80 &&
        (static_cast<unsigned char>(p[2]) == 0xA8 || static_cast<unsigned char>(p[2]) == 0xA9))
        return 3;
    return 0;
}

// Empty, or only ASCII digits and full stops: a sequence number or a blank separator.
bool isSkipLine(std::string_view line) {
    for (char c : line)
        if ((c < '0' || c > '9') && c != '.') return false;
    return true;
}

} // namespace

void SubRip::parse(const platform::Url& url, const Headers& headers) {
    auto document = DocumentReader::read(url, headers);
    if (!document.bytes) {
        OVALog(OVALogLevel::error, *document.error, parseFunction, __FILE__, __LINE__);
        return;
    }
    parse(TextDecoder::decode(*document.bytes));
}

void SubRip::parse(std::string_view text) {
    const char* p = text.data();
    const char* const end = text.data() + text.size();
    const char* lineStart = p;
    while (p < end) {
        if (!breakLeads[static_cast<unsigned char>(*p)]) {
            ++p;
            continue;
        }
        const std::size_t length = breakLength(p, end);
        if (length == 0) {
            ++p;
            continue;
        }
        handleLine(std::string_view(lineStart, static_cast<std::size_t>(p - lineStart)));
        p += length;
        lineStart = p;
    }
    handleLine(std::string_view(lineStart, static_cast<std::size_t>(end - lineStart)));
}

void SubRip::handleLine(std::string_view line) {
    if (isSkipLine(line)) return;
    // Most lines are text: only a line holding an arrow can be a timing line.
    if (line.find("-->") != std::string_view::npos) {
        words_.clear();
        for (std::size_t begin = 0;;) {
            const auto space = line.find(' ', begin);
            words_.push_back(line.substr(begin, space == std::string_view::npos ? space : space - begin));
            if (space == std::string_view::npos) break;
            begin = space + 1;
        }
        std::size_t arrow = 0;
        while (arrow < words_.size() && words_[arrow] != "-->")
            ++arrow;
        if (arrow >= 1 && arrow + 1 < words_.size()) {
            std::optional<std::string> setting;
            // The fourth word on, wherever the arrow stands.
            if (words_.size() >= 4) {
                setting.emplace();
                for (std::size_t i = 3; i < words_.size(); ++i) {
                    if (i > 3) *setting += ' ';
                    *setting += words_[i];
                }
            }
            record(toSeconds(words_[arrow - 1], 1000), toSeconds(words_[arrow + 1], 1000),
                   std::move(setting));
            return;
        }
    }
    addText(line);
}

void SubRip::addText(std::string_view line) {
    auto& text = texts[start];
    if (!text.empty()) {
        text += '\n';
        text += line;
    } else {
        text.assign(line);
    }
    texts[end].clear(); // the clear mark
    if (cue) {
        if (!cue->payload.empty()) cue->payload += '\n';
        cue->payload += line;
    }
}

void SubRip::record(std::int64_t startMs, std::optional<std::int64_t> endMs,
                    std::optional<std::string> setting) {
    cue = std::make_shared<Cue>(Cue::Key{});
    cues[timeKey(startMs)] = cue;
    cue->startTimeMs = startMs;
    cue->endTimeMs = endMs;
    cue->setting = std::move(setting);
    start = timeKey(startMs);
    if (endMs) end = timeKey(*endMs);
}

} // namespace ovalto
