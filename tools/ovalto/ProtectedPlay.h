#pragma once

#include "LicenseServer.h"
#include "ovalto/ConfigurationKey.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace ovalto::tool {

class Origin;
class Timeline;

// The protected-content side of `ovalto play`: --protected serves the protected sample with its
// licence server on loopback; --license-server, --cert and --license-header configure the key
// exchange for any stream.
class ProtectedPlay {
public:
    static constexpr const char* usage =
        R"(  --protected                 play the protected sample (segments encrypted under an "skd"
                              key) with its licence server on loopback
  --license-server URL        the licence server for "skd" keys
  --cert FILE|URL             the application certificate (PEM or DER) for the licence requests
  --license-header NAME:VALUE an HTTP header for licence requests (repeatable)
  --os-version V              the key-system version the platform reports (default: the newest)
)";

    ProtectedPlay();
    ~ProtectedPlay();
    ProtectedPlay(ProtectedPlay&&) noexcept;
    ProtectedPlay& operator=(ProtectedPlay&&) noexcept;

    // Takes args[i] (and its value) when it is one of these options: 1 when taken, 0 when not
    // ours, -1 with `error` set when its value is wrong.
    int parse(const std::vector<std::string>& args, std::size_t& i, std::string& error);
    bool servesSample() const;
    // Serves the protected sample and starts its licence server; the master playlist's URL.
    std::optional<std::string> start(Timeline& timeline, std::string& error);
    // Puts the licence server, certificate and headers into `configurations`.
    bool configure(Configurations& configurations, std::string& error) const;

    // The licence configuration from the command line's texts; shared with `ovalto keys`.
    static bool licenseConfiguration(const std::string& server, const std::string& certificate,
                                     const Headers& headers, Configurations& configurations,
                                     std::string& error);
    // The directory of the protected sample (beside the built-in one).
    static std::string sampleDirectory();

private:
    bool sample_ = false;
    std::optional<std::string> server_;
    std::optional<std::string> certificate_;
    Headers headers_;
    std::unique_ptr<Origin> origin_;
    std::unique_ptr<LicenseServer> licenseServer_;
};

} // namespace ovalto::tool
