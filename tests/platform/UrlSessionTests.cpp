#include "platform/Cookie.h"
#include "platform/UrlSession.h"
#include "support/LoopbackServer.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

using namespace ovalto::platform;
using ovalto::test::LoopbackServer;
using ovalto::test::SilentListener;
using namespace std::chrono_literals;

namespace {

// Only guards against hangs; nothing here measures time.
constexpr auto hangGuard = 30s;

struct Outcome {
    std::optional<Data> data;
    std::optional<UrlResponse> response;
    std::optional<Error> error;
    bool onDelegateQueue = false;
};

std::shared_future<Outcome> start(const std::shared_ptr<UrlSession>& session, UrlRequest request,
                                  std::shared_ptr<UrlSessionDataTask>* started = nullptr) {
    auto promise = std::make_shared<std::promise<Outcome>>();
    auto task = session->dataTask(std::move(request), [promise, queue = session->delegateQueue()](
                                                          auto data, auto response, auto error) {
        promise->set_value(
            Outcome{std::move(data), std::move(response), std::move(error), queue->isCurrent()});
    });
    task->resume();
    if (started) *started = task;
    return promise->get_future().share();
}

Outcome await(const std::shared_future<Outcome>& future) {
    if (future.wait_for(hangGuard) == std::future_status::ready) return future.get();
    ADD_FAILURE() << "no completion";
    return {};
}

Outcome perform(UrlRequest request, std::shared_ptr<UrlSession> session = UrlSession::create()) {
    return await(start(session, std::move(request)));
}

UrlRequest request(const std::string& url, double timeout = 60.0) {
    return UrlRequest(*Url::parse(url), CachePolicy::useProtocolCachePolicy, timeout);
}

LoopbackServer::Routes routes() {
    return [](httplib::Server& http) {
        using Request = const httplib::Request&;
        using Response = httplib::Response&;
        http.Get("/text", [](Request request, Response response) {
            response.set_header("X-Seen", request.get_header_value("X-Probe"));
            response.set_header("X-Multi", "a");
            response.set_header("X-Multi", "b");
            response.set_content("hello", "Text/Plain; charset=utf-8");
        });
        const auto echo = [](Request request, Response response) {
            response.set_content(request.method + ":" + request.body, "text/plain");
        };
        http.Post("/echo", echo);
        http.Put("/echo", echo);
        http.Get("/redirect", [](Request, Response response) {
            response.set_header("Set-Cookie", "hop=1; Path=/");
            response.set_redirect("/final?x=1", 302);
        });
        http.Get("/final", [](Request, Response response) {
            response.set_header("X-Final", "yes");
            response.set_content("final", "text/plain");
        });
        http.Get("/set-cookie", [](Request, Response response) {
            response.set_header("Set-Cookie", "a=1");
            response.set_header("Set-Cookie", "b=2; Path=/; Expires=Wed, 21 Oct 2037 07:28:00 GMT");
            response.set_content("", "text/plain");
        });
        http.Get("/cookies", [](Request request, Response response) {
            response.set_content(request.get_header_value("Cookie"), "text/plain");
        });
        http.Get("/partial", [](Request, Response response) {
            response.set_content_provider(100, "text/plain", [](size_t, size_t, httplib::DataSink& sink) {
                sink.write("0123456789", 10);
                return false; // drops the connection before the announced length
            });
        });
        // One byte every 100 ms: never idle, never done (until the client goes).
        http.Get("/drip", [](Request, Response response) {
            response.set_chunked_content_provider("text/plain", [](size_t offset, httplib::DataSink& sink) {
                if (offset >= 600) return false;
                std::this_thread::sleep_for(100ms);
                return sink.write("x", 1);
            });
        });
        http.Get(R"(/status/(\d+))", [](Request request, Response response) {
            response.status = std::stoi(request.matches[1]);
            if (response.status != 204) response.set_content("status", "text/plain");
        });
    };
}

// One server for the suite: stopping a server waits for idle keep-alive connections.
class UrlSessionTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { origin = std::make_unique<LoopbackServer>(routes()); }
    static void TearDownTestSuite() { origin.reset(); }
    void SetUp() override { CookieStorage::shared().removeAll(); }
    void TearDown() override { CookieStorage::shared().removeAll(); }

    static inline std::unique_ptr<LoopbackServer> origin;
    LoopbackServer& server = *origin;
};

