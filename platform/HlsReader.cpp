#include "platform/HlsReader.h"

#include <algorithm>
#include <charconv>
#include <unordered_map>

namespace ovalto::platform {

namespace {

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r'))
        text.remove_suffix(1);
    return text;
}

template <class Number> std::optional<Number> number(std::string_view text) {
    text = trimmed(text);
    Number value{};
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

// "<length>[@<offset>]"; `previousEnd` continues the previous sub-range when no offset is given.
std::optional<HlsByteRange> byteRange(std::string_view text, std::optional<std::int64_t> previousEnd) {
    const auto at = text.find('@');
    auto length = number<std::int64_t>(text.substr(0, at));
    if (!length || *length < 0) return std::nullopt;
    HlsByteRange range{*length, previousEnd.value_or(0)};
    if (at != std::string_view::npos) {
        auto offset = number<std::int64_t>(text.substr(at + 1));
        if (!offset || *offset < 0) return std::nullopt;
        range.offset = *offset;
    }
    return range;
}

using Attributes = std::vector<std::pair<std::string, std::string>>;

std::optional<std::string> attribute(const Attributes& attributes, std::string_view name) {
    for (const auto& [key, value] : attributes) {
        if (key == name) return value;
    }
    return std::nullopt;
}

std::optional<Url> resolved(const std::optional<std::string>& reference, const Url& base) {
    if (!reference || reference->empty()) return std::nullopt;
    return Url::parse(*reference, base);
}

// Splits "#TAG:value" into the tag and its value.
std::pair<std::string_view, std::string_view> tagAndValue(std::string_view line) {
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) return {line, {}};
    return {line.substr(0, colon), line.substr(colon + 1)};
}

bool isMasterTag(std::string_view tag) {
    return tag == "#EXT-X-STREAM-INF" || tag == "#EXT-X-MEDIA" || tag == "#EXT-X-I-FRAME-STREAM-INF";
}

bool isMediaTag(std::string_view tag) {
    return tag == "#EXTINF" || tag == "#EXT-X-TARGETDURATION" || tag == "#EXT-X-MEDIA-SEQUENCE" ||
           tag == "#EXT-X-ENDLIST" || tag == "#EXT-X-BYTERANGE" || tag == "#EXT-X-MAP" ||
           tag == "#EXT-X-KEY" || tag == "#EXT-X-DISCONTINUITY" || tag == "#EXT-X-PLAYLIST-TYPE";
}

std::vector<std::string_view> lines(std::string_view text) {
    std::vector<std::string_view> result;
    result.reserve(static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1);
    while (!text.empty()) {
        const auto newline = text.find('\n');
        result.push_back(trimmed(text.substr(0, newline)));
        if (newline == std::string_view::npos) break;
        text.remove_prefix(newline + 1);
    }
    return result;
}

std::optional<HlsMasterPlaylist> readMaster(const std::vector<std::string_view>& lines, const Url& base) {
    HlsMasterPlaylist playlist;
    std::optional<HlsVariant> pending; // a STREAM-INF waiting for its URI line
    // Renditions repeat a few URIs many times over (a group per variant that names every
    // variant's playlist): equal URIs are resolved once and share their text.
    std::unordered_map<std::string, std::optional<Url>> renditionUris;
    for (std::string_view line : lines) {
        if (line.empty()) continue;
        if (!line.starts_with('#')) {
            if (!pending) continue; // a URI without a STREAM-INF means nothing here
            auto uri = Url::parse(line, base);
            if (!uri) return std::nullopt;
            pending->uri = *uri;
            playlist.variants.push_back(std::move(*pending));
            pending.reset();
            continue;
        }
        auto [tag, value] = tagAndValue(line);
        if (tag == "#EXT-X-STREAM-INF") {
            if (pending) return std::nullopt;
            const Attributes list = HlsReader::attributes(value);
            HlsVariant variant{0, {}, {}, {}, {}, {}, {}, {}, base};
            variant.bandwidth = number<std::int64_t>(attribute(list, "BANDWIDTH").value_or("")).value_or(0);
            if (auto average = attribute(list, "AVERAGE-BANDWIDTH"))
                variant.averageBandwidth = number<std::int64_t>(*average);
            variant.codecs = attribute(list, "CODECS");
            variant.resolution = attribute(list, "RESOLUTION");
            variant.audio = attribute(list, "AUDIO");
            variant.video = attribute(list, "VIDEO");
            variant.subtitles = attribute(list, "SUBTITLES");
            variant.closedCaptions = attribute(list, "CLOSED-CAPTIONS");
            if (variant.closedCaptions == "NONE") variant.closedCaptions.reset();
            pending = std::move(variant);
        } else if (tag == "#EXT-X-MEDIA") {
            const Attributes list = HlsReader::attributes(value);
            HlsRendition rendition;
            rendition.type = attribute(list, "TYPE").value_or("");
            rendition.groupId = attribute(list, "GROUP-ID").value_or("");
            rendition.name = attribute(list, "NAME").value_or("");
            rendition.language = attribute(list, "LANGUAGE");
            rendition.isDefault = attribute(list, "DEFAULT") == "YES";
            rendition.autoselect = attribute(list, "AUTOSELECT") == "YES";
            if (rendition.type.empty() || rendition.groupId.empty() || rendition.name.empty()) continue;
            if (auto uri = attribute(list, "URI")) {
                auto known = renditionUris.find(*uri);
                if (known == renditionUris.end())
                    known = renditionUris.emplace(*uri, resolved(uri, base)).first;
                rendition.uri = known->second;
            }
            playlist.renditions.push_back(std::move(rendition));
        }
    }
    if (pending) return std::nullopt;
    return playlist;
}

std::optional<HlsMediaPlaylist> readMedia(const std::vector<std::string_view>& lines, const Url& base) {
    HlsMediaPlaylist playlist;
    // Exactly as many as there are URI lines: no spare capacity in a long list.
    playlist.segments.reserve(static_cast<std::size_t>(std::count_if(
        lines.begin(), lines.end(), [](std::string_view line) { return !line.empty() && line[0] != '#'; })));
    std::optional<double> duration; // of the segment whose URI comes next
    std::shared_ptr<const HlsMap> map;
    std::shared_ptr<const HlsKey> key;
    bool discontinuity = false;
    bool sequenceSet = false;
    std::optional<std::string> rangeUri; // the resource the previous sub-range was taken from
    std::optional<std::int64_t> rangeEnd;
    std::optional<std::string_view> rangeText;

    for (std::string_view line : lines) {
        if (line.empty()) continue;
        if (!line.starts_with('#')) {
            if (!duration) return std::nullopt; // a URI line without #EXTINF
            auto uri = Url::parse(line, base);
            if (!uri) return std::nullopt;
            HlsSegment segment{*uri, *duration, 0, {}, map, key, discontinuity};
            if (rangeText) {
                const bool continues = rangeUri == uri->absoluteString();
                auto range = byteRange(*rangeText, continues ? rangeEnd : std::nullopt);
                if (!range) return std::nullopt;
                segment.byteRange = range;
                rangeUri = uri->absoluteString();
                rangeEnd = range->offset + range->length;
            }
            segment.sequence = playlist.mediaSequence + static_cast<std::int64_t>(playlist.segments.size());
            playlist.segments.push_back(std::move(segment));
            duration.reset();
            rangeText.reset();
            discontinuity = false;
            continue;
        }
        auto [tag, value] = tagAndValue(line);
        if (tag == "#EXTINF") {
            const auto comma = value.find(',');
            duration = number<double>(value.substr(0, comma));
            if (!duration || *duration < 0) return std::nullopt;
        } else if (tag == "#EXT-X-TARGETDURATION") {
            auto target = number<double>(value);
            if (!target) return std::nullopt;
            playlist.targetDuration = *target;
        } else if (tag == "#EXT-X-MEDIA-SEQUENCE") {
            auto sequence = number<std::int64_t>(value);
            if (!sequence || sequenceSet || !playlist.segments.empty()) return std::nullopt;
            playlist.mediaSequence = *sequence;
            sequenceSet = true;
        } else if (tag == "#EXT-X-ENDLIST") {
            playlist.endList = true;
        } else if (tag == "#EXT-X-PLAYLIST-TYPE") {
            playlist.playlistType = std::string(trimmed(value));
        } else if (tag == "#EXT-X-BYTERANGE") {
            rangeText = value;
        } else if (tag == "#EXT-X-DISCONTINUITY") {
            discontinuity = true;
        } else if (tag == "#EXT-X-MAP") {
            const Attributes list = HlsReader::attributes(value);
            auto uri = resolved(attribute(list, "URI"), base);
            if (!uri) return std::nullopt;
            HlsMap newMap{*uri, {}};
            if (auto text = attribute(list, "BYTERANGE")) {
                newMap.byteRange = byteRange(*text, std::nullopt);
                if (!newMap.byteRange) return std::nullopt;
            }
            map = std::make_shared<const HlsMap>(std::move(newMap));
        } else if (tag == "#EXT-X-KEY") {
            const Attributes list = HlsReader::attributes(value);
            const std::string method = attribute(list, "METHOD").value_or("");
            if (method.empty()) return std::nullopt;
            if (method == "NONE") {
                key.reset();
            } else {
                key = std::make_shared<const HlsKey>(HlsKey{method, resolved(attribute(list, "URI"), base),
                                                            attribute(list, "IV"),
                                                            attribute(list, "KEYFORMAT")});
            }
        }
    }
    return playlist;
}

} // namespace

