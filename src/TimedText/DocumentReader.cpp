#include "TimedText/DocumentReader.h"

#include "platform/DispatchQueue.h"
#include "platform/UrlSession.h"

#include <chrono>
#include <filesystem>
#include <memory>
#include <mutex>

namespace ovalto {

namespace {

constexpr double requestTimeout = 60.0;
// The session's own timeout ends the request first; this only guards against a lost completion.
constexpr auto waitLimit = std::chrono::seconds(90);

std::string tooLarge(const platform::Url& url) {
    return "The document " + url.lastPathComponent() + " is larger than " +
           std::to_string(DocumentReader::maximumSize >> 20) + " MB.";
}

} // namespace

DocumentReader::Result DocumentReader::read(const platform::Url& url, const Headers& headers) {
    if (url.isFileUrl()) {
        // Refused before the session reads it whole.
        std::error_code error;
        const auto size = std::filesystem::file_size(url.path(), error);
        if (!error && size > maximumSize) return {std::nullopt, tooLarge(url)};
    }
    platform::UrlRequest request(url, platform::CachePolicy::useProtocolCachePolicy, requestTimeout);
    for (const auto& [name, value] : headers)
        request.setValue(value, name);

    // Shared with the completion, which may in theory outlive a wait that gave up.
    struct Outcome {
        std::mutex mutex;
        Result result;
        platform::DispatchSemaphore done{0};
    };
    auto outcome = std::make_shared<Outcome>();
    auto session = platform::UrlSession::create();
    auto task = session->dataTask(request, [outcome, url](std::optional<platform::Data> data,
                                                          std::optional<platform::UrlResponse> response,
                                                          std::optional<platform::Error> error) {
        Result result;
        if (error) {
            result.error = error->localizedDescription;
        } else if (response && response->isHttp &&
                   (response->statusCode < 200 || response->statusCode > 299)) {
            result.error = "The server answered " + std::to_string(response->statusCode) + " for " +
                           url.absoluteString() + ".";
        } else if (!data) {
            result.error = "No document came back for " + url.absoluteString() + ".";
        } else if (data->size() > maximumSize) {
            result.error = tooLarge(url);
        } else {
            result.bytes = std::move(data);
        }
        {
            std::lock_guard lock(outcome->mutex);
            outcome->result = std::move(result);
        }
        outcome->done.signal();
    });
    task->resume();
    const bool finished = outcome->done.wait(waitLimit);
    if (!finished) task->cancel();
    session->finishTasksAndInvalidate();
    if (!finished) return {std::nullopt, "Reading " + url.absoluteString() + " did not finish."};
    std::lock_guard lock(outcome->mutex);
    return std::move(outcome->result);
}

} // namespace ovalto
