#include "platform/LoadingRequest.h"

#include "platform/ContentKey.h"
#include "platform/KeyExchange.h"
#include "platform/SystemLog.h"

#include <cassert>

namespace ovalto::platform {

namespace {

Error loaderError(LoaderErrorCode code, std::string description) {
    return Error{Error::loaderDomain, code, std::move(description), {}};
}

} // namespace

struct LoadingRequest::Key {};

std::int64_t DataRequest::currentOffset() const {
    std::lock_guard lock(mutex_);
    return requestedOffset_ + static_cast<std::int64_t>(received_.size());
}

void DataRequest::respond(const Data& data) {
    std::lock_guard lock(mutex_);
    // Bytes that arrive after the end would reach nobody.
    if (!closed_) received_ += data;
}

std::optional<std::string> ContentInformationRequest::contentType() const {
    std::lock_guard lock(mutex_);
    return contentType_;
}

void ContentInformationRequest::setContentType(std::optional<std::string> type) {
    std::lock_guard lock(mutex_);
    contentType_ = std::move(type);
}

std::int64_t ContentInformationRequest::contentLength() const {
    std::lock_guard lock(mutex_);
    return contentLength_;
}

void ContentInformationRequest::setContentLength(std::int64_t length) {
    std::lock_guard lock(mutex_);
    contentLength_ = length;
}

bool ContentInformationRequest::isByteRangeAccessSupported() const {
    std::lock_guard lock(mutex_);
    return byteRangeAccessSupported_;
}

void ContentInformationRequest::setByteRangeAccessSupported(bool supported) {
    std::lock_guard lock(mutex_);
    byteRangeAccessSupported_ = supported;
}

std::shared_ptr<LoadingRequest> LoadingRequest::create(UrlRequest request, Parts parts,
                                                       Completion completion) {
    return std::make_shared<LoadingRequest>(Key{}, std::move(request), parts, std::move(completion));
}

LoadingRequest::LoadingRequest(const Key&, UrlRequest request, Parts parts, Completion completion)
    : request_(std::move(request))
    , completion_(std::move(completion)) {
    if (parts.dataRequest) {
        dataRequest_.emplace(DataRequest(parts.requestedOffset, parts.requestedLength,
                                         parts.requestsAllDataToEndOfResource, mutex_));
    }
    if (parts.contentInformationRequest)
        contentInformationRequest_.emplace(ContentInformationRequest(mutex_));
}

std::optional<UrlResponse> LoadingRequest::response() const {
    std::lock_guard lock(mutex_);
    return response_;
}

void LoadingRequest::setResponse(std::optional<UrlResponse> response) {
    std::lock_guard lock(mutex_);
    response_ = std::move(response);
}

std::optional<UrlRequest> LoadingRequest::redirect() const {
    std::lock_guard lock(mutex_);
    return redirect_;
}

void LoadingRequest::setRedirect(std::optional<UrlRequest> redirect) {
    std::lock_guard lock(mutex_);
    redirect_ = std::move(redirect);
}

void LoadingRequest::finishLoading() {
    end({}, Ending::answer);
}

void LoadingRequest::finishLoading(const Error& error) {
    LoadingOutcome outcome;
    outcome.kind = LoadingOutcome::Kind::error;
    outcome.error = error;
    end(std::move(outcome), Ending::answer);
}

bool LoadingRequest::isFinished() const {
    std::lock_guard lock(mutex_);
    return finished_;
}

bool LoadingRequest::isCancelled() const {
    std::lock_guard lock(mutex_);
    return cancelled_;
}

void LoadingRequest::cancel() {
    LoadingOutcome outcome;
    outcome.kind = LoadingOutcome::Kind::cancelled;
    outcome.error = loaderError(loaderErrorCancelled, "The loading request was cancelled.");
    end(std::move(outcome), Ending::cancel);
}

void LoadingRequest::failIfPending(const Error& error) {
    LoadingOutcome outcome;
    outcome.kind = LoadingOutcome::Kind::error;
    outcome.error = error;
    end(std::move(outcome), Ending::fail);
}

void LoadingRequest::end(LoadingOutcome outcome, Ending ending) {
    Completion completion;
    {
        std::lock_guard lock(mutex_);
        if (finished_ || cancelled_) {
            // The player may give up while an answer is on its way; only a second answer is a bug.
            const bool misuse = ending == Ending::answer && finished_;
            if (misuse) {
                SystemLog::write("LoadingRequest: " + request_.url.absoluteString() +
                                 " was finished twice; the second finish is ignored");
            }
            assert(!misuse && "a loading request is finished exactly once");
            return;
        }
        (ending == Ending::cancel ? cancelled_ : finished_) = true;
        if (dataRequest_) dataRequest_->closed_ = true;
        if (outcome.kind != LoadingOutcome::Kind::error && ending == Ending::answer) {
            if (redirect_) {
                outcome.kind = LoadingOutcome::Kind::redirect;
                outcome.redirect = redirect_;
            } else {
                outcome.kind = LoadingOutcome::Kind::data;
                if (dataRequest_) outcome.data = std::move(dataRequest_->received_);
            }
        }
        outcome.response = response_;
        if (contentInformationRequest_) outcome.contentType = contentInformationRequest_->contentType_;
        outcome.keySession = keySession_;
        completion = std::move(completion_);
    }
    if (completion) completion(outcome);
}

std::variant<Data, Error> LoadingRequest::streamingContentKeyRequestData(const Data& appCertificate,
                                                                         const Data& contentIdentifier,
                                                                         const Options& options) const {
    if (appCertificate.empty()) {
        return loaderError(loaderErrorInvalidCertificate, "The application certificate is not valid.");
    }
    bool persistent = false;
    if (auto option = options.find(streamingContentKeyRequestRequiresPersistentKey);
        option != options.end()) {
        if (const bool* value = std::any_cast<bool>(&option->second)) persistent = *value;
    }
    auto request = KeyExchange::makeRequest(appCertificate, contentIdentifier, persistent);
    if (auto* error = std::get_if<Error>(&request)) return *error;
    auto& made = std::get<KeyExchange::Request>(request);
    std::lock_guard lock(mutex_);
    keySession_ = std::move(made.session);
    return std::move(made.serverPlaybackContext);
}

std::variant<Data, Error> LoadingRequest::persistentContentKey(const Data& keyVendorResponse,
                                                               const Options& /*options*/) const {
    std::optional<KeyRequestSession> session;
    {
        std::lock_guard lock(mutex_);
        session = keySession_;
    }
    if (!session)
        return loaderError(loaderErrorInvalidKeyResponse, "No key request was made on this request.");
    if (keyVendorResponse.empty()) {
        return loaderError(loaderErrorInvalidKeyResponse, "The key vendor response is empty.");
    }
    auto key = KeyExchange::readAnswer(keyVendorResponse, *session);
    if (auto* error = std::get_if<Error>(&key)) return *error;
    return std::get<ContentKey>(key).seal();
}

} // namespace ovalto::platform
