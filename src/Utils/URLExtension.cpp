#include "Utils/URLExtension.h"

#include "ovalto/OVALog.h"
#include "platform/DispatchQueue.h"

#include <cctype>
#include <iostream>

namespace ovalto {

namespace {

void printLine(const std::string& text) {
    std::cout << text + "\n" << std::flush;
}

// The error for a status outside 200…299, described the way the platform describes an error
// that carries no text of its own.
platform::Error statusError(int statusCode) {
    std::string domain = std::to_string(statusCode) + " error";
    std::string description = "The operation couldn’t be completed. (" + domain + " error 0.)";
    return platform::Error{std::move(domain), 0, std::move(description), {}};
}

// "content-type" → "Content-Type": each dash-separated word capitalised.
std::string canonicalName(std::string_view name) {
    std::string out(name);
    bool wordStart = true;
    for (char& c : out) {
        const auto u = static_cast<unsigned char>(c);
        c = static_cast<char>(wordStart ? std::toupper(u) : std::tolower(u));
        wordStart = c == '-';
    }
    return out;
}

} // namespace

SendSynchronousResult sendSynchronous(platform::UrlSession& session, const platform::UrlRequest& request) {
    platform::DispatchSemaphore semaphore(0);
    SendSynchronousResult result;
    // Written by the completion before it signals, read here only after the wait.
    auto task = session.dataTask(request, [&](std::optional<platform::Data> data,
                                              std::optional<platform::UrlResponse> response,
                                              std::optional<platform::Error> error) {
        if (error) {
            printLine(error->localizedDescription);
            result.error = std::move(error);
        } else if (data && response && response->isHttp) {
            const int status = response->statusCode;
            if (status >= 200 && status <= 299) {
                result.value = SendSynchronousResult::Value{std::move(data), std::move(response)};
            } else {
                printLine(std::to_string(status));
                result.error = statusError(status);
            }
        }
        semaphore.signal();
    });
    task->resume();
    semaphore.wait();
    session.finishTasksAndInvalidate();
    return result;
}

std::map<std::string, std::string>
allHeaderFields(const platform::Url& url, const std::optional<std::map<std::string, std::string>>& headers) {
    platform::UrlRequest request(url, platform::CachePolicy::reloadIgnoringLocalCacheData, 30.0);
    request.httpMethod = "HEAD";
    if (headers) {
        for (const auto& [name, value] : *headers)
            request.addValue(value, name);
    }
    auto session = platform::UrlSession::create();
    const auto result = sendSynchronous(*session, request);
    if (result.error) {
        OVALog(OVALogLevel::error, result.error->localizedDescription, "allHeaderFields",
               "Utils/URLExtension", __LINE__);
        return {};
    }
    std::map<std::string, std::string> fields;
    if (result.value && result.value->second && result.value->second->isHttp) {
        for (const auto& [name, value] : result.value->second->headers.all())
            fields[canonicalName(name)] = value;
    }
    return fields;
}

std::optional<std::vector<platform::Cookie>>
cookies(const platform::Url& url, const std::optional<std::map<std::string, std::string>>& headerFields) {
    const auto fields = headerFields ? *headerFields : allHeaderFields(url, std::nullopt);
    platform::HeaderFields converted;
    for (const auto& [name, value] : fields)
        converted.addValue(value, name);
    auto parsed = platform::Cookie::cookies(converted, url);
    if (!parsed.empty()) return parsed;
    auto stored = platform::CookieStorage::shared().cookies(url);
    if (stored.empty()) return std::nullopt;
    return stored;
}

SubUrlResolver::SubUrlResolver(platform::Url self)
    : self_(std::move(self))
    // As written: the decoded name would not be found in the encoded text.
    , target_(self_.encodedLastPathComponent())
    , text_(self_.absoluteString()) {
    if (const auto query = self_.query()) target_ += "?" + *query;
    // Replacing the one occurrence of the target, at the end, is replacing the last path segment
    // (with the query): checked once on a probe so that both ways give the same text.
    if (!self_.fragment() && !target_.empty() && text_.ends_with(target_) &&
        text_.find(target_) == text_.size() - target_.size()) {
        const auto probe = self_.replacingLastPathSegment("x");
        replacesLastSegment_ =
            probe && probe->absoluteString() == text_.substr(0, text_.size() - target_.size()) + "x";
    }
}

std::optional<platform::Url> SubUrlResolver::operator()(std::string_view path) const {
    while (!path.empty() && path.front() == '"')
        path.remove_prefix(1);
    while (!path.empty() && path.back() == '"')
        path.remove_suffix(1);

    if (path.starts_with("http")) return platform::Url::parse(path);
    if (path.starts_with("/")) return platform::Url::parse(path, self_);

    if (replacesLastSegment_) {
        if (auto url = self_.replacingLastPathSegment(path)) return url;
    }
    std::string text = text_;
    // Every occurrence, so a directory named like the last component changes too.
    if (!target_.empty()) {
        for (auto at = text.find(target_); at != std::string::npos; at = text.find(target_, at + path.size()))
            text.replace(at, target_.size(), path);
    }
    return platform::Url::parse(text);
}

std::optional<platform::Url> subUrl(const platform::Url& self, std::string_view path) {
    return SubUrlResolver(self)(path);
}

} // namespace ovalto
