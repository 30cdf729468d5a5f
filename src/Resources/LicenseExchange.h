#pragma once

#include "ovalto/ConfigurationKey.h"
#include "platform/Error.h"
#include "platform/UrlRequest.h"

#include <optional>
#include <string>
#include <variant>

namespace ovalto {

// The certificate and licence exchange that the key resource and the key-loader delegate share.
// Failures are values: the error a caller reports (and, where it logs, logs) itself.
class LicenseExchange {
public:
    // `certData` when it is bytes; else the whole contents of `certUrl` (a blocking read); else
    // OvaltoError "Certification URL is not set." (0x8600).
    static std::variant<platform::Data, platform::Error>
    certificate(const std::optional<Configurations>& configurations);

    // The licence request: "spc=<base64>&assetId=<id>" (then "&os_version=<v>" when given), not
    // percent-encoded; the configured licence headers, then Content-type and Content-Length, in
    // that order; POST, 30 s, local cache ignored. OvaltoError 0x8601 without a licence server.
    static std::variant<platform::UrlRequest, platform::Error>
    request(const std::optional<Configurations>& configurations, const platform::Data& requestData,
            const std::string& assetId, const std::optional<std::string>& osVersion);

    // Sends the request and reads the CKC from the answer ("<ckc>" and "</ckc>" removed, base64
    // read leniently). No value when the answer has no usable body; the transport or status
    // error of sendSynchronous otherwise.
    static std::variant<std::optional<platform::Data>, platform::Error>
    licenseData(const std::optional<Configurations>& configurations, const platform::Data& requestData,
                const std::string& assetId, const std::optional<std::string>& osVersion);
};

} // namespace ovalto
