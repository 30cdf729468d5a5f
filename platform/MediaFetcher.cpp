#include "platform/MediaFetcher.h"

#include "platform/AssetResourceLoader.h"
#include "platform/DispatchQueue.h"
#include "platform/LoadingRequest.h"
#include "platform/UrlSession.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace ovalto::platform {

struct MediaFetcher::Key {};
struct FetchTask::Key {};

namespace {

constexpr double requestTimeout = 60.0; // seconds, for direct HTTP requests

std::string cookieHeader(std::string_view written, const std::vector<Cookie>& cookies, const Url& url) {
    std::vector<Cookie> matching;
    std::copy_if(cookies.begin(), cookies.end(), std::back_inserter(matching),
                 [&](const Cookie& cookie) { return cookie.matches(url); });
    return Cookie::headerValue(written, matching);
}

} // namespace

Url FetchResult::baseUrl() const {
    if (response && (!viaDelegate || redirectedTo)) return response->url;
    return url;
}

std::string RequestTraceLine::text() const {
    char timing[64];
    std::snprintf(timing, sizeof timing, "%.3f s", seconds);
    std::string line = url + (viaDelegate ? " (delegate" : " (direct");
    if (redirectedTo) line += " -> " + *redirectedTo;
    line += ") " + (statusCode != 0 ? std::to_string(statusCode) : std::string("-")) + " " +
            std::to_string(bytes) + " bytes " + timing;
    if (error) line += " error: " + *error;
    return line;
}

FetchTask::FetchTask(const Key&, FetchRequest request, MediaFetcher::Completion completion)
    : request_(std::move(request))
    , completion_(std::move(completion)) {}

void FetchTask::cancel() {
    std::shared_ptr<AssetResourceLoader> loader;
    std::shared_ptr<LoadingRequest> loadingRequest;
    std::shared_ptr<DispatchWorkItem> timeout;
    std::shared_ptr<UrlSessionDataTask> dataTask;
    {
        std::lock_guard lock(mutex_);
        if (cancelled_) return;
        cancelled_ = true;
        completion_ = nullptr;
        loader = std::move(loader_);
        loadingRequest = std::move(loadingRequest_);
        timeout = std::move(timeout_);
        dataTask = std::move(dataTask_);
    }
    // Outside the lock: cancelling a loading request runs its completion on this thread.
    if (timeout) timeout->cancel();
    if (loader && loadingRequest) loader->cancel(loadingRequest);
    if (dataTask) dataTask->cancel();
}

bool FetchTask::isCancelled() const {
    std::lock_guard lock(mutex_);
    return cancelled_;
}

std::shared_ptr<MediaFetcher> MediaFetcher::create(std::shared_ptr<AssetResourceLoader> loader,
                                                   std::vector<Cookie> cookies) {
    return std::make_shared<MediaFetcher>(Key{}, std::move(loader), std::move(cookies));
}

MediaFetcher::MediaFetcher(const Key&, std::shared_ptr<AssetResourceLoader> loader,
                           std::vector<Cookie> cookies)
    : loader_(std::move(loader))
    , cookies_(std::move(cookies))
    , session_(UrlSession::create()) {}

MediaFetcher::~MediaFetcher() {
    cancelAll();
    session_->invalidateAndCancel();
}

void MediaFetcher::setTrace(Trace trace) {
    std::lock_guard lock(mutex_);
    trace_ = std::move(trace);
}

bool MediaFetcher::isCustomScheme(const Url& url) {
    return !url.hasScheme("http") && !url.hasScheme("https") && !url.hasScheme("file");
}

std::shared_ptr<FetchTask> MediaFetcher::fetch(FetchRequest request, Completion completion) {
    auto task = std::make_shared<FetchTask>(FetchTask::Key{}, std::move(request), std::move(completion));
    {
        std::lock_guard lock(mutex_);
        std::erase_if(tasks_, [](const auto& weak) { return weak.expired(); });
        tasks_.push_back(task);
    }
    if (isCustomScheme(task->request_.url)) {
        fetchThroughDelegate(task);
    } else {
        fetchDirectly(task, directRequest(task->request_.url, task->request_.byteRange));
    }
    return task;
}

void MediaFetcher::cancelAll() {
    std::vector<std::weak_ptr<FetchTask>> tasks;
    {
        std::lock_guard lock(mutex_);
        tasks.swap(tasks_);
    }
    for (const auto& weak : tasks) {
        if (auto task = weak.lock()) task->cancel();
    }
}

UrlRequest MediaFetcher::directRequest(const Url& url, const std::optional<HlsByteRange>& range) const {
    UrlRequest request(url, CachePolicy::reloadIgnoringLocalCacheData, requestTimeout);
    if (range) request.setValue(range->rangeHeader(), "Range");
    return request;
}