std::string HlsByteRange::rangeHeader() const {
    return "bytes=" + std::to_string(offset) + "-" + std::to_string(offset + length - 1);
}

std::vector<const HlsRendition*> HlsMasterPlaylist::group(const std::string& type,
                                                          const std::string& groupId) const {
    std::vector<const HlsRendition*> result;
    for (const auto& rendition : renditions) {
        if (rendition.type == type && rendition.groupId == groupId) result.push_back(&rendition);
    }
    return result;
}

const HlsRendition* HlsMasterPlaylist::rendition(const std::string& type, const std::string& groupId,
                                                 const std::optional<std::string>& preferredName) const {
    const auto members = group(type, groupId);
    if (members.empty()) return nullptr;
    if (preferredName) {
        for (const auto* member : members) {
            if (member->name == *preferredName) return member;
        }
    }
    for (const auto* member : members) {
        if (member->isDefault) return member;
    }
    return members.front();
}

Url HlsMasterPlaylist::mainPlaylistUrl(const HlsVariant& variant,
                                       const std::optional<std::string>& videoName) const {
    if (variant.video) {
        if (const auto* video = rendition("VIDEO", *variant.video, videoName); video && video->uri)
            return *video->uri;
    }
    return variant.uri;
}

double HlsMediaPlaylist::duration() const {
    double total = 0;
    for (const auto& segment : segments)
        total += segment.duration;
    return total;
}

