#include "platform/UrlSession.h"

#include "platform/CHandle.h"

#include "platform/Cookie.h"

#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

namespace ovalto::platform {

namespace {

using Clock = std::chrono::steady_clock;

// Not among the shared codes yet; the value network stacks use for a redirect loop.
constexpr std::int64_t urlErrorHttpTooManyRedirects = -1007;

Error urlError(std::int64_t code, std::string description, std::any payload = {}) {
    return Error{Error::urlDomain, code, std::move(description), std::move(payload)};
}

Error cancelledError() {
    return urlError(urlErrorCancelled, "cancelled");
}

// `detail` is libcurl's own message, kept for the codes that have no description of their own.
Error errorFor(CURLcode code, const char* detail) {
    switch (code) {
    case CURLE_OPERATION_TIMEDOUT:
        return urlError(urlErrorTimedOut, "The request timed out.", code);
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
        return urlError(urlErrorCannotFindHost, "A server with the specified hostname could not be found.",
                        code);
    case CURLE_COULDNT_CONNECT:
        return urlError(urlErrorCannotConnectToHost, "Could not connect to the server.", code);
    case CURLE_PARTIAL_FILE:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
        return urlError(urlErrorNetworkConnectionLost, "The network connection was lost.", code);
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_USE_SSL_FAILED:
        return urlError(urlErrorSecureConnectionFailed,
                        "An SSL error has occurred and a secure connection to the server cannot be made.",
                        code);
    case CURLE_UNSUPPORTED_PROTOCOL:
        return urlError(urlErrorUnsupportedURL, "unsupported URL", code);
    case CURLE_URL_MALFORMAT:
        return urlError(urlErrorBadURL, "bad URL", code);
    case CURLE_TOO_MANY_REDIRECTS:
        return urlError(urlErrorHttpTooManyRedirects, "too many HTTP redirects", code);
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_BAD_CONTENT_ENCODING:
        return urlError(urlErrorBadServerResponse, "The server returned a bad response.", code);
    default:
        return urlError(urlErrorUnknown, *detail != '\0' ? detail : curl_easy_strerror(code), code);
    }
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front())))
        text.remove_prefix(1);
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())))
        text.remove_suffix(1);
    return text;
}

std::optional<std::string> mimeTypeOf(const HeaderFields& headers) {
    auto contentType = headers.value("Content-Type");
    if (!contentType) return std::nullopt;
    std::string type(trimmed(std::string_view(*contentType).substr(0, contentType->find(';'))));
    for (char& c : type)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (type.empty()) return std::nullopt;
    return type;
}

} // namespace

struct UrlSessionDataTask::State {
    mutable std::mutex mutex;
    enum class Phase { suspended, running, completed } phase = Phase::suspended;
    // Kept here so that completions still arrive after the session itself is gone.
    std::shared_ptr<DispatchQueue> queue;
};

struct UrlSession::Impl {
    std::mutex mutex;
    bool invalidated = false;
    bool isShared = false;
    std::vector<std::weak_ptr<UrlSessionDataTask>> tasks; // started ones, for invalidateAndCancel
};

// One HTTP transfer in flight; owned by the transport from start to finish.
struct Transfer {
    std::shared_ptr<UrlSessionDataTask> task;
    CHandle<CURL, curl_easy_cleanup> easy;
    CHandle<curl_slist, curl_slist_free_all> headerList;
    Data requestBody; // curl reads the body from here while sending
    Data body;
    std::vector<std::pair<std::string, std::string>> responseHeaders; // of the latest response
    std::vector<std::string> setCookies;                              // of the latest response
    Clock::duration idleTimeout{};
    Clock::time_point lastActivity;
    std::optional<Clock::duration> deadlineInterval;
    Clock::time_point deadline = Clock::time_point::max(); // set when the transfer starts
    curl_off_t uploaded = 0;
    std::array<char, CURL_ERROR_SIZE> errorText{};
    int status = 0;            // of the latest status line
    bool finalInterim = false; // stopped after a 1xx taken as the final response

    static size_t onBody(char* data, size_t size, size_t count, void* self) {
        auto& transfer = *static_cast<Transfer*>(self);
        transfer.body.append(data, size * count);
        transfer.lastActivity = Clock::now();
        return size * count;
    }

    static size_t onHeader(char* data, size_t size, size_t count, void* self) {
        auto& transfer = *static_cast<Transfer*>(self);
        transfer.lastActivity = Clock::now();
        // Returning less than was given ends the transfer; see finalInterim.
        return transfer.headerLine(std::string_view(data, size * count)) ? size * count : 0;
    }

