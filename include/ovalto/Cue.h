#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace ovalto {

class SubRip;

// One subtitle block of a side-car document, as the cue callback receives it. Only the parsers
// make cues; an application may keep and change the ones it receives.
class Cue {
public:
    // Lets only the parsers construct a cue (through std::make_shared).
    class Key {
        Key() = default;
        friend class SubRip;
    };
    explicit Cue(Key) {}

    std::int64_t startTimeMs = 0;
    std::optional<std::int64_t> endTimeMs;
    // The words after the end time on the timing line.
    std::optional<std::string> setting;
    // The cue's text lines joined by line feeds.
    std::string payload;
};

} // namespace ovalto