TEST_F(UrlSessionTest, GetDeliversBodyStatusAndHeadersOnTheSessionQueueAndHeadNoBody) {
    const auto outcome = perform(request(server.url("/text")));
    ASSERT_FALSE(outcome.error) << outcome.error->localizedDescription;
    ASSERT_TRUE(outcome.response);
    EXPECT_TRUE(outcome.onDelegateQueue);
    EXPECT_EQ(outcome.data, "hello");
    EXPECT_TRUE(outcome.response->isHttp);
    EXPECT_EQ(outcome.response->statusCode, 200);
    EXPECT_EQ(outcome.response->url.absoluteString(), server.url("/text"));
    EXPECT_EQ(outcome.response->headers.value("x-multi"), "a, b");
    EXPECT_EQ(outcome.response->mimeType, "text/plain");
    EXPECT_EQ(outcome.response->expectedContentLength, 5);

    auto head = request(server.url("/text"));
    head.httpMethod = "HEAD";
    head.addValue("probe-1", "X-Probe");
    const auto probed = perform(head);
    ASSERT_TRUE(probed.response);
    EXPECT_EQ(probed.response->headers.value("X-Seen"), "probe-1");
    EXPECT_EQ(probed.response->mimeType, "text/plain");
    EXPECT_EQ(probed.response->expectedContentLength, 5);
    EXPECT_EQ(probed.data, ""); // present but empty, as for every successful request
}

TEST_F(UrlSessionTest, SendsBodiesWithTheirMethod) {
    for (const char* method : {"POST", "PUT"}) {
        auto send = request(server.url("/echo"));
        send.httpMethod = method;
        send.httpBody = std::string(100000, 'z') + "spc=AAAA%2B";
        send.setValue("application/octet-stream", "Content-Type");
        const auto outcome = perform(send);
        ASSERT_TRUE(outcome.response);
        EXPECT_EQ(outcome.response->statusCode, 200);
        EXPECT_EQ(outcome.data, std::string(method) + ":" + *send.httpBody);
    }
}

TEST_F(UrlSessionTest, FollowsRedirectsAndReportsTheLastResponse) {
    const auto outcome = perform(request(server.url("/redirect")));
    ASSERT_TRUE(outcome.response);
    EXPECT_EQ(outcome.response->statusCode, 200);
    EXPECT_EQ(outcome.response->url.absoluteString(), server.url("/final?x=1"));
    EXPECT_EQ(outcome.response->headers.value("X-Final"), "yes");
    EXPECT_FALSE(outcome.response->headers.value("Location"));
    EXPECT_EQ(outcome.data, "final");
    // The redirect's own cookie was kept too.
    EXPECT_EQ(CookieStorage::shared().headerValue(*Url::parse(server.url("/"))), "hop=1");
}

TEST_F(UrlSessionTest, StoresResponseCookiesAndSendsThemBack) {
    ASSERT_FALSE(perform(request(server.url("/set-cookie"))).error);
    const auto stored = CookieStorage::shared().cookies(*Url::parse(server.url("/")));
    ASSERT_EQ(stored.size(), 2u);
    EXPECT_TRUE(stored[1].expires);

    // One Cookie header, each cookie once: the request's own first, then the stored ones it lacks.
    const struct {
        const char* what;
        std::vector<std::string> written; // Cookie fields added to the request
        const char* sent;
    } cases[] = {
        {"stored only", {}, "a=1; b=2"},
        {"another cookie", {"mine=0"}, "mine=0; a=1; b=2"},
        {"the stored ones again", {"a=1; b=2;c"}, "a=1; b=2; c"},
        {"a blank before a name", {" b=2"}, "b=2; a=1"},
        {"the request's value wins", {"a=9"}, "a=9; b=2"},
        {"two fields join", {"x=1", "x=2", "y=3"}, "x=1; y=3; a=1; b=2"},
    };
    for (const auto& c : cases) {
        auto next = request(server.url("/cookies"));
        for (const auto& value : c.written)
            next.addValue(value, "Cookie");
        EXPECT_EQ(perform(next).data, c.sent) << c.what;
    }
}

TEST_F(UrlSessionTest, MapsTransportFailuresToUrlErrors) {
    int closedPort = 0;
    {
        SilentListener gone;
        closedPort = gone.port();
    }
    SilentListener silent;
    const struct {
        std::string url;
        double timeout;
        std::optional<double> deadline;
        std::int64_t code;
        const char* description;
    } cases[] = {
        {"http://127.0.0.1:" + std::to_string(closedPort) + "/x",
         60,
         {},
         urlErrorCannotConnectToHost,
         "Could not connect to the server."},
        {server.url("/partial"), 60, {}, urlErrorNetworkConnectionLost, "The network connection was lost."},
        {silent.baseUrl() + "/never", 1, {}, urlErrorTimedOut, "The request timed out."},
        {server.url("/drip"), 60, 1, urlErrorTimedOut, "The request timed out."},
        {"ftp://127.0.0.1/x", 60, {}, urlErrorUnsupportedURL, nullptr},
        {"file:///nonexistent/ovalto/file.m3u8", 60, {}, urlErrorFileDoesNotExist, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.url);
        auto sent = request(c.url, c.timeout);
        sent.deadlineInterval = c.deadline;
        const auto outcome = perform(sent);
        ASSERT_TRUE(outcome.error);
        EXPECT_FALSE(outcome.response);
        EXPECT_FALSE(outcome.data);
        EXPECT_EQ(outcome.error->domain, Error::urlDomain);
        EXPECT_EQ(outcome.error->code, c.code);
        if (c.description) {
            EXPECT_EQ(outcome.error->localizedDescription, c.description);
        }
    }
}

