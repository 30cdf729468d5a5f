#pragma once

#include "TimedText/TimedText.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ovalto {

// SubRip documents, read line by line: every line is a skip line (empty, or only digits and full
// stops), a timing line ("start --> end [settings]") or a text line that extends the latest
// timing line's text and cue. A timing line also marks its end with an empty text, which tells the
// application to clear the display. It never rejects a document it could read.
class SubRip : public TimedText {
public:
    void parse(const platform::Url& url, const Headers& headers = {}) override;
    // The same rules on text already decoded to UTF-8; continues the current parse state.
    void parse(std::string_view text);

    // Parse state: the keys and the cue of the latest timing line.
    std::int64_t start = 0;
    std::int64_t end = 0;
    std::shared_ptr<Cue> cue;

protected:
    void record(std::int64_t startMs, std::optional<std::int64_t> endMs, std::optional<std::string> setting);

private:
    void handleLine(std::string_view line);
    void addText(std::string_view line);

    std::vector<std::string_view> words_; // reused for every timing line
};

} // namespace ovalto
