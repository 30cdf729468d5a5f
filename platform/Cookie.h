#pragma once

#include "platform/Url.h"
#include "platform/UrlRequest.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace ovalto::platform {

// One HTTP cookie. An empty domain matches the host of the URL it is stored for.
struct Cookie {
    std::string name;
    std::string value;
    std::string domain;
    std::string path = "/";
    bool secure = false;
    bool httpOnly = false;
    std::optional<std::chrono::system_clock::time_point> expires;

    // No value when the properties do not make a cookie (empty name, name with "=" or ";").
    static std::optional<Cookie> make(std::string name, std::string value, std::string domain = "",
                                      std::string path = "/");
    // The cookies that the "Set-Cookie" fields of `headers` set for `url`.
    static std::vector<Cookie> cookies(const HeaderFields& headers, const Url& url);
    bool matches(const Url& url) const;
};

// The process-wide cookie store.
class CookieStorage {
public:
    static CookieStorage& shared();
    void setCookies(const std::vector<Cookie>& cookies, const Url& url);
    std::vector<Cookie> cookies(const Url& url) const;
    // "a=1; b=2" for a Cookie request header, empty when nothing matches.
    std::string headerValue(const Url& url) const;
    void removeAll();

    struct Impl;

private:
    CookieStorage();
    std::shared_ptr<Impl> impl_;
};

} // namespace ovalto::platform
