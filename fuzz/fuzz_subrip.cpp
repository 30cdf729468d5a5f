// SubRip/WebVTT documents: decoding and the line rules. Beyond not crashing: decoded text is
// always UTF-8, every cue sits at the key of its start, the tables never hold more text than the
// input could give (each line is stored at most once in the texts and once in a payload), and
// the time-stamp reader saturates instead of overflowing.
#include "FuzzSupport.h"
#include "TimedText/SubRip.h"
#include "TimedText/TextDecoder.h"
#include "TimedText/TimeKey.h"
#include "ovalto/Ovalto.h"

#include <cstdint>

using namespace ovalto;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Ovalto::logLevel = OVALogLevel::silent;
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const std::string text = TextDecoder::decode(input);
    fuzz::check(TextDecoder::isValidUtf8(text), "decoded text is not UTF-8", text);

    for (std::int64_t scale : {1, 100, 1000, 1'000'000'000})
        (void)toSeconds(input.substr(0, 64), scale);

    SubRip parser;
    parser.parse(std::string_view(text));
    std::size_t stored = 0;
    for (const auto& [key, value] : parser.texts)
        stored += value.size();
    for (const auto& [key, cue] : parser.cues) {
        fuzz::check(cue != nullptr, "a null cue");
        fuzz::check(timeKey(cue->startTimeMs) == key, "a cue is not at its start's key", text);
        fuzz::check(cue->endTimeMs.has_value(), "a cue without its end", text);
        stored += cue->payload.size();
    }
    // Each line at most once in the texts and once in a payload, plus the line feeds joining them.
    fuzz::check(stored <= 4 * text.size() + 4, "the tables hold more text than the input", text);
    if (parser.cue)
        fuzz::check(parser.start == timeKey(parser.cue->startTimeMs), "parse state drifted", text);
    return 0;
}
