#pragma once

#include "PlayList/AttributeList.h"
#include "PlayList/Container.h"
#include "PlayList/Representation.h"
#include "ovalto/MediaType.h"

#include <cstdint>
#include <map>
#include <memory>

namespace ovalto {

// The variants (video) or one rendition group entry (audio, text) of a presentation.
class Stream : public Container {
public:
    Guarded<MediaType> mediaType{MediaType::video};
    // Keyed by bitrate; the key is the bitrate component of rewritten URLs.
    Guarded<std::map<std::int32_t, std::shared_ptr<Representation>>> representations;
    // The #EXT-X-MEDIA attribute list of a rendition (quoted values keep their quotes).
    Guarded<AttributeList> attributes;

    std::shared_ptr<Representation> representation(std::int32_t key) const {
        return representations.with([key](const auto& map) -> std::shared_ptr<Representation> {
            auto it = map.find(key);
            return it == map.end() ? nullptr : it->second;
        });
    }
};

} // namespace ovalto
