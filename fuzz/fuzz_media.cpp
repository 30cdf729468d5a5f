// Media playlists: parse and generate, and a reload into the same representation (the input's
// part after its first NUL byte, when there is one). Beyond not crashing: parsing refuses only
// what is not a playlist, generation refuses only for a missing target duration, media sequence
// or segment duration, every segment line is rdtp://local/<s>/<b>/<n>.ts with consecutive <n>,
// the running start adds up, and the generated playlist reads again into the same playlist.
#include "FuzzSupport.h"
#include "PlayList/MediaPlayList.h"
#include "PlayList/PlayListText.h"
#include "PlayList/Representation.h"
#include "ovalto/OVALog.h"

#include <algorithm>
#include <cstdint>
#include <set>

using namespace ovalto;

namespace {

constexpr long streamIndex = 3;
constexpr std::int32_t bitrate = 64000;
const std::string segmentPrefix = "rdtp://local/3/64000/";
const platform::Url base = *platform::Url::parse("http://fuzz.example/v/index.m3u8");
const platform::Url rewrittenBase = *platform::Url::parse("cplp://local/3/64000/media.m3u8");

std::shared_ptr<Representation> placed() {
    auto representation = std::make_shared<Representation>();
    representation->streamIndex.set(streamIndex);
    representation->bitrate.set(bitrate);
    return representation;
}

// Whether the generator may refuse this representation.
bool mayRefuse(const Representation& representation) {
    if (!representation.targetDuration.get() || !representation.sequence.get()) return true;
    const auto fragments = representation.fragments.get();
    std::int64_t last = 0;
    if (__builtin_add_overflow(*representation.sequence.get(), static_cast<std::int64_t>(fragments.size()),
                               &last))
        return true;
    for (const auto& fragment : fragments)
        if (!fragment->duration()) return true;
    return false;
}

// Whether the written text reads back exactly: attribute lists that survive being written on a
// trimmed line, playlist-type values that do not end in a blank, and durations small enough that
// their shortest decimal seconds still carry every millisecond.
bool readsBackExactly(const Representation& representation) {
    for (const auto& [position, attributes] : representation.keyAttributes.get())
        if (!fuzz::roundTrips(attributes, true)) return false;
    if (!fuzz::roundTrips(representation.mapAttributes.get(), true)) return false;
    for (const auto& [name, value] : representation.playlistAttributes.get())
        if (!value.empty() && (value.back() == ' ' || value.back() == '\t')) return false;
    for (const auto& fragment : representation.fragments.get()) {
        const auto value = fragment->duration()->value;
        if (value > 1'000'000'000'000'000 || value < -1'000'000'000'000'000) return false;
    }
    return true;
}

void checkGenerated(const Representation& representation, const std::string& text, std::string_view input) {
    fuzz::check(playlisttext::isValidUtf8(text), "the output is not UTF-8", text);
    fuzz::check(text.starts_with("#EXTM3U\n#EXT-X-VERSION:7\n#EXT-X-TARGETDURATION:"), "the header is wrong",
                text);
    const auto lines = fuzz::splitLines(text);
    const auto fragments = representation.fragments.get();
    const std::int64_t sequence = *representation.sequence.get();
    std::size_t segments = 0;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const std::string_view line = lines[i];
        if (line.starts_with("#")) continue;
        // Values come from single lines, so every line not starting with '#' is a segment.
        const std::string expected =
            segmentPrefix + std::to_string(sequence + static_cast<std::int64_t>(segments)) + ".ts";
        fuzz::check(line == expected, "a segment line is not rdtp://local/<s>/<b>/<n>.ts in order", text);
        const bool afterDuration =
            lines[i - 1].starts_with("#EXTINF:") ||
            (lines[i - 1].starts_with("#EXT-X-BYTERANGE:") && lines[i - 2].starts_with("#EXTINF:"));
        fuzz::check(afterDuration, "a segment without its #EXTINF", text);
        // A fragment listed twice (two URI lines after one #EXTINF) keeps the later index.
        const bool listedLater = std::find(fragments.begin() + static_cast<std::ptrdiff_t>(segments) + 1,
                                           fragments.end(), fragments[segments]) != fragments.end();
        fuzz::check(listedLater ||
                        fragments[segments]->index.get() == sequence + static_cast<std::int64_t>(segments),
                    "a fragment index differs from its URL", text);
        ++segments;
    }
    fuzz::check(segments == fragments.size(), "not one segment line per fragment", text);
    fuzz::check(text.ends_with("\n#EXT-X-ENDLIST") == !representation.isLive.get(), "the end tag is wrong",
                text);
    const bool hasMapUri = representation.mapAttributes.get().contains("URI");
    fuzz::check((text.find("\n#EXT-X-MAP:") != std::string::npos) ==
                    !representation.mapAttributes.get().empty(),
                "the map line is wrong", text);
    if (hasMapUri)
        fuzz::check(text.find("URI=\"" + segmentPrefix + "-1.ts\"") != std::string::npos,
                    "the map URI is not -1.ts", text);
    fuzz::check(representation.playList.get() == text, "the generated bytes were not stored", input);

