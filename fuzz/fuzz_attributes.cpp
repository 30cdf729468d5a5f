// Attribute lists: every line of the input is read as a tag line. Beyond not crashing, the
// entries must have the shapes the reader promises and, when written back, read the same.
#include "FuzzSupport.h"
#include "PlayList/PlayList.h"

#include <cstdint>

using namespace ovalto;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    for (std::string_view line : fuzz::splitLines(input)) {
        const AttributeList list = PlayList::parseAttribute(line);
        const auto colon = line.find(':');
        if (colon == std::string_view::npos)
            fuzz::check(list.empty(), "a line without ':' has attributes", line);

        std::size_t equals = 0;
        for (char c : line)
            equals += c == '=';
        fuzz::check(list.size() <= equals, "more attributes than '=' signs", line);

        for (const auto& [name, value] : list) {
            fuzz::check(name.find('=') == std::string::npos, "a name holds '='", line);
            fuzz::check(line.find(value) != std::string_view::npos, "a value that is not in the line", line);
            if (value.empty() || value.front() != '"') {
                fuzz::check(value.find(',') == std::string::npos, "an unquoted value holds ','", line);
            } else if (!fuzz::isClosedQuote(value)) {
                // Only an unterminated quote may lack its closing quote; it ends the list.
                fuzz::check(fuzz::isOpenQuote(value), "a quoted value with a quote inside", line);
                fuzz::check(value == line.substr(line.size() - value.size()),
                            "an open quote that is not the line's end", line);
            }
        }

        if (fuzz::roundTrips(list, false)) {
            const std::string again = "#EXT-X-T:" + fuzz::written(list);
            fuzz::check(PlayList::parseAttribute(again) == list, "the written list reads differently", again);
        }
    }
    return 0;
}
