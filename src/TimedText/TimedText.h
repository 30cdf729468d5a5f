#pragma once

#include "ovalto/ConfigurationKey.h"
#include "ovalto/Cue.h"
#include "platform/Url.h"

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

namespace ovalto {

// A side-car subtitle parser: it reads one document into two tables keyed by hundredths of a
// second from the start of the media. `texts` holds what to show from a key on (an empty string
// clears the display); `cues` the cue that starts at a key. A parser is filled once and then only
// read, so readers need no lock once it is handed over.
class TimedText {
public:
    using Texts = std::unordered_map<std::int64_t, std::string>;
    using Cues = std::unordered_map<std::int64_t, std::shared_ptr<Cue>>;

    virtual ~TimedText() = default;

    Texts texts;
    Cues cues;

    // Fills the tables from the document at `url` (a file or an http(s) address, fetched with
    // `headers`). Failures are logged; the tables then keep what was stored before the fault.
    virtual void parse(const platform::Url& url, const Headers& headers = {}) = 0;
};

} // namespace ovalto
