#pragma once

#include <any>
#include <cstdint>
#include <string>

namespace ovalto::platform {

// Bytes as the platform hands them around (bodies, playlists, keys).
using Data = std::string;

// The platform's error object: a domain, a numeric code and a readable description.
// `payload` keeps the typed error it was bridged from, so a caller can get it back.
struct Error {
    std::string domain;
    std::int64_t code = 0;
    std::string localizedDescription;
    std::any payload;

    // Domains of errors the platform itself raises.
    static constexpr const char* urlDomain = "URLErrorDomain";
    static constexpr const char* loaderDomain = "ResourceLoaderErrorDomain";
};

// Codes of the URL error domain (negative, as network stacks report them).
enum UrlErrorCode : std::int64_t {
    urlErrorUnknown = -1,
    urlErrorCancelled = -999,
    urlErrorBadURL = -1000,
    urlErrorTimedOut = -1001,
    urlErrorUnsupportedURL = -1002,
    urlErrorCannotFindHost = -1003,
    urlErrorCannotConnectToHost = -1004,
    urlErrorNetworkConnectionLost = -1005,
    urlErrorBadServerResponse = -1011,
    urlErrorSecureConnectionFailed = -1200,
    urlErrorFileDoesNotExist = -1100,
};

} // namespace ovalto::platform
