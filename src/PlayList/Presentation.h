#pragma once

#include "PlayList/Container.h"
#include "PlayList/Stream.h"
#include "ovalto/EdgeServer.h"

#include <memory>
#include <string>
#include <vector>

namespace ovalto {

// The in-memory picture of one HLS stream, shared by every resource of one loader.
class Presentation : public Container {
public:
    // Position in this array is the stream index of rewritten URLs.
    Guarded<std::vector<std::shared_ptr<Stream>>> streams;
    Guarded<std::optional<platform::Url>> url;
    Guarded<std::optional<platform::Data>> playList;
    Guarded<EdgeList> edgeList;

    std::shared_ptr<Stream> stream(long index) const {
        return streams.with([index](const auto& all) -> std::shared_ptr<Stream> {
            if (index < 0 || static_cast<std::size_t>(index) >= all.size()) return nullptr;
            return all[static_cast<std::size_t>(index)];
        });
    }
};

} // namespace ovalto
