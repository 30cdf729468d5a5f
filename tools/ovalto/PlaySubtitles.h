#pragma once

#include "SubtitleSource.h"
#include "Timeline.h"

#include <nlohmann/json.hpp>

#include <atomic>
#include <memory>
#include <optional>
#include <string>

namespace ovalto {
class Ovalto;
}

namespace ovalto::tool {

// The side-car options of `ovalto play`: --subtitles SOURCE and --mime MIME. The document is added
// once the stream is prepared; every delivered text and cue goes onto the timeline with the
// player's time, and the summary counts them.
class PlaySubtitles {
public:
    static bool takes(const std::string& option) { return option == "--subtitles" || option == "--mime"; }
    // Records an option's value; an error text for a bad one.
    std::optional<std::string> set(const std::string& option, const std::string& value);
    // After all options: an error text when they do not make a source.
    std::optional<std::string> validate();

    // Installs the callbacks and adds the document to a prepared facade.
    void attach(Ovalto& facade, Timeline& timeline);
    // The summary's figures: JSON fields, and a line of text (empty without a document).
    void addFields(nlohmann::json& fields) const;
    std::string summaryLine() const;

private:
    // Shared with the callbacks, which may still run on a background thread while this goes away.
    struct Counts {
        std::atomic<long> texts{0};
        std::atomic<long> clears{0};
        std::atomic<long> cues{0};
    };
    std::optional<std::string> source_;
    std::optional<std::string> mimeType_;
    std::optional<SubtitleSource> resolved_;
    std::shared_ptr<Counts> counts_ = std::make_shared<Counts>();
};

} // namespace ovalto::tool
