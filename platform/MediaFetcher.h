#pragma once

#include "platform/Cookie.h"
#include "platform/Error.h"
#include "platform/HlsReader.h"
#include "platform/KeyRequestSession.h"
#include "platform/UrlRequest.h"

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace ovalto::platform {

class AssetResourceLoader;
class DispatchWorkItem;
class LoadingRequest;
class UrlSession;
class UrlSessionDataTask;

// Errors for HTTP answers outside 200…299; the code is the status.
inline constexpr const char* httpStatusErrorDomain = "HTTPStatusErrorDomain";

struct FetchRequest {
    Url url;
    std::optional<HlsByteRange> byteRange;
    bool contentInformation = false; // key requests ask what kind of key they get
};

struct FetchResult {
    explicit FetchResult(Url url, bool viaDelegate = false, std::optional<Url> redirectedTo = {})
        : url(std::move(url))
        , viaDelegate(viaDelegate)
        , redirectedTo(std::move(redirectedTo)) {}

    Url url; // as requested
    bool viaDelegate = false;
    std::optional<Url> redirectedTo; // the delegate's redirect target
    std::optional<Data> data;
    std::optional<UrlResponse> response;
    std::optional<std::string> contentType;
    std::optional<KeyRequestSession> keySession; // of a key request made while answering
    std::optional<Error> error;
    int statusCode = 0; // HTTP status of the transfer that delivered the bytes, 0 for none
    std::chrono::steady_clock::duration transferDuration{};
    std::optional<std::string> serverAddress;

    // What relative URIs in the body are resolved against: where the bytes finally came from.
    Url baseUrl() const;
};

// One line of the request trace: what the player fetched, how, and how it went.
struct RequestTraceLine {
    std::string url;
    bool viaDelegate = false;
    std::optional<std::string> redirectedTo;
    int statusCode = 0;
    std::size_t bytes = 0;
    double seconds = 0;
    std::optional<std::string> error;

    std::string text() const;
};

class FetchTask;

// Loads a URL the way the player does: custom schemes through the asset's resource-loader
// delegate (a data answer is taken whole, a redirect answer is fetched over HTTP), http(s) and
// file URLs directly, with the asset's cookies. A delegate that never answers is given up after
// the loader's loading timeout.
class MediaFetcher : public std::enable_shared_from_this<MediaFetcher> {
public:
    using Completion = std::function<void(FetchResult)>;
    using Trace = std::function<void(const RequestTraceLine&)>;

    static std::shared_ptr<MediaFetcher> create(std::shared_ptr<AssetResourceLoader> loader,
                                                std::vector<Cookie> cookies);
    ~MediaFetcher();

    void setTrace(Trace trace);
    // `completion` runs once, on a thread of the fetcher's choosing, unless the task is cancelled
    // first.
    std::shared_ptr<FetchTask> fetch(FetchRequest request, Completion completion);
    void cancelAll();

    static bool isCustomScheme(const Url& url);

    struct Key;
    MediaFetcher(const Key&, std::shared_ptr<AssetResourceLoader> loader, std::vector<Cookie> cookies);

private:
    void fetchThroughDelegate(const std::shared_ptr<FetchTask>& task);
    void fetchDirectly(const std::shared_ptr<FetchTask>& task, UrlRequest request);
    UrlRequest directRequest(const Url& url, const std::optional<HlsByteRange>& range) const;
    void deliver(const std::shared_ptr<FetchTask>& task, FetchResult result);

    std::shared_ptr<AssetResourceLoader> loader_;
    std::vector<Cookie> cookies_;
    std::shared_ptr<UrlSession> session_;
    mutable std::mutex mutex_;
    Trace trace_;
    std::vector<std::weak_ptr<FetchTask>> tasks_;
};

// One fetch in flight.
class FetchTask {
public:
    void cancel();
    bool isCancelled() const;

    struct Key;
    FetchTask(const Key&, FetchRequest request, MediaFetcher::Completion completion);

private:
    friend class MediaFetcher;

    const FetchRequest request_;
    const std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
    mutable std::mutex mutex_;
    MediaFetcher::Completion completion_; // cleared once delivered or cancelled
    bool cancelled_ = false;
    std::shared_ptr<AssetResourceLoader> loader_;
    std::shared_ptr<LoadingRequest> loadingRequest_;
    std::shared_ptr<DispatchWorkItem> timeout_;
    std::shared_ptr<UrlSessionDataTask> dataTask_;
};

} // namespace ovalto::platform
