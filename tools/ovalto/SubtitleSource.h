#pragma once

#include "platform/Url.h"

#include <optional>
#include <string>

namespace ovalto::tool {

// A side-car document named on the command line: a file path, a file or http(s) URL, or one of
// the built-in sample's side-cars ("sample:srt", "sample:vtt", "sample:ttml", which also imply
// their MIME type), with the MIME type that selects its parser.
struct SubtitleSource {
    platform::Url url;
    std::string mimeType;

    // The MIME types the library knows, for messages.
    static const char* knownMimeTypes();
    // No value, with `error` set, for an unknown sample name or MIME type, or no MIME type.
    static std::optional<SubtitleSource>
    resolve(const std::string& source, const std::optional<std::string>& mimeType, std::string& error);
};

} // namespace ovalto::tool