    static int onProgress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t uploadNow) {
        // Sending a body counts as activity for the idle timeout, just like receiving.
        auto& transfer = *static_cast<Transfer*>(self);
        if (uploadNow != transfer.uploaded) {
            transfer.uploaded = uploadNow;
            transfer.lastActivity = Clock::now();
        }
        return 0;
    }

    // False to stop the transfer.
    bool headerLine(std::string_view line) {
        if (line.starts_with("HTTP/")) {
            // A new response (after a redirect or an interim 1xx): only the last one is reported.
            responseHeaders.clear();
            setCookies.clear();
            status = 0;
            const auto space = line.find(' ');
            if (space != std::string_view::npos && line.size() >= space + 4)
                std::from_chars(line.data() + space + 1, line.data() + space + 4, status);
            return true;
        }
        const std::string_view content = trimmed(line);
        if (content.empty()) {
            storeCookies();
            // libcurl waits for another response after any 1xx. Codes without an interim meaning
            // (all but 100 to 103) end the exchange here as the final response, so that callers
            // see and reject them instead of waiting for a response that never comes.
            if (status >= 104 && status <= 199) {
                finalInterim = true;
                return false;
            }
            return true;
        }
        if ((line.front() == ' ' || line.front() == '\t') && !responseHeaders.empty()) {
            responseHeaders.back().second += " " + std::string(content);
            return true;
        }
        const auto colon = content.find(':');
        if (colon == std::string_view::npos) return true;
        std::string name(trimmed(content.substr(0, colon)));
        std::string value(trimmed(content.substr(colon + 1)));
        constexpr std::string_view setCookie = "set-cookie";
        if (std::equal(name.begin(), name.end(), setCookie.begin(), setCookie.end(),
                       [](char a, char b) { return std::tolower(static_cast<unsigned char>(a)) == b; }))
            setCookies.push_back(value);
        responseHeaders.emplace_back(std::move(name), std::move(value));
        return true;
    }

    // Every response's cookies are kept, redirects included, each for the URL that set it.
    void storeCookies() {
        if (setCookies.empty()) return;
        char* effective = nullptr;
        curl_easy_getinfo(easy.get(), CURLINFO_EFFECTIVE_URL, &effective);
        auto url = effective ? Url::parse(effective) : std::nullopt;
        if (url) {
            for (const auto& line : setCookies) {
                HeaderFields fields;
                fields.setValue(line, "Set-Cookie");
                CookieStorage::shared().setCookies(Cookie::cookies(fields, *url), *url);
            }
        }
        setCookies.clear();
    }

    UrlResponse response() const {
        char* effective = nullptr;
        curl_easy_getinfo(easy.get(), CURLINFO_EFFECTIVE_URL, &effective);
        long code = status;
        if (code == 0) curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &code);
        curl_off_t length = -1;
        curl_easy_getinfo(easy.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
        auto url = effective ? Url::parse(effective) : std::nullopt;
        HeaderFields headers;
        for (const auto& [name, value] : responseHeaders)
            headers.addValue(value, name);
        auto mimeType = mimeTypeOf(headers);
        return UrlResponse{url.value_or(task->originalRequest().url),
                           true,
                           static_cast<int>(status),
                           std::move(headers),
                           std::move(mimeType),
                           static_cast<std::int64_t>(length)};
    }
};

// The process-wide HTTP transport: one libcurl multi handle driven by one thread, and a share
// handle so that DNS answers, TLS sessions and connections outlive any one session.
class UrlTransport {
public:
    static UrlTransport& shared() {
        static UrlTransport transport;
        return transport;
    }

    void start(std::unique_ptr<Transfer> transfer) {
        {
            std::lock_guard lock(mutex_);
            incoming_.push_back(std::move(transfer));
        }
        curl_multi_wakeup(multi_.get());
    }

    void cancel(const UrlSessionDataTask* task) {
        {
            std::lock_guard lock(mutex_);
            cancelled_.push_back(task);
        }
        curl_multi_wakeup(multi_.get());
    }

