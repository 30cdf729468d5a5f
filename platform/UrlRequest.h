#pragma once

#include "platform/Error.h"
#include "platform/Url.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ovalto::platform {

// Header fields keyed case-insensitively, kept in the order they were first set.
class HeaderFields {
public:
    // Appends `value` to an existing field of the same name with ", " between ("; " for "Cookie"),
    // or adds it.
    void addValue(const std::string& value, const std::string& name);
    // Replaces the field (or removes it when `value` is empty).
    void setValue(const std::string& value, const std::string& name);
    std::optional<std::string> value(const std::string& name) const;
    const std::vector<std::pair<std::string, std::string>>& all() const { return fields_; }
    bool empty() const { return fields_.empty(); }

private:
    std::vector<std::pair<std::string, std::string>> fields_;
};

enum class CachePolicy { useProtocolCachePolicy, reloadIgnoringLocalCacheData };

struct UrlRequest {
    UrlRequest(Url url, CachePolicy cachePolicy = CachePolicy::useProtocolCachePolicy,
               double timeoutInterval = 60.0)
        : url(std::move(url))
        , cachePolicy(cachePolicy)
        , timeoutInterval(timeoutInterval) {}

    Url url;
    CachePolicy cachePolicy;
    double timeoutInterval; // seconds without a byte in either direction
    // Seconds for the whole exchange, redirects included, however steadily bytes arrive; none:
    // the idle timeout alone. Ends in the same timed-out error.
    std::optional<double> deadlineInterval;
    std::string httpMethod = "GET";
    std::optional<Data> httpBody;
    HeaderFields headers;

    void addValue(const std::string& value, const std::string& field) { headers.addValue(value, field); }
    void setValue(const std::string& value, const std::string& field) { headers.setValue(value, field); }
};

// A response: HTTP responses carry a status and header fields; file responses do not.
struct UrlResponse {
    Url url; // the final URL, after redirects
    bool isHttp = false;
    int statusCode = 0;
    HeaderFields headers;
    std::optional<std::string> mimeType;
    std::int64_t expectedContentLength = -1;
};

} // namespace ovalto::platform
