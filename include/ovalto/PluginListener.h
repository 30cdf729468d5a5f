#pragma once

#include "ovalto/RequestInfo.h"
#include "ovalto/ResponseInfo.h"
#include "platform/Url.h"

#include <cstdint>
#include <memory>

namespace ovalto {

// Receives every network step of playback. Called from several threads at once; a record is
// used by one call at a time and read back by the caller after the call returns. The library
// holds its listener weakly.
class PluginListener {
public:
    virtual ~PluginListener() = default;

    virtual void prepare(const platform::Url& url) = 0;
    virtual void conclude() = 0;
    // Milliseconds from preparation to the first ready-to-play.
    virtual void onStartupTime(std::uint64_t time) = 0;
    // current: seconds since 1970 when re-buffering began; duration: milliseconds; bitrate: bit/s.
    virtual void onBuffering(std::uint64_t current, std::uint64_t duration, std::int32_t bitrate) = 0;
    virtual void onManifestRequest(RequestInfo& requestInfo) = 0;
    virtual void onManifestResponse(ResponseInfo& responseInfo) = 0;
    virtual void onFragmentRequest(RequestInfo& requestInfo) = 0;
    virtual void onFragmentResponse(ResponseInfo& responseInfo) = 0;
};

} // namespace ovalto
