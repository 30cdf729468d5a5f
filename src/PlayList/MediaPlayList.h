#pragma once

#include "PlayList/PlayList.h"

namespace ovalto {

// One variant's or rendition's segment list: parsed into a Representation and written back with
// every segment at "rdtp://local/<stream>/<bitrate>/<index>.ts" and the initialisation section at
// ".../-1.ts", so that each segment request comes back to the library. Keys are copied unchanged.
class MediaPlayList : public PlayList {
public:
    bool parsePlayList(std::string_view playList, const platform::Url& baseUrl,
                       Container& container) override;
    std::optional<platform::Data> generatePlayList(Container& container) override;
};

} // namespace ovalto
