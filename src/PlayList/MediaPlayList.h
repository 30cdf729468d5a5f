#pragma once

#include "PlayList/PlayList.h"

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace ovalto {

class Representation;

// One variant's or rendition's segment list: parsed into a Representation and written back with
// every segment at "rdtp://local/<stream>/<bitrate>/<index>.ts" and the initialisation section at
// ".../-1.ts", so that each segment request comes back to the library. Keys are copied unchanged.
class MediaPlayList : public PlayList {
public:
    bool parsePlayList(std::string_view playList, const platform::Url& baseUrl,
                       Container& container) override;
    std::optional<platform::Data> generatePlayList(Container& container) override;

    // The playlist generatePlayList writes, handed to `sink` in pieces of about `pieceSize` bytes
    // instead of being kept: for a caller that passes it straight on, so that a long playlist is
    // never held whole. The segments get their indexes as there; the container's `playList` and
    // the debug log are left alone. False, with nothing handed over, when it cannot be written.
    // `sink` runs while the representation's segment list is locked: it must not touch it.
    bool writePlayList(Container& container, const std::function<void(std::string_view)>& sink,
                       std::size_t pieceSize = 64 * 1024);

private:
    // Appends the playlist to `out`, or with a sink hands `out` over and empties it whenever it
    // reaches `pieceSize`; false with nothing written when it cannot be written.
    static bool writeTo(Representation& representation, std::string& out,
                        const std::function<void(std::string_view)>* sink, std::size_t pieceSize);
};

} // namespace ovalto
