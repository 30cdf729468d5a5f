#pragma once

#include "ovalto/ConfigurationKey.h"
#include "platform/Error.h"
#include "platform/Url.h"

#include <cstddef>
#include <optional>
#include <string>

namespace ovalto {

// Reads a whole side-car document, synchronously, through the platform's URL session: a file
// URL from disk, an http(s) URL with the configured header fields. Documents are bounded so that
// a runaway file or server cannot take the process's memory.
class DocumentReader {
public:
    // Far above any real subtitle file (a two-hour film is well under a megabyte).
    static constexpr std::size_t maximumSize = 64u << 20;

    // Exactly one of the two holds.
    struct Result {
        std::optional<platform::Data> bytes;
        std::optional<std::string> error; // a readable reason
    };

    // Blocks the calling thread, which must not be the main thread while nobody else drives the
    // main run loop (the session never needs it) nor the session's callback queue.
    static Result read(const platform::Url& url, const Headers& headers);
};

} // namespace ovalto