void MediaFetcher::fetchThroughDelegate(const std::shared_ptr<FetchTask>& task) {
    const FetchRequest& wanted = task->request_;
    LoadingRequest::Parts parts;
    parts.contentInformationRequest = wanted.contentInformation;
    if (wanted.byteRange) {
        parts.requestedOffset = wanted.byteRange->offset;
        parts.requestedLength = wanted.byteRange->length;
        parts.requestsAllDataToEndOfResource = false;
    }
    std::weak_ptr<MediaFetcher> weakSelf = weak_from_this();
    auto request = LoadingRequest::create(
        UrlRequest(wanted.url, CachePolicy::useProtocolCachePolicy, requestTimeout), parts,
        [weakSelf, task](const LoadingOutcome& outcome) {
            std::shared_ptr<DispatchWorkItem> timeout;
            {
                std::lock_guard lock(task->mutex_);
                timeout = std::move(task->timeout_);
                task->loadingRequest_.reset(); // ends the cycle request -> completion -> task
            }
            if (timeout) timeout->cancel();
            auto self = weakSelf.lock();
            if (!self || task->isCancelled()) return;

            FetchResult result(task->request_.url, true);
            result.response = outcome.response;
            result.contentType = outcome.contentType;
            result.keySession = outcome.keySession;
            if (outcome.response && outcome.response->isHttp)
                result.statusCode = outcome.response->statusCode;
            switch (outcome.kind) {
            case LoadingOutcome::Kind::data:
                result.data = outcome.data;
                break;
            case LoadingOutcome::Kind::redirect: {
                // The answer names where the bytes are; the player fetches them as asked, with
                // its own byte range and cookies.
                UrlRequest redirect = *outcome.redirect;
                if (task->request_.byteRange)
                    redirect.setValue(task->request_.byteRange->rangeHeader(), "Range");
                self->fetchDirectly(task, std::move(redirect));
                return;
            }
            case LoadingOutcome::Kind::error:
                result.error = outcome.error;
                break;
            case LoadingOutcome::Kind::cancelled:
                // Nobody but the timeout cancels a request whose task is still wanted.
                result.error = Error{Error::urlDomain, urlErrorTimedOut, "The request timed out.", {}};
                break;
            }
            self->deliver(task, std::move(result));
        });
    auto loader = loader_;
    std::weak_ptr<LoadingRequest> weakRequest = request;
    std::weak_ptr<AssetResourceLoader> weakLoader = loader;
    auto timeout = DispatchQueue::global()->asyncAfter(loader->loadingTimeout(), [weakLoader, weakRequest] {
        auto pending = weakRequest.lock();
        auto owner = weakLoader.lock();
        if (pending && owner) owner->cancel(pending);
    });
    {
        std::lock_guard lock(task->mutex_);
        if (task->cancelled_) {
            timeout->cancel();
            return;
        }
        task->loader_ = loader;
        task->loadingRequest_ = request;
        task->timeout_ = timeout;
    }
    loader->load(request);
}

void MediaFetcher::fetchDirectly(const std::shared_ptr<FetchTask>& task, UrlRequest request) {
    const bool viaDelegate = isCustomScheme(task->request_.url);
    std::optional<Url> redirectedTo;
    if (viaDelegate) redirectedTo = request.url;
    if (const std::string cookies =
            cookieHeader(request.headers.value("Cookie").value_or(""), cookies_, request.url);
        !cookies.empty()) {
        request.setValue(cookies, "Cookie");
    }
    std::weak_ptr<MediaFetcher> weakSelf = weak_from_this();
    const Url target = request.url;
    auto dataTask = session_->dataTask(
        std::move(request),
        [weakSelf, task, viaDelegate, redirectedTo,
         target](std::optional<Data> data, std::optional<UrlResponse> response, std::optional<Error> error) {
            auto self = weakSelf.lock();
            if (!self) return;
            FetchResult result(task->request_.url, viaDelegate, redirectedTo);
            result.serverAddress = (response ? response->url : target).host();
            if (response && response->isHttp) result.statusCode = response->statusCode;
            result.response = response;
            if (error) {
                result.error = error;
            } else if (!response) {
                result.error = Error{Error::urlDomain, urlErrorBadServerResponse, "No response.", {}};
            } else if (response->isHttp && (response->statusCode < 200 || response->statusCode > 299)) {
                result.error = Error{httpStatusErrorDomain,
                                     response->statusCode,
                                     "HTTP " + std::to_string(response->statusCode) + " for " +
                                         target.absoluteString() + ".",
                                     {}};
            } else {
                result.data = data.value_or(Data());
                const auto& range = task->request_.byteRange;
                // Files have no Range header to honour; take the sub-range here.
                if (!response->isHttp && range) {
                    const auto size = static_cast<std::int64_t>(result.data->size());
                    const auto begin = std::min(range->offset, size);
                    result.data =
                        result.data->substr(static_cast<std::size_t>(begin),
                                            static_cast<std::size_t>(std::min(range->length, size - begin)));
                }
            }
            self->deliver(task, std::move(result));
        });
    {
        std::lock_guard lock(task->mutex_);
        if (task->cancelled_) return;
        task->dataTask_ = dataTask;
    }
    dataTask->resume();
}

void MediaFetcher::deliver(const std::shared_ptr<FetchTask>& task, FetchResult result) {
    result.transferDuration = std::chrono::steady_clock::now() - task->started_;
    Completion completion;
    {
        std::lock_guard lock(task->mutex_);
        if (task->cancelled_) return;
        completion = std::move(task->completion_);
        task->completion_ = nullptr;
        task->dataTask_.reset();
    }
    if (!completion) return;
    Trace trace;
    {
        std::lock_guard lock(mutex_);
        trace = trace_;
    }
    if (trace) {
        RequestTraceLine line;
        line.url = result.url.absoluteString();
        line.viaDelegate = result.viaDelegate;
        if (result.redirectedTo) line.redirectedTo = result.redirectedTo->absoluteString();
        line.statusCode = result.statusCode;
        line.bytes = result.data ? result.data->size() : 0;
        line.seconds = std::chrono::duration<double>(result.transferDuration).count();
        if (result.error) line.error = result.error->localizedDescription;
        trace(line);
    }
    completion(std::move(result));
}

} // namespace ovalto::platform
