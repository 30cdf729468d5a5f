#pragma once

#include "PlayList/AttributeList.h"
#include "PlayList/Container.h"
#include "PlayList/Fragment.h"

#include <map>
#include <memory>
#include <vector>

namespace ovalto {

// One variant or rendition with the state of its media playlist.
class Representation : public Container {
public:
    Guarded<std::optional<std::int32_t>> bitrate;
    Guarded<std::optional<std::int64_t>> sequence;
    Guarded<std::optional<long>> targetDuration;
    Guarded<bool> isLive{true};
    // Running media time: the sum of all segment durations parsed so far, continued by reloads.
    Guarded<std::optional<platform::MediaTime>> start;
    Guarded<std::optional<platform::Url>> url;
    Guarded<std::optional<long>> streamIndex;
    Guarded<std::vector<std::shared_ptr<Fragment>>> fragments;
    Guarded<AttributeList> streamAttributes;
    // Keyed by the position of the first segment the key applies to.
    Guarded<std::map<long, AttributeList>> keyAttributes;
    Guarded<AttributeList> playlistAttributes;
    Guarded<AttributeList> mapAttributes;
    Guarded<std::optional<platform::Url>> initialURL;
    Guarded<std::optional<platform::Data>> playList;

    // Forgets the parsed segments and attribute lists before a new media parse; keeps the
    // identity, the running start and the last generated playlist.
    void reset() {
        fragments.set({});
        streamAttributes.set({});
        keyAttributes.set({});
        playlistAttributes.set({});
        mapAttributes.set({});
    }
};

} // namespace ovalto