    static std::unique_ptr<Transfer> makeTransfer(const std::shared_ptr<UrlSessionDataTask>& task);

private:
    UrlTransport() {
        curl_global_init(CURL_GLOBAL_DEFAULT);
        share_.reset(curl_share_init());
        curl_share_setopt(share_.get(), CURLSHOPT_LOCKFUNC, &UrlTransport::lock);
        curl_share_setopt(share_.get(), CURLSHOPT_UNLOCKFUNC, &UrlTransport::unlock);
        curl_share_setopt(share_.get(), CURLSHOPT_USERDATA, this);
        curl_share_setopt(share_.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
        curl_share_setopt(share_.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
        curl_share_setopt(share_.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_CONNECT);
        multi_.reset(curl_multi_init());
        // Parallel requests to one host queue for a few connections rather than open one each.
        curl_multi_setopt(multi_.get(), CURLMOPT_MAX_HOST_CONNECTIONS, 6L);
        thread_ = std::thread([this] { run(); });
    }

    ~UrlTransport() {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        curl_multi_wakeup(multi_.get());
        thread_.join();
        for (auto& [easy, transfer] : active_)
            curl_multi_remove_handle(multi_.get(), easy);
        active_.clear();
        incoming_.clear();
        multi_.reset();
        share_.reset();
        curl_global_cleanup();
    }

    static void lock(CURL*, curl_lock_data data, curl_lock_access, void* self) {
        static_cast<UrlTransport*>(self)->shareLocks_.at(static_cast<std::size_t>(data)).lock();
    }
    static void unlock(CURL*, curl_lock_data data, void* self) {
        static_cast<UrlTransport*>(self)->shareLocks_.at(static_cast<std::size_t>(data)).unlock();
    }

    void run() {
        for (;;) {
            std::vector<std::unique_ptr<Transfer>> incoming;
            std::vector<const UrlSessionDataTask*> cancelled;
            {
                std::lock_guard lock(mutex_);
                if (stopping_) return;
                incoming.swap(incoming_);
                cancelled.swap(cancelled_);
            }
            for (auto& transfer : incoming) {
                // A task cancelled before it reached this thread needs no transfer.
                if (transfer->task->isCompleted()) continue;
                curl_easy_setopt(transfer->easy.get(), CURLOPT_SHARE, share_.get());
                transfer->lastActivity = Clock::now();
                if (transfer->deadlineInterval)
                    transfer->deadline = transfer->lastActivity + *transfer->deadlineInterval;
                CURL* easy = transfer->easy.get();
                if (curl_multi_add_handle(multi_.get(), easy) == CURLM_OK) {
                    active_.emplace(easy, std::move(transfer));
                } else {
                    transfer->task->complete(std::nullopt, std::nullopt,
                                             urlError(urlErrorUnknown, "cannot start"));
                }
            }
            for (const auto* task : cancelled) {
                auto it = std::find_if(active_.begin(), active_.end(),
                                       [&](const auto& entry) { return entry.second->task.get() == task; });
                if (it != active_.end()) finish(it->first, std::nullopt);
            }

            int running = 0;
            curl_multi_perform(multi_.get(), &running);
            int left = 0;
            while (CURLMsg* message = curl_multi_info_read(multi_.get(), &left)) {
                if (message->msg == CURLMSG_DONE) finish(message->easy_handle, message->data.result);
            }

            // Idle timeouts (no byte in either direction for the request's timeout interval) and
            // overall deadlines: a server that drips its answer byte by byte is never idle.
            const auto now = Clock::now();
            auto wait = std::chrono::milliseconds(1000);
            std::vector<CURL*> idle;
            for (const auto& [easy, transfer] : active_) {
                const auto deadline =
                    std::min(transfer->lastActivity + transfer->idleTimeout, transfer->deadline);
                if (deadline <= now) {
                    idle.push_back(easy);
                } else {
                    wait = std::min(wait, std::chrono::ceil<std::chrono::milliseconds>(deadline - now));
                }
            }
            for (CURL* easy : idle)
                finish(easy, CURLE_OPERATION_TIMEDOUT);
            if (!idle.empty()) continue;
            curl_multi_poll(multi_.get(), nullptr, 0, static_cast<int>(wait.count()), nullptr);
        }
    }

    // `result` is empty for a cancelled transfer, whose task has already completed.
    void finish(CURL* easy, std::optional<CURLcode> result) {
        auto it = active_.find(easy);
        if (it == active_.end()) return;
        std::unique_ptr<Transfer> transfer = std::move(it->second);
        active_.erase(it);
        curl_multi_remove_handle(multi_.get(), easy);
        if (!result) return;
        if (*result == CURLE_OK || (*result == CURLE_WRITE_ERROR && transfer->finalInterim)) {
            transfer->storeCookies();
            auto response = transfer->response();
            transfer->task->complete(std::move(transfer->body), std::move(response), std::nullopt);
        } else {
            transfer->task->complete(std::nullopt, std::nullopt,
                                     errorFor(*result, transfer->errorText.data()));
        }
    }

    std::array<std::mutex, CURL_LOCK_DATA_LAST> shareLocks_;
    CHandle<CURLSH, curl_share_cleanup> share_;
    CHandle<CURLM, curl_multi_cleanup> multi_;
    std::mutex mutex_;
    bool stopping_ = false;
    std::vector<std::unique_ptr<Transfer>> incoming_;
    std::vector<const UrlSessionDataTask*> cancelled_;
    std::map<CURL*, std::unique_ptr<Transfer>> active_; // only touched by the transport thread
    std::thread thread_;
};

std::unique_ptr<Transfer> UrlTransport::makeTransfer(const std::shared_ptr<UrlSessionDataTask>& task) {
    const UrlRequest& request = task->originalRequest();
    auto transfer = std::make_unique<Transfer>();
    transfer->task = task;
    transfer->easy.reset(curl_easy_init());
    if (!transfer->easy) return nullptr;
    CURL* easy = transfer->easy.get();
    const double timeout = request.timeoutInterval > 0 ? request.timeoutInterval : 60.0;
    transfer->idleTimeout =
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(timeout));
    if (request.deadlineInterval)
        transfer->deadlineInterval = std::chrono::duration_cast<Clock::duration>(
            std::chrono::duration<double>(std::max(*request.deadlineInterval, 0.0)));

    const std::string& text = request.url.absoluteString();
    const std::string target = text.substr(0, text.find('#')); // fragments stay on this side
    curl_easy_setopt(easy, CURLOPT_URL, target.c_str());
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 16L);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_PRIVATE, transfer.get());
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer->errorText.data());
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Transfer::onBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, transfer.get());
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &Transfer::onHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, transfer.get());
    curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, &Transfer::onProgress);
    curl_easy_setopt(easy, CURLOPT_XFERINFODATA, transfer.get());

    if (request.httpMethod == "HEAD") {
        curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
    } else if (request.httpMethod == "GET" && !request.httpBody) {
        curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
    } else {
        if (request.httpMethod != "POST")
            curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.httpMethod.c_str());
        if (request.httpBody || request.httpMethod == "POST") {
            transfer->requestBody = request.httpBody.value_or(Data());
            curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                             static_cast<curl_off_t>(transfer->requestBody.size()));
            curl_easy_setopt(easy, CURLOPT_POSTFIELDS, transfer->requestBody.data());
        }
    }

    // Our own cookie storage, not libcurl's engine, so that the library can add cookies to it.
    // libcurl drops a custom Cookie header when a redirect leaves the host. The request's own
    // Cookie header and the stored cookies often carry the same cookies: each goes once.
    const std::string cookie =
        CookieStorage::shared().headerValue(request.url, request.headers.value("Cookie").value_or(""));

    bool hasAcceptEncoding = false;
    auto append = [&](const std::string& line) {
        if (curl_slist* grown = curl_slist_append(transfer->headerList.get(), line.c_str())) {
            (void)transfer->headerList.release(); // `grown` is the same list, or its first node
            transfer->headerList.reset(grown);
        }
    };
    for (const auto& [name, value] : request.headers.all()) {
        std::string lower = name;
        for (char& c : lower)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        if (lower == "cookie") continue;
        if (lower == "accept-encoding") hasAcceptEncoding = true;
        // "Name;" is how libcurl sends a header with an empty value.
        append(value.empty() ? name + ";" : name + ": " + value);
    }
    if (!cookie.empty()) append("Cookie: " + cookie);
    // Waiting for "100 Continue" only delays bodies; servers that want them read them anyway.
    if (!request.headers.value("Expect")) append("Expect:");
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, transfer->headerList.get());
    if (!hasAcceptEncoding) curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
    curl_easy_setopt(easy, CURLOPT_USERAGENT, "Ovalto");
    return transfer;
}

