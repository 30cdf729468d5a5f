#pragma once

#include "platform/Url.h"

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ovalto::tool {

// What the library makes of one playlist: the text the player would receive, or why there is
// none, with the warnings the library logged on the way.
struct Rewritten {
    bool written = false;                // the library wrote the playlist
    std::optional<std::string> playList; // what it wrote, unless it went to a sink
    std::string error;
    std::vector<std::string> warnings; // the messages of warning and error lines
    std::vector<std::string> log;      // every line the library logged, as written
    bool isMaster = false;
};

// Parses `text` (fetched from `baseUrl`) as the library does and generates it again: a master
// playlist as the player receives it, a media playlist as the player gets it for stream `stream`
// and representation `bitrate`. With a `sink`, the text goes there (in pieces, as it is written)
// instead of into the result.
Rewritten rewritePlayList(std::string_view text, const platform::Url& baseUrl, long stream,
                          std::int32_t bitrate, const std::function<void(std::string_view)>* sink = nullptr);

// `ovalto rewrite` with its arguments; returns the exit status.
int rewriteCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

} // namespace ovalto::tool