    // Read back: the same segments; written again, the same text when nothing was normalised.
    auto again = placed();
    MediaPlayList media;
    fuzz::check(!PlayList::isMaster(text) || fragments.empty(), "the output reads as a master", text);
    fuzz::check(media.parsePlayList(text, rewrittenBase, *again), "the output does not read again", text);
    const auto regenerated = media.generatePlayList(*again);
    fuzz::check(regenerated.has_value(), "the output is refused when read again", text);
    fuzz::check(again->fragments.get().size() == fragments.size(), "the output reads as other segments",
                text);
    if (readsBackExactly(representation))
        fuzz::check(*regenerated == text, "the output does not read back to itself",
                    text + "\n----\n" + *regenerated);
}

// Segments start on the representation's running time line: the first no earlier than the
// running start before the parse, each no earlier than the end of the one before (an #EXTINF
// without a URI line also takes its time), and the new running start after the last. Negative
// durations, which a playlist may give, make the order meaningless, so they skip the check.
void checkRunningStart(const Representation& representation, std::optional<platform::MediaTime> before,
                       std::string_view input) {
    const auto fragments = representation.fragments.get();
    for (const auto& fragment : fragments) {
        const auto duration = fragment->duration();
        fuzz::check(duration.has_value() == fragment->start().has_value(),
                    "a start without a duration or back");
        if (duration) fuzz::check(duration->timescale == 1000, "a duration is not in milliseconds");
    }
    if (input.find("#EXTINF:-") != std::string_view::npos) return;
    platform::MediaTime floor = before ? *before : platform::MediaTime::make(0, 1000);
    std::set<const Fragment*> seen;
    for (const auto& fragment : fragments) {
        if (!seen.insert(fragment.get()).second) continue; // one object listed twice
        const auto duration = fragment->duration();
        if (!duration) continue;
        const auto start = *fragment->start();
        fuzz::check(compare(start, floor) >= 0, "a segment starts before the previous one ended");
        floor = start + *duration;
    }
    const auto end = representation.start.get();
    fuzz::check(end && compare(*end, floor) >= 0, "the running start is behind the last segment");
}

void parseAndGenerate(Representation& representation, std::string_view input) {
    const auto before = representation.start.get();
    const auto fragmentsBefore = representation.fragments.get().size();
    MediaPlayList media;
    if (!media.parsePlayList(input, base, representation)) {
        fuzz::check(!playlisttext::isValidUtf8(input) || !input.starts_with("#EXT"), "a playlist was refused",
                    input);
        fuzz::check(representation.fragments.get().size() == fragmentsBefore, "a refusal changed the model",
                    input);
        return;
    }
    checkRunningStart(representation, before, input);
    const auto generated = media.generatePlayList(representation);
    if (!generated) {
        fuzz::check(mayRefuse(representation), "a complete playlist was refused", input);
        return;
    }
    checkGenerated(representation, *generated, input);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    OVALogThreshold = OVALogLevel::silent;
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    // The number readers' shortcuts read the whole input as the general readers do.
    const std::string_view head = input.substr(0, 40);
    fuzz::check(playlisttext::parseMilliseconds(head) == playlisttext::parseMillisecondsInGeneral(head),
                "millisecond shortcut differs");
    fuzz::check(playlisttext::parseInteger<std::int64_t>(head) ==
                    playlisttext::parseIntegerInGeneral<std::int64_t>(head),
                "integer shortcut differs");
    const auto nul = input.find('\0');
    auto representation = placed();
    parseAndGenerate(*representation, input.substr(0, nul));
    if (nul != std::string_view::npos) parseAndGenerate(*representation, input.substr(nul + 1));
    return 0;
}
