#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace ovalto::platform {

// The system log: one line per call on standard error, prefixed with a timestamp and the process
// and thread ids. The text is written literally ("%" stays "%").
class SystemLog {
public:
    static void write(std::string_view text);

    // Receives every text written while installed (tests capture lines with it). Returns a token
    // for removeSink.
    using Sink = std::function<void(const std::string&)>;
    static int addSink(Sink sink);
    static void removeSink(int token);
    // Whether lines still go to standard error while sinks are installed (default true).
    static void setEchoToStandardError(bool echo);
    static bool echoesToStandardError();
};

} // namespace ovalto::platform
