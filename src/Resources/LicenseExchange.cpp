#include "Resources/LicenseExchange.h"

#include "Utils/Base64.h"
#include "Utils/URLExtension.h"
#include "ovalto/OvaltoError.h"
#include "platform/DispatchQueue.h"
#include "platform/UrlSession.h"

namespace ovalto {

namespace {

constexpr double licenseTimeout = 30.0;

// Reads a URL whole, as a blocking read of its contents does: any scheme the session loads.
std::variant<platform::Data, platform::Error> contentsOf(const platform::Url& url) {
    platform::DispatchSemaphore semaphore(0);
    std::variant<platform::Data, platform::Error> outcome = platform::Data();
    auto session = platform::UrlSession::create();
    platform::UrlRequest request(url, platform::CachePolicy::reloadIgnoringLocalCacheData, licenseTimeout);
    // Written by the completion before it signals, read here only after the wait.
    auto task = session->dataTask(request, [&](std::optional<platform::Data> data,
                                               std::optional<platform::UrlResponse> response,
                                               std::optional<platform::Error> error) {
        if (error) {
            outcome = std::move(*error);
        } else if (response && response->isHttp &&
                   (response->statusCode < 200 || response->statusCode > 299)) {
            outcome = platform::Error{platform::Error::urlDomain,
                                      platform::urlErrorFileDoesNotExist,
                                      "The file at " + url.absoluteString() + " couldn’t be read (status " +
                                          std::to_string(response->statusCode) + ").",
                                      {}};
        } else {
            outcome = data.value_or(platform::Data());
        }
        semaphore.signal();
    });
    task->resume();
    semaphore.wait();
    session->finishTasksAndInvalidate();
    return outcome;
}

std::string removingAll(std::string text, std::string_view what) {
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at))
        text.erase(at, what.size());
    return text;
}

bool isUtf8(std::string_view text) {
    for (std::size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        const std::size_t length = c < 0x80           ? 1
                                   : (c >> 5) == 0x6  ? 2
                                   : (c >> 4) == 0xe  ? 3
                                   : (c >> 3) == 0x1e ? 4
                                                      : 0;
        if (length == 0 || i + length > text.size()) return false;
        for (std::size_t k = 1; k < length; ++k) {
            if ((static_cast<unsigned char>(text[i + k]) >> 6) != 0x2) return false;
        }
        i += length;
    }
    return true;
}

} // namespace

std::variant<platform::Data, platform::Error>
LicenseExchange::certificate(const std::optional<Configurations>& configurations) {
    if (configurations) {
        if (auto data = configurationValue<platform::Data>(*configurations, ConfigurationKey::certData))
            return *data;
        if (auto url = configurationValue<platform::Url>(*configurations, ConfigurationKey::certUrl))
            return contentsOf(*url);
    }
    return OvaltoError::inputParam("Certification URL is not set.", 0x8600).toError();
}

std::variant<platform::UrlRequest, platform::Error>
LicenseExchange::request(const std::optional<Configurations>& configurations,
                         const platform::Data& requestData, const std::string& assetId,
                         const std::optional<std::string>& osVersion) {
    std::optional<platform::Url> server;
    if (configurations)
        server = configurationValue<platform::Url>(*configurations, ConfigurationKey::licenseServerUrl);
    if (!server) return OvaltoError::inputParam("License server URL is not set.", 0x8601).toError();

    std::string body = "spc=" + Base64::encode(requestData) + "&assetId=" + assetId;
    if (osVersion) body += "&os_version=" + *osVersion;
    if (!isUtf8(body))
        return OvaltoError::inputParam("License request body is not created.", 0x8602).toError();

    platform::UrlRequest request(*server, platform::CachePolicy::reloadIgnoringLocalCacheData,
                                 licenseTimeout);
    request.httpMethod = "POST";
    if (auto headers = configurationValue<Headers>(*configurations, ConfigurationKey::licenseServerHeader)) {
        for (const auto& [name, value] : *headers)
            request.addValue(value, name);
    }
    request.addValue("application/x-www-form-urlencoded", "Content-type");
    request.addValue(std::to_string(body.size()), "Content-Length");
    request.httpBody = std::move(body);
    return request;
}

std::variant<std::optional<platform::Data>, platform::Error>
LicenseExchange::licenseData(const std::optional<Configurations>& configurations,
                             const platform::Data& requestData, const std::string& assetId,
                             const std::optional<std::string>& osVersion) {
    auto made = request(configurations, requestData, assetId, osVersion);
    if (auto* error = std::get_if<platform::Error>(&made)) return *error;
    auto session = platform::UrlSession::create();
    auto sent = sendSynchronous(*session, std::get<platform::UrlRequest>(made));
    if (sent.error) return *sent.error;
    if (!sent.value || !sent.value->first || !isUtf8(*sent.value->first))
        return std::optional<platform::Data>();
    const auto text = removingAll(removingAll(*sent.value->first, "<ckc>"), "</ckc>");
    return Base64::decodeIgnoringUnknownCharacters(text);
}

} // namespace ovalto