TEST_F(UrlSessionTest, ReadsFileUrlsFromDisk) {
    const auto path =
        std::filesystem::temp_directory_path() / ("ovalto url session " + std::to_string(::getpid()));
    std::ofstream(path, std::ios::binary) << std::string("#EXTM3U\n\0binary", 15);
    const auto outcome = perform(UrlRequest(Url::fileUrl(path.string())));
    std::filesystem::remove(path);
    ASSERT_TRUE(outcome.response);
    EXPECT_FALSE(outcome.response->isHttp);
    EXPECT_EQ(outcome.data, std::string("#EXTM3U\n\0binary", 15));
    EXPECT_EQ(outcome.response->expectedContentLength, 15);
}

TEST_F(UrlSessionTest, CancelCompletesOnceWithCancelled) {
    SilentListener silent;
    auto session = UrlSession::create();
    std::shared_ptr<UrlSessionDataTask> task;
    auto running = start(session, request(silent.baseUrl() + "/hang"), &task);
    task->cancel();
    task->cancel();
    const auto outcome = await(running);
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.error->code, urlErrorCancelled);

    // A task cancelled before it starts completes too, and resume() does nothing afterwards.
    std::promise<std::int64_t> code;
    auto suspended = session->dataTask(request(server.url("/text")), [&](auto, auto, auto error) {
        code.set_value(error ? error->code : 0);
    });
    suspended->cancel();
    suspended->resume();
    auto future = code.get_future();
    ASSERT_EQ(future.wait_for(hangGuard), std::future_status::ready);
    EXPECT_EQ(future.get(), urlErrorCancelled);
}

TEST_F(UrlSessionTest, InvalidationLetsRunningTasksFinishAndRefusesNewOnes) {
    auto session = UrlSession::create();
    auto running = start(session, request(server.url("/text")));
    session->finishTasksAndInvalidate();
    EXPECT_EQ(await(running).data, "hello");
    const auto refused = perform(request(server.url("/text")), session);
    ASSERT_TRUE(refused.error);
    EXPECT_EQ(refused.error->code, urlErrorCancelled);

    SilentListener silent;
    auto other = UrlSession::create();
    auto hanging = start(other, request(silent.baseUrl() + "/hang"));
    other->invalidateAndCancel();
    const auto cancelled = await(hanging);
    ASSERT_TRUE(cancelled.error);
    EXPECT_EQ(cancelled.error->code, urlErrorCancelled);
}

TEST_F(UrlSessionTest, SessionsShareOneConnection) {
    LoopbackServer fresh(routes());
    EXPECT_EQ(perform(request(fresh.url("/text"))).data, "hello");
    EXPECT_EQ(perform(request(fresh.url("/text"))).data, "hello");
    EXPECT_EQ(fresh.connectionCount(), 1u);
}

TEST_F(UrlSessionTest, ManyConcurrentTasksAllComplete) {
    std::vector<std::shared_future<Outcome>> running;
    std::vector<std::shared_ptr<UrlSession>> sessions;
    for (int i = 0; i < 24; ++i) {
        if (i % 4 == 0) sessions.push_back(UrlSession::create());
        running.push_back(start(sessions.back(), request(server.url(i % 2 ? "/text" : "/status/204"))));
    }
    for (std::size_t i = 0; i < running.size(); ++i) {
        const auto outcome = await(running[i]);
        ASSERT_TRUE(outcome.response) << outcome.error->localizedDescription;
        EXPECT_EQ(outcome.response->statusCode, i % 2 ? 200 : 204);
    }
}

} // namespace

namespace {

// What reaches the server is what the URL says, byte for byte: a CDN signs these.
TEST(UrlSessionAsWritten, SendsTheTargetAndHostAsWritten) {
    std::mutex mutex;
    std::string target, host;
    LoopbackServer echo([&](httplib::Server& server) {
        server.Get(".*", [&](const httplib::Request& request, httplib::Response& response) {
            std::lock_guard lock(mutex);
            target = request.target;
            host = request.get_header_value("Host");
            response.set_content("ok", "text/plain");
        });
    });
    const char* paths[] = {
        "/v/seg%2f1.ts?sig=a%2fb",
        "/v/seg%2F1.ts?sig=a%2Fb&exp=9",
        "/~user/%7Euser/a.ts?t=~",
        "/A/B.TS?Q=%41",
    };
    for (const char* path : paths) {
        const auto outcome = perform(request(echo.url(path)));
        ASSERT_FALSE(outcome.error) << path;
        std::lock_guard lock(mutex);
        EXPECT_EQ(target, path);
        EXPECT_EQ(outcome.response->url.absoluteString(), echo.url(path));
    }
    const std::string upper = "HTTP://LocalHost:" + std::to_string(echo.port()) + "/x.ts";
    const auto outcome = perform(request(upper));
    ASSERT_FALSE(outcome.error) << outcome.error->localizedDescription;
    std::lock_guard lock(mutex);
    EXPECT_EQ(host, "LocalHost:" + std::to_string(echo.port()));
}

} // namespace