UrlSession::UrlSession(Key)
    : queue_(DispatchQueue::serial("ovalto.urlsession"))
    , impl_(std::make_shared<Impl>()) {}

UrlSession::~UrlSession() = default;

std::shared_ptr<UrlSession> UrlSession::create() {
    return std::make_shared<UrlSession>(Key());
}

std::shared_ptr<UrlSession> UrlSession::shared() {
    static const std::shared_ptr<UrlSession> session = [] {
        auto created = create();
        created->impl_->isShared = true;
        return created;
    }();
    return session;
}

std::shared_ptr<UrlSessionDataTask> UrlSession::dataTask(UrlRequest request, Completion completion) {
    return std::make_shared<UrlSessionDataTask>(weak_from_this(), std::move(request), std::move(completion));
}

void UrlSession::finishTasksAndInvalidate() {
    std::lock_guard lock(impl_->mutex);
    if (!impl_->isShared) impl_->invalidated = true;
}

void UrlSession::invalidateAndCancel() {
    std::vector<std::weak_ptr<UrlSessionDataTask>> tasks;
    {
        std::lock_guard lock(impl_->mutex);
        if (impl_->isShared) return;
        impl_->invalidated = true;
        tasks.swap(impl_->tasks);
    }
    for (const auto& weak : tasks) {
        if (auto task = weak.lock()) task->cancel();
    }
}

