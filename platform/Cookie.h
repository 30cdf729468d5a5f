#pragma once

#include "platform/Url.h"
#include "platform/UrlRequest.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
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
    // One "Cookie" header value from what a request already carries (`written`, kept first and
    // as written) and `more`: each name once, the first occurrence winning. Names are compared
    // without surrounding blanks, so " b=2" from a configured header and a stored " b" are one.
    static std::string headerValue(std::string_view written, const std::vector<Cookie>& more);
};

// The process-wide cookie store.
class CookieStorage {
public:
    static CookieStorage& shared();
    void setCookies(const std::vector<Cookie>& cookies, const Url& url);
    std::vector<Cookie> cookies(const Url& url) const;
    // "a=1; b=2" for a Cookie request header, empty when nothing matches; see
    // Cookie::headerValue for how `written` (a Cookie header the request already has) joins in.
    std::string headerValue(const Url& url, std::string_view written = {}) const;
    void removeAll();

    struct Impl;

private:
    CookieStorage();
    std::shared_ptr<Impl> impl_;
};

} // namespace ovalto::platform
