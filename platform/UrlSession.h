#pragma once

#include "platform/DispatchQueue.h"
#include "platform/Error.h"
#include "platform/UrlRequest.h"

#include <functional>
#include <memory>
#include <optional>

namespace ovalto::platform {

class UrlSessionDataTask;

// A URL session over libcurl. Sessions are cheap: all of them share one transport (a libcurl
// multi handle and a share handle), so connections, DNS answers and TLS sessions are reused
// across sessions. Completions run on the session's own serial callback queue.
// http(s) requests follow redirects (the response carries the final URL) and always verify TLS;
// file URLs are read from disk and give a non-HTTP response. Stored cookies that match a request
// are sent, and cookies that a response sets are stored in the shared cookie storage.
class UrlSession : public std::enable_shared_from_this<UrlSession> {
public:
    using Completion =
        std::function<void(std::optional<Data>, std::optional<UrlResponse>, std::optional<Error>)>;

    static std::shared_ptr<UrlSession> create();
    static std::shared_ptr<UrlSession> shared();
    ~UrlSession();

    // The task starts only at resume().
    std::shared_ptr<UrlSessionDataTask> dataTask(UrlRequest request, Completion completion);
    // Lets running tasks finish; new tasks fail with urlErrorCancelled.
    void finishTasksAndInvalidate();
    void invalidateAndCancel();
    const std::shared_ptr<DispatchQueue>& delegateQueue() const { return queue_; }

    struct Impl;

private:
    // Sessions live in shared_ptrs (tasks refer back to them); only create() and shared() make one.
    struct Key {
        explicit Key() = default;
    };

public:
    explicit UrlSession(Key);

private:
    std::shared_ptr<DispatchQueue> queue_;
    std::shared_ptr<Impl> impl_;
    friend class UrlSessionDataTask;
};

class UrlSessionDataTask : public std::enable_shared_from_this<UrlSessionDataTask> {
public:
    void resume();
    void cancel(); // completes with urlErrorCancelled if still running
    const UrlRequest& originalRequest() const { return request_; }

    UrlSessionDataTask(std::weak_ptr<UrlSession> session, UrlRequest request,
                       UrlSession::Completion completion);

    struct State;

private:
    // Hands the outcome to the completion on the callback queue; only the first call counts.
    bool complete(std::optional<Data> data, std::optional<UrlResponse> response, std::optional<Error> error);
    bool isCompleted() const;
    void readFile();

    std::weak_ptr<UrlSession> session_;
    UrlRequest request_;
    UrlSession::Completion completion_;
    std::shared_ptr<State> state_;
    friend struct UrlSession::Impl;
    friend class UrlTransport;
};

} // namespace ovalto::platform
