// NHK cue-point documents through expat. Beyond not crashing or exhausting memory: the cue table
// stays empty, every stored text is one cue point closed by the cuepoints end tag, and what is
// collected stays within the parser's bound.
#include "FuzzSupport.h"
#include "TimedText/NHKTTML.h"
#include "ovalto/Ovalto.h"

#include <cstdint>

using namespace ovalto;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Ovalto::logLevel = OVALogLevel::silent;
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    NHKTTML parser;
    const bool ok = parser.parse(input);
    fuzz::check(parser.cues.empty(), "cue-point documents fill no cues", input);
    fuzz::check(!ok || !parser.cuepoint, "a finished parse left a cue point open", input);
    std::size_t stored = 0;
    for (const auto& [key, text] : parser.texts) {
        fuzz::check(text.ends_with("</cuepoint></cuepoints>"), "a stored text is not a closed cue point",
                    text);
        stored += text.size();
    }
    fuzz::check(stored <= NHKTTML::collectedLimit + (1u << 20), "more text than the bound", input);
    return 0;
}