UrlSessionDataTask::UrlSessionDataTask(std::weak_ptr<UrlSession> session, UrlRequest request,
                                       UrlSession::Completion completion)
    : session_(std::move(session))
    , request_(std::move(request))
    , completion_(std::move(completion))
    , state_(std::make_shared<State>()) {
    auto owner = session_.lock();
    state_->queue = owner ? owner->delegateQueue() : DispatchQueue::serial("ovalto.urlsession.detached");
}

bool UrlSessionDataTask::isCompleted() const {
    std::lock_guard lock(state_->mutex);
    return state_->phase == State::Phase::completed;
}

bool UrlSessionDataTask::complete(std::optional<Data> data, std::optional<UrlResponse> response,
                                  std::optional<Error> error) {
    {
        std::lock_guard lock(state_->mutex);
        if (state_->phase == State::Phase::completed) return false;
        state_->phase = State::Phase::completed;
    }
    state_->queue->async([self = shared_from_this(), data = std::move(data), response = std::move(response),
                          error = std::move(error)]() mutable {
        auto completion = std::move(self->completion_);
        self->completion_ = nullptr; // what the completion captures may refer back to the task
        if (completion) completion(std::move(data), std::move(response), std::move(error));
    });
    return true;
}

void UrlSessionDataTask::resume() {
    {
        std::lock_guard lock(state_->mutex);
        if (state_->phase != State::Phase::suspended) return;
        state_->phase = State::Phase::running;
    }
    if (auto session = session_.lock()) {
        std::unique_lock lock(session->impl_->mutex);
        if (session->impl_->invalidated) {
            lock.unlock();
            complete(std::nullopt, std::nullopt, cancelledError());
            return;
        }
        auto& tasks = session->impl_->tasks;
        std::erase_if(tasks, [](const auto& weak) { return weak.expired(); });
        tasks.push_back(weak_from_this());
    }

    if (request_.url.hasScheme("file")) {
        state_->queue->async([self = shared_from_this()] { self->readFile(); });
    } else if (request_.url.hasScheme("http") || request_.url.hasScheme("https")) {
        // The transport first: it initialises libcurl before any handle is made.
        auto& transport = UrlTransport::shared();
        auto transfer = UrlTransport::makeTransfer(shared_from_this());
        if (transfer) {
            transport.start(std::move(transfer));
        } else {
            complete(std::nullopt, std::nullopt, urlError(urlErrorUnknown, "cannot create a transfer"));
        }
    } else {
        complete(std::nullopt, std::nullopt, urlError(urlErrorUnsupportedURL, "unsupported URL"));
    }
}

void UrlSessionDataTask::cancel() {
    bool wasRunning = false;
    {
        std::lock_guard lock(state_->mutex);
        wasRunning = state_->phase == State::Phase::running;
    }
    if (complete(std::nullopt, std::nullopt, cancelledError()) && wasRunning)
        UrlTransport::shared().cancel(this);
}

void UrlSessionDataTask::readFile() {
    if (isCompleted()) return;
    const std::filesystem::path path = request_.url.path();
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error)) {
        complete(
            std::nullopt, std::nullopt,
            urlError(urlErrorFileDoesNotExist, "The file “" + request_.url.lastPathComponent() +
                                                   "” couldn’t be opened because there is no such file."));
        return;
    }
    std::ifstream file(path, std::ios::binary);
    std::ostringstream contents;
    contents << file.rdbuf();
    if (!file) {
        complete(std::nullopt, std::nullopt, urlError(urlErrorUnknown, "The file could not be read."));
        return;
    }
    Data data = std::move(contents).str();
    UrlResponse response{request_.url, false, 0, {}, std::nullopt, static_cast<std::int64_t>(data.size())};
    complete(std::move(data), std::move(response), std::nullopt);
}

} // namespace ovalto::platform
