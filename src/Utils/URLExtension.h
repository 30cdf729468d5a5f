#pragma once

#include "platform/Cookie.h"
#include "platform/Error.h"
#include "platform/Url.h"
#include "platform/UrlRequest.h"
#include "platform/UrlSession.h"

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ovalto {

// The outcome of sendSynchronous: failures are values, so exactly one of these holds:
// `error` when the request failed; otherwise `value`, which is absent when the task gave no
// body, no response or a response that is not HTTP.
struct SendSynchronousResult {
    using Value = std::pair<std::optional<platform::Data>, std::optional<platform::UrlResponse>>;

    std::optional<Value> value;
    std::optional<platform::Error> error;
};

// Runs one data task for `request` on `session` and blocks until it has finished; then
// invalidates the session, which serves this one call. A status outside 200…299 fails with an
// error whose domain is "<status> error" and code 0. Transport errors come back unchanged.
// Must not be called on the session's callback queue, which would wait for itself.
SendSynchronousResult sendSynchronous(platform::UrlSession& session, const platform::UrlRequest& request);

// The header fields of a HEAD request for `url` (30 s timeout, local cache ignored) carrying
// `headers`. Names are in canonical capitalisation ("Content-Type"). Empty on any failure.
std::map<std::string, std::string>
allHeaderFields(const platform::Url& url, const std::optional<std::map<std::string, std::string>>& headers);

// The cookies that `headerFields` set for `url` (fetched with a HEAD request when not given);
// when they set none, the stored cookies for `url`; no value when there are none either.
std::optional<std::vector<platform::Cookie>>
cookies(const platform::Url& url, const std::optional<std::map<std::string, std::string>>& headerFields);

// Resolves a URI as written in the playlist at `self`: quotes trimmed; absolute ("http…") and
// host-relative ("/…") URIs as they are; any other text replaces every occurrence of self's
// last path component (with its query) in self. No value when the result is not a URL.
std::optional<platform::Url> subUrl(const platform::Url& self, std::string_view path);

// subUrl for the many URIs of one playlist: what depends only on the playlist's URL is worked
// out once, and a plain relative URI (the usual segment name) that replaces the end of that URL
// is resolved without parsing the result again. Same results as subUrl.
class SubUrlResolver {
public:
    explicit SubUrlResolver(platform::Url self);
    std::optional<platform::Url> operator()(std::string_view path) const;

private:
    platform::Url self_;
    std::string target_; // self's last path component, with "?" and its query
    std::string text_;   // self's absolute string
    bool replacesLastSegment_ = false;
};

} // namespace ovalto
