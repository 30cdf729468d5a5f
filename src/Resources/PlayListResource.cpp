#include "Resources/PlayListResource.h"

#include "PlayList/MasterPlayList.h"
#include "PlayList/MediaPlayList.h"
#include "PlayList/PlayListText.h"
#include "PlayList/Presentation.h"
#include "PlayList/RewrittenUrl.h"
#include "Resources/ModelLock.h"
#include "ovalto/OVALog.h"
#include "ovalto/OvaltoError.h"
#include "platform/LoadingRequest.h"

namespace ovalto {

namespace {

constexpr const char* loadFunction = "load(loadingRequest:presentation:completion:)";
constexpr const char* loadInternalFunction = "loadInternal(retry:error:completion:)";

platform::Error inputParam(std::string message, int code) {
    return OvaltoError::inputParam(std::move(message), code).toError();
}

// [("name", "value"), …], the way the listener's header list reads in the log.
std::string describe(const std::vector<std::pair<std::string, std::string>>& headers) {
    std::string text = "[";
    for (const auto& [name, value] : headers) {
        if (text.size() > 1) text += ", ";
        text += "(\"" + name + "\", \"" + value + "\")";
    }
    return text + "]";
}

std::string describe(const platform::HeaderFields& headers) {
    std::string text = "[";
    for (const auto& [name, value] : headers.all()) {
        if (text.size() > 1) text += ", ";
        text += "\"" + name + "\": " + value;
    }
    return text + "]";
}

// The part of a URL that goes to the server.
std::string_view withoutFragment(std::string_view url) {
    return url.substr(0, url.find('#'));
}

} // namespace

void PlayListResource::load(const std::shared_ptr<platform::LoadingRequest>& loadingRequest,
                            const std::shared_ptr<Presentation>& presentation, Completion completion) {
    if (!loadingRequest || loadingRequest->dataRequest() == nullptr || !presentation) {
        OVALog(OVALogLevel::error, "Input params for playlist request is not valid.", loadFunction, __FILE__,
               __LINE__);
        completion(Result::failure(inputParam("Playlist request is not valid", 0x8300)));
        return;
    }
    loadingRequest_ = loadingRequest;
    const platform::Url& requestUrl = loadingRequest->request().url;
    OVALog(OVALogLevel::debug, requestUrl.absoluteString(), loadFunction, __FILE__, __LINE__);

    const Configurations noConfigurations;
    const Configurations& settings = configurations ? *configurations : noConfigurations;
    std::optional<platform::Url> fetchUrl =
        configurationValue<platform::Url>(settings, ConfigurationKey::contentUrl);

    const auto address = RewrittenUrl::readPlayList(requestUrl);
    if (address && address->isMaster) {
        playList = std::make_unique<MasterPlayList>();
        container = presentation;
    } else {
        std::shared_ptr<Representation> representation;
        if (address) {
            if (auto stream = presentation->stream(address->stream))
                representation = stream->representation(address->bitrate);
        }
        if (!representation) {
            OVALog(OVALogLevel::error, requestUrl.path() + " is not valid.", loadFunction, __FILE__,
                   __LINE__);
            completion(Result::failure(inputParam("Resource URL is not valid.", 0x8301)));
            return;
        }
        fetchUrl = representation->url.get();
        representation->streamIndex.set(address->stream);
        playList = std::make_unique<MediaPlayList>();
        container = std::move(representation);
    }

    RequestInfo requestInfo;
    requestInfo.timeout = defaultTimeout;
    if (auto listener = pluginListener.lock()) {
        OVALog(OVALogLevel::debug, "onManfiestRequest", loadFunction, __FILE__, __LINE__);
        if (fetchUrl) requestInfo.uri = fetchUrl->absoluteString();
        listener->onManifestRequest(requestInfo);
        OVALog(OVALogLevel::warning, describeOptional(requestInfo.uri) + ", " + describe(requestInfo.headers),
               loadFunction, __FILE__, __LINE__);
        fetchUrl = requestInfo.uri ? platform::Url::parse(*requestInfo.uri) : std::nullopt;
    }
    if (!fetchUrl) {
        OVALog(OVALogLevel::error, "resource url is not created.", loadFunction, __FILE__, __LINE__);
        completion(Result::failure(inputParam("PlayList URL is not created.", 0x8400)));
        return;
    }

    const int timeout = requestInfo.timeout.value_or(0) > 0 ? *requestInfo.timeout : defaultTimeout;
    platform::UrlRequest request(*fetchUrl, platform::CachePolicy::reloadIgnoringLocalCacheData, timeout);
    // addValue joins a repeated name into one field, values separated by commas.
    for (const auto& [name, value] : requestInfo.headers)
        request.addValue(value, name);
    if (auto headers = configurationValue<Headers>(settings, ConfigurationKey::httpHeaders)) {
        for (const auto& [name, value] : *headers)
            request.addValue(value, name);
    }
    if (customHeaders) {
        for (const auto& [name, value] : *customHeaders)
            request.addValue(value, name);
    }
    request_ = std::move(request);
    session_ = platform::UrlSession::create();
    deadline_ = std::chrono::steady_clock::now() + std::chrono::seconds(deadlineFactor * timeout);
    loadInternal(retries, std::nullopt, std::move(completion));
}

void PlayListResource::loadInternal(int retry, std::optional<platform::Error> error, Completion completion) {
    const std::chrono::duration<double> left = deadline_ - std::chrono::steady_clock::now();
    if (retry < 0 || (error && left.count() <= 0)) {
        session_->finishTasksAndInvalidate();
        completion(
            Result::failure(error ? std::move(*error) : inputParam("PlayList is not received.", 0x8400)));
        return;
    }
    platform::UrlRequest attempt = *request_;
    attempt.deadlineInterval = left.count();
    // The task's handler keeps this resource alive until the attempt has been dealt with.
    auto task = session_->dataTask(std::move(attempt), [self = shared_from_this(), retry,
                                                        completion = std::move(completion)](
                                                           std::optional<platform::Data> data,
                                                           std::optional<platform::UrlResponse> response,
                                                           std::optional<platform::Error> error) mutable {
        self->didLoad(retry, std::move(data), std::move(response), std::move(error), std::move(completion));
    });
    task->resume();
}

void PlayListResource::didLoad(int retry, std::optional<platform::Data> data,
                               std::optional<platform::UrlResponse> response,
                               std::optional<platform::Error> error, Completion completion) {
    if (error) {
        loadInternal(retry - 1, std::move(error), std::move(completion));
        return;
    }
    if (!data || !response || !response->isHttp) {
        loadInternal(retry - 1, inputParam("PlayList is not received.", 0x8400), std::move(completion));
        return;
    }
    if (response->statusCode < 200 || response->statusCode > 299) {
        loadInternal(retry - 1, inputParam("PlayList response is not valid.", response->statusCode),
                     std::move(completion));
        return;
    }
    answer(*data, *response);
    session_->finishTasksAndInvalidate();
    completion(Result::success());
}

void PlayListResource::answer(const platform::Data& data, const platform::UrlResponse& response) {
    const platform::Url& fetchUrl = request_->url;
    if (auto listener = pluginListener.lock()) {
        OVALog(OVALogLevel::debug,
               "onManifestResponse : " + response.url.absoluteString() + ", " + describe(response.headers) +
                   ", " + describeOptional(response.url.host()),
               loadInternalFunction, __FILE__, __LINE__);
        ResponseInfo responseInfo;
        responseInfo.uri = fetchUrl.absoluteString();
        responseInfo.originalUri = response.url.absoluteString();
        responseInfo.headers = response.headers.all();
        responseInfo.edgeIP = response.url.host();
        responseInfo.size = static_cast<std::int64_t>(data.size());
        listener->onManifestResponse(responseInfo);
    }
    OVALog(OVALogLevel::debug, response.url.absoluteString() + " / " + std::to_string(response.statusCode),
           loadInternalFunction, __FILE__, __LINE__);
    // Relative URIs resolve against the URL asked for, not where HTTP redirects ended: an origin
    // that redirects into another directory then gets requests it cannot answer. Say so here.
    if (withoutFragment(response.url.absoluteString()) != withoutFragment(fetchUrl.absoluteString()))
        OVALog(OVALogLevel::warning,
               "The playlist " + fetchUrl.absoluteString() + " was answered from " +
                   response.url.absoluteString() + "; its relative URIs resolve against " +
                   fetchUrl.absoluteString() + ".",
               loadInternalFunction, __FILE__, __LINE__);

    std::optional<platform::Data> generated;
    {
        // Another reload of the same playlist must not interleave with this parse and generation.
        std::lock_guard lock(modelLock(*container));
        // The base is the URL asked for, not where HTTP redirects ended.
        if (playList->parsePlayList(data, fetchUrl, *container))
            generated = playList->generatePlayList(*container);
    }
    loadingRequest_->dataRequest()->respond(generated ? *generated : data);
}

} // namespace ovalto
