#pragma once

#include "PlayList/PlayList.h"
#include "ovalto/MediaType.h"

#include <cstdint>
#include <string>
#include <vector>

namespace ovalto {

// The top-level playlist: parsed into a Presentation's streams and written back with every media
// playlist pointing at "<stream>/<bitrate>/media.m3u8". A media playlist given as the top URL
// becomes a presentation of one variant, so the player still receives a master playlist.
class MasterPlayList : public PlayList {
public:
    static constexpr std::int32_t defaultBitrate = 1500000;
    static constexpr std::int32_t renditionBitrate = 0;

    bool parsePlayList(std::string_view playList, const platform::Url& baseUrl,
                       Container& container) override;
    std::optional<platform::Data> generatePlayList(Container& container) override;

    // The synthetic #EXT-X-MEDIA lines of one variant: a group named after `bitrate` that offers
    // every entry of `bitrates` (ascending) by name, each pointing at the lower of the two
    // playlists, the highest one the default.
    static std::vector<std::string> generateXMedias(MediaType type, std::int32_t bitrate,
                                                    const std::vector<std::int32_t>& bitrates, long index);
};

} // namespace ovalto
