#pragma once

#include "ovalto/MediaType.h"
#include "ovalto/OVALog.h"

#include <atomic>
#include <string>

namespace ovalto {

// Module constants.
inline constexpr double OvaltoVersionNumber = 1.0;
inline constexpr char OvaltoVersionString[] = "@(#)PROGRAM:Ovalto  PROJECT:Ovalto-1\n";

// The facade an application talks to. This header carries its class-wide settings; the
// operations are declared with the engine.
class Ovalto {
public:
    using MediaType = ovalto::MediaType;
    using MimeType = ovalto::MimeType;

    // Threshold of OVALog; lines below it are dropped.
    static inline std::atomic<OVALogLevel> logLevel{OVALogLevel::debug};
    static inline std::string version = "1.0.0";
    // Result slot of the host application's own integrity check; the library never reads it.
    static inline std::atomic<bool> isJailBroken{false};
};

} // namespace ovalto
