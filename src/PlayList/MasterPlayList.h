#pragma once

#include "PlayList/PlayList.h"
#include "ovalto/MediaType.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ovalto {

class Presentation;

// The top-level playlist: parsed into a Presentation's streams and written back with every media
// playlist pointing at "<stream>/<bitrate>/media.m3u8". A media playlist given as the top URL
// becomes a presentation of one variant, so the player still receives a master playlist.
class MasterPlayList : public PlayList {
public:
    static constexpr std::int32_t defaultBitrate = 1500000;
    static constexpr std::int32_t renditionBitrate = 0;

    bool parsePlayList(std::string_view playList, const platform::Url& baseUrl,
                       Container& container) override;
    // No value, with an error logged, when the rewritten form would exceed
    // maximumRewrittenSize: that is found out before any of it is written.
    std::optional<platform::Data> generatePlayList(Container& container) override;

    // The synthetic VIDEO renditions make the rewritten master grow with the square of the number
    // of variants (1,000 variants: about 95 MB); a master whose rewritten form would exceed this
    // many bytes is refused rather than written.
    static constexpr std::size_t maximumRewrittenSize = std::size_t{64} << 20;
    // The exact size of the master that generatePlayList would write, without writing it.
    static std::size_t rewrittenSize(const Presentation& presentation);
    // The size of the master the last generatePlayList refused, if it refused one for its size.
    std::optional<std::size_t> refusedSize() const { return refusedSize_; }
    // The message that such a refusal gives.
    static std::string refusal(std::size_t size);

    // The synthetic #EXT-X-MEDIA lines of one variant: a group named after `bitrate` that offers
    // every entry of `bitrates` (ascending) by name, each pointing at the lower of the two
    // playlists, the highest one the default.
    static std::vector<std::string> generateXMedias(MediaType type, std::int32_t bitrate,
                                                    const std::vector<std::int32_t>& bitrates, long index);

private:
    std::optional<std::size_t> refusedSize_;
};

} // namespace ovalto
