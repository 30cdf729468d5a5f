#pragma once

#include "PlayList/AttributeList.h"
#include "PlayList/Container.h"
#include "platform/Error.h"
#include "platform/Url.h"

#include <optional>
#include <string_view>

namespace ovalto {

// A parser and generator of one playlist kind: MasterPlayList works on a Presentation,
// MediaPlayList on a Representation. Instances hold no state; one is made per request.
class PlayList {
public:
    virtual ~PlayList() = default;

    // Fills `container` from the playlist bytes as received; `baseUrl` is the real URL they came
    // from, against which relative URIs resolve. False (and the container untouched) for bytes
    // that are not UTF-8, a container of the other kind, or text that does not begin with "#EXT".
    virtual bool parsePlayList(std::string_view playList, const platform::Url& baseUrl,
                               Container& container) = 0;
    // The rewritten playlist as UTF-8, also stored in the container's `playList`; no value when
    // it cannot be written.
    virtual std::optional<platform::Data> generatePlayList(Container& container) = 0;

    // The attribute list of one whole tag line, in source order. Quoted values keep their quotes,
    // so name, "=" and value write an attribute back exactly as it came.
    static AttributeList parseAttribute(std::string_view tag);
    // True unless a line (trimmed) begins with "#EXTINF"; empty text counts as a master.
    static bool isMaster(std::string_view playList);
};

} // namespace ovalto