bool HlsReader::isPlaylist(std::string_view text) {
    if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
    return text.starts_with("#EXTM3U");
}

std::optional<HlsReader::Playlist> HlsReader::read(std::string_view text, const Url& base) {
    if (!isPlaylist(text)) return std::nullopt;
    // The mark is no part of the first line: left there, "#EXTM3U" would read as a URI line.
    if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
    const auto all = lines(text);
    bool master = false;
    bool media = false;
    for (std::string_view line : all) {
        if (!line.starts_with("#EXT")) continue;
        const auto tag = tagAndValue(line).first;
        master = master || isMasterTag(tag);
        media = media || isMediaTag(tag);
    }
    if (master && media) return std::nullopt;
    if (master) {
        if (auto playlist = readMaster(all, base)) return Playlist(std::move(*playlist));
        return std::nullopt;
    }
    if (auto playlist = readMedia(all, base)) return Playlist(std::move(*playlist));
    return std::nullopt;
}

std::vector<std::pair<std::string, std::string>> HlsReader::attributes(std::string_view list) {
    std::vector<std::pair<std::string, std::string>> result;
    std::size_t i = 0;
    while (i < list.size()) {
        while (i < list.size() && (list[i] == ' ' || list[i] == ','))
            ++i;
        const auto equals = list.find('=', i);
        if (equals == std::string_view::npos) break;
        std::string name(trimmed(list.substr(i, equals - i)));
        i = equals + 1;
        std::string value;
        if (i < list.size() && list[i] == '"') {
            const auto close = list.find('"', i + 1);
            if (close == std::string_view::npos) break; // unterminated: the rest is not trusted
            value = std::string(list.substr(i + 1, close - i - 1));
            i = close + 1;
        } else {
            const auto comma = list.find(',', i);
            value = std::string(trimmed(list.substr(i, comma == std::string_view::npos ? comma : comma - i)));
            i = comma == std::string_view::npos ? list.size() : comma;
        }
        if (!name.empty()) result.emplace_back(std::move(name), std::move(value));
    }
    return result;
}

} // namespace ovalto::platform
