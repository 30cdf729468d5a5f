#pragma once

#include <optional>
#include <string_view>

namespace ovalto {

// The HLS tags the playlist parsers recognise, in matching order. Every other tag is dropped from
// the generated playlists.
enum class Ext {
    ext,
    start,
    end,
    xVersion,
    xMedia,
    xStreamInf,
    xTargetDuration,
    xMediaSequence,
    xKey,
    xPlaylistType,
    xMap,
    inf,
    xByteRange,
};

// The exact text a tag name is compared with. `xVersion` carries ":7": it is the literal line
// both generators write, so a source version tag never matches it and is dropped.
constexpr std::string_view rawValue(Ext ext) {
    switch (ext) {
    case Ext::ext:
        return "#EXT";
    case Ext::start:
        return "#EXTM3U";
    case Ext::end:
        return "#EXT-X-ENDLIST";
    case Ext::xVersion:
        return "#EXT-X-VERSION:7";
    case Ext::xMedia:
        return "#EXT-X-MEDIA";
    case Ext::xStreamInf:
        return "#EXT-X-STREAM-INF";
    case Ext::xTargetDuration:
        return "#EXT-X-TARGETDURATION";
    case Ext::xMediaSequence:
        return "#EXT-X-MEDIA-SEQUENCE";
    case Ext::xKey:
        return "#EXT-X-KEY";
    case Ext::xPlaylistType:
        return "#EXT-X-PLAYLIST-TYPE";
    case Ext::xMap:
        return "#EXT-X-MAP";
    case Ext::inf:
        return "#EXTINF";
    case Ext::xByteRange:
        return "#EXT-X-BYTERANGE";
    }
    return {};
}

// The case whose raw value is exactly `text`; no value for any other text.
constexpr std::optional<Ext> makeExt(std::string_view text) {
    for (int i = 0; i <= static_cast<int>(Ext::xByteRange); ++i) {
        const auto ext = static_cast<Ext>(i);
        if (rawValue(ext) == text) return ext;
    }
    return std::nullopt;
}

} // namespace ovalto
