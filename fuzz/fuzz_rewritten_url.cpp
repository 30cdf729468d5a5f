// Rewritten URLs: every line of the input is read as a requested URL and as a path. Beyond not
// crashing, an address that reads must write out as a URL that reads back as the same address.
#include "FuzzSupport.h"
#include "PlayList/RewrittenUrl.h"

#include <cstdint>

using namespace ovalto;

namespace {

void checkSegment(const RewrittenUrl::Segment& segment, std::string_view input) {
    const auto written =
        platform::Url::parse(RewrittenUrl::segment(segment.stream, segment.bitrate, segment.index));
    fuzz::check(written.has_value(), "a segment URL does not parse", input);
    fuzz::check(RewrittenUrl::readSegment(*written) == segment, "a segment URL reads differently", input);
}

void checkPlayList(const RewrittenUrl::PlayList& playList, std::string_view input) {
    static const auto master = platform::Url::parse(RewrittenUrl::master);
    if (playList.isMaster) return;
    std::string relative;
    RewrittenUrl::appendMediaPlayList(relative, playList.stream, playList.bitrate);
    const auto written = platform::Url::parse(relative, *master);
    fuzz::check(written.has_value(), "a media playlist URL does not resolve", input);
    fuzz::check(RewrittenUrl::readPlayList(*written) == playList, "a media playlist URL reads differently",
                input);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    for (std::string_view line : fuzz::splitLines(input)) {
        if (auto segment = RewrittenUrl::readSegment(line)) checkSegment(*segment, line);
        if (auto playList = RewrittenUrl::readPlayList(line)) checkPlayList(*playList, line);
        const auto url = platform::Url::parse(line);
        if (!url) continue;
        fuzz::check(url->absoluteString() == line, "a URL is not kept as written", line);
        const auto segment = RewrittenUrl::readSegment(*url);
        fuzz::check(segment == RewrittenUrl::readSegment(std::string_view(url->path())),
                    "reading the URL and its path differ", line);
        if (segment) checkSegment(*segment, line);
        if (auto playList = RewrittenUrl::readPlayList(*url)) checkPlayList(*playList, line);
    }
    return 0;
}
