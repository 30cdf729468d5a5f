#pragma once

#include "TimedText/TimedText.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ovalto {

// NHK cue-point documents: a `cuepoints` element holding `cuepoint` elements, each with a `time`
// in seconds and TTML markup inside. The markup is not interpreted: each cue point becomes one
// self-contained text (the `cuepoints` start tag, the `cuepoint` element with everything in it,
// the `cuepoints` end tag) stored in `texts` at its time key. `cues` stays empty, and there are
// no clear marks: each cue point replaces the one before.
class NHKTTML : public TimedText {
public:
    using Attributes = std::vector<std::pair<std::string_view, std::string_view>>;

    // Text collected for one element, with the key it is stored under.
    class Cuepoint {
    public:
        // Spelled out: optional<Cuepoint> inside this class needs it before the class is complete.
        Cuepoint()
            : time(0) {}
        std::string string;
        std::int64_t time;
        // Appends `<name a="v" …>` or `</name>`; values are written as the parser delivered them.
        void append(std::string_view elementName, const Attributes& attributes, bool isEnd);
    };

    // Whatever the input, the text collected during one parse stays below this many bytes
    // (entity expansion or a long start tag copied into every cue point cannot exhaust memory).
    static constexpr std::size_t collectedLimit = 128u << 20;

    void parse(const platform::Url& url, const Headers& headers = {}) override;
    // Parses the bytes of a document; false (after a warning line) when it is not well formed or
    // too large. Cue points completed before a fault are kept.
    bool parse(std::string_view document);

    std::optional<Cuepoint> cuepoints;
    std::optional<Cuepoint> cuepoint;

    // What the event-driven parser reports.
    void didStartElement(std::string_view elementName, const Attributes& attributes);
    void didEndElement(std::string_view elementName);
    void foundCharacters(std::string_view string);
    void foundCDATA(std::string_view bytes);

    // True once the parse has collected more than `collectedLimit` bytes.
    bool exhausted() const;

private:
    std::size_t collected_ = 0;
};

} // namespace ovalto
