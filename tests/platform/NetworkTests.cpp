// The network as the library sees it: URLs parsed and resolved as written, cookies, the URL
// session over real loopback servers, and how the internet is reached.
#include "platform/Cookie.h"
#include "platform/NetworkStatus.h"
#include "platform/Url.h"
#include "platform/UrlSession.h"
#include "support/LoopbackServer.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <latch>
#include <thread>

using namespace ovalto::platform;
using ovalto::test::LoopbackServer;
using ovalto::test::SilentListener;
using namespace std::chrono_literals;

namespace {

constexpr auto none = std::nullopt;

Url url(const std::string& text) {
    auto parsed = Url::parse(text);
    EXPECT_TRUE(parsed) << text;
    return parsed.value_or(*Url::parse("x:"));
}

// Every part a parse finds.
auto parts(const Url& u) {
    return std::tuple(u.scheme(), u.host(), u.port(), u.path(), u.query(), u.fragment(),
                      u.lastPathComponent());
}

TEST(UrlParse, TakesComponentsFromTheUriEncodesLocalPathsAndRejectsMalformedText) {
    for (const char* text : {"", "http://h/a b", " http://h/", "http://h/\t", "http://h/\x7f",
                             "http://h/caf\xc3\xa9", "http://h/<x>", "http://[::1/", "ht tp://h"})
        EXPECT_FALSE(Url::parse(text)) << text;
    // Scheme, host, port, path, query, fragment and last path component of what parses.
    for (const auto& [text, expected] :
         std::initializer_list<std::pair<const char*, decltype(parts(url("x:")))>>{
             {"http://h:81/a/b%20c.m3u8?x=1&y#frag",
              {"http", "h", 81, "/a/b c.m3u8", "x=1&y", "frag", "b c.m3u8"}},
             {"https://h", {"https", "h", none, "", none, none, ""}},
             {"https://h/", {"https", "h", none, "/", none, none, "/"}},
             {"http://h/dir/", {"http", "h", none, "/dir/", none, none, "dir"}},
             {"http://h/p?", {"http", "h", none, "/p", "", none, "p"}},
             {"http://[::1]:8080/v", {"http", "::1", 8080, "/v", none, none, "v"}},
             {"file:///tmp/x.ts", {"file", none, none, "/tmp/x.ts", none, none, "x.ts"}},
             {"../seg/1.ts", {none, none, none, "../seg/1.ts", none, none, "1.ts"}},
             {"/abs", {none, none, none, "/abs", none, none, "abs"}},
             {"skd://k1", {"skd", "k1", none, "", none, none, ""}},
             {"?only=query", {none, none, none, "", "only=query", none, ""}},
         })
        EXPECT_EQ(std::tuple(parts(url(text)), url(text).isFileUrl()),
                  std::tuple(expected, std::get<0>(expected) == "file"))
            << text;
    // Local paths are encoded.
    const Url file = Url::fileUrl("/tmp/a b#c.m3u8");
    EXPECT_EQ(std::tuple(file.isFileUrl(), file.absoluteString(), file.path(), file.lastPathComponent(),
                         file.fragment()),
              std::tuple(true, "file:///tmp/a%20b%23c.m3u8", "/tmp/a b#c.m3u8", "a b#c.m3u8", none));
    const Url relative = Url::fileUrl("rel.txt");
    EXPECT_EQ(std::tuple(relative.path().starts_with("/"), relative.lastPathComponent()),
              std::tuple(true, "rel.txt"));
}

TEST(UrlResolution, FollowsTheRfcAndParsingAndResolutionKeepEveryByte) {
    using Cases = std::initializer_list<std::pair<const char*, const char*>>;
    const Cases rfc = {{"g", "http://a/b/c/g"},      {"./g", "http://a/b/c/g"},
                       {"g/", "http://a/b/c/g/"},    {"/g", "http://a/g"},
                       {"//g", "http://g"},          {"?y", "http://a/b/c/d;p?y"},
                       {"g?y", "http://a/b/c/g?y"},  {"#s", "http://a/b/c/d;p?q#s"},
                       {"..", "http://a/b/"},        {"../../g", "http://a/g"},
                       {"../../../g", "http://a/g"}, {"https://o/z.ts", "https://o/z.ts"}};
    const Cases cdn = {{"seg%2f1.ts?sig=a%2fb", "HTTPS://CDN.Example.com/v%2fx/~a/seg%2f1.ts?sig=a%2fb"},
                       {"../%7Eb/s.ts", "HTTPS://CDN.Example.com/v%2fx/%7Eb/s.ts"},
                       {"/Top/s.ts?X=%2F", "HTTPS://CDN.Example.com/Top/s.ts?X=%2F"},
                       {"?sig=b%2f", "HTTPS://CDN.Example.com/v%2fx/~a/index.m3u8?sig=b%2f"},
                       {"//Other.COM/s.ts", "HTTPS://Other.COM/s.ts"}};
    const Cases ipv6 = {{"c", "http://[FE80::1]:8/a/c"}};
    for (const auto& [base, cases] : {std::pair("http://a/b/c/d;p?q", rfc),
                                      std::pair("HTTPS://CDN.Example.com/v%2fx/~a/index.m3u8?sig=a%2Fb", cdn),
                                      std::pair("http://[FE80::1]:8/a/b", ipv6)})
        for (const auto& [reference, expected] : cases)
            EXPECT_EQ(Url::parse(reference, url(base)).value_or(url("x:")).absoluteString(), expected)
                << base << " " << reference;
    EXPECT_FALSE(Url::parse("a b", url("http://a/b/c/d;p?q")));
    EXPECT_FALSE(Url::parse("g", url("relative/base")));
    // A CDN that signs a path or query compares the bytes it handed out: nothing of what was written
    // may change on the way, neither by a parse nor by the parts a resolution copies.
    for (const char* text :
         {"http://cdn.test/v/seg%2f1.ts?sig=a%2fb", "http://cdn.test/v/seg%2F1.ts?sig=a%2Fb&exp=1",
          "http://cdn.test/%7euser/~user/a.ts", "HTTP://CDN.Example.COM:8080/A/./b/../C.ts?Q=1#F",
          "http://cdn.test/a/../../b.ts", "http://[::1]:80/x", "http://[FE80::1]/x",
          "CPLP://local/master.m3u8"}) // a parse of the same text gives the same value
        EXPECT_EQ(std::tuple(url(text).absoluteString(), url(text) == url(text)), std::tuple(text, true));
    const Url signed_ = url("HTTP://CDN.Example.COM:8080/v/seg%2f1.ts?sig=a%2fb#t");
    EXPECT_EQ(std::tuple(signed_.scheme(), signed_.host(), signed_.query(), signed_.path(),
                         signed_.encodedLastPathComponent(), signed_.hasScheme("http"),
                         signed_.hasScheme("https")),
              std::tuple("HTTP", "CDN.Example.COM", "sig=a%2fb", "/v/seg/1.ts", "seg%2f1.ts", true, false));
}

TEST(UrlPathEditing, DeletesAndAppendsComponents) {
    // Base, component appended (none: the last one deleted), and the result.
    const struct {
        const char *base, *component, *expected;
    } cases[] = {
        {"http://h/a/b.m3u8?t=1#f", nullptr, "http://h/a/"},
        {"http://h/a/b/", nullptr, "http://h/a/"},
        {"http://h/a", nullptr, "http://h/"},
        {"http://h/", nullptr, "http://h/"},
        {"HTTP://H/A%2f/./b.m3u8?s=%2F", nullptr, "HTTP://H/A%2f/./"},
        {"http://h/p", "a.m3u8?x=1", "http://h/p/a.m3u8?x=1"},
        {"http://h/p/", "a.m3u8", "http://h/p/a.m3u8"},
        {"http://h/p/", "/a.m3u8", "http://h/p/a.m3u8"},
        {"http://h", "a", "http://h/a"},
        {"http://h/p?k=v", "a", "http://h/p/a?k=v"},
        {"http://h/p?k=v", "a?x", "http://h/p/a?x"},
        {"http://h:8/p?k=v#f", "a?x#y", "http://h:8/p/a?x#y"},
        {"http://h/p#f", "a", "http://h/p/a#f"},
        {"http://h/p", "a b", "http://h/p/a%20b"},
        {"http://h/p", "x/y", "http://h/p/x/y"},
        {"HTTP://H/P%2f", "s%2F1.ts?sig=a%2fb", "HTTP://H/P%2f/s%2F1.ts?sig=a%2fb"},
        {"http://h/p", "a%zz", "http://h/p"}, // not an escape: unchanged, as a text that does not parse
    };
    for (const auto& c : cases) {
        const Url made = c.component ? url(c.base).appendingPathComponent(c.component)
                                     : url(c.base).deletingLastPathComponent();
        // Built without a second parse: its parts must be what a parse of its text finds.
        EXPECT_EQ(std::tuple(made.absoluteString(), parts(made)),
                  std::tuple(c.expected, parts(url(c.expected))))
            << c.base;
    }
}

TEST(Cookie, MakeRejectsPropertiesThatMakeNoCookieAndMatchingChecksDomainPathAndSecurity) {
    const struct {
        const char *name, *value;
        bool valid;
    } cases[] = {
        // A "Cookie" header piece such as " b=2" keeps its blank: the name is taken as given.
        {"id", "v=1", true},  {"id", "", true},     {" b", "2", true},
        {"", "v", false},     {"a=b", "v", false},  {"a;b", "v", false},
        {"a\tb", "v", false}, {"id", "x;y", false}, {"id", "x\r\ny", false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(Cookie::make(c.name, c.value).has_value(), c.valid)
            << "'" << c.name << "'='" << c.value << "'";

    Cookie hostOnly = *Cookie::make("a", "1", "example.com", "/");
    Cookie domain = *Cookie::make("b", "2", ".example.com", "/video");
    Cookie secure = *Cookie::make("c", "3", "example.com");
    secure.secure = true;
    const struct {
        const Cookie& cookie;
        const char* url;
        bool matches;
    } matching[] = {
        {hostOnly, "http://example.com/x", true},       {hostOnly, "http://EXAMPLE.com", true},
        {hostOnly, "http://a.example.com/x", false},    {hostOnly, "http://badexample.com/x", false},
        {domain, "http://a.example.com/video", true},   {domain, "http://example.com/video/1.ts", true},
        {domain, "http://example.com/videos", false},   {domain, "http://example.com/", false},
        {domain, "http://badexample.com/video", false}, {secure, "https://example.com/", true},
        {secure, "http://example.com/", false},         {secure, "HTTPS://example.com/", true},
    };
    for (const auto& c : matching)
        EXPECT_EQ(c.cookie.matches(url(c.url)), c.matches) << c.cookie.name << " " << c.url;
}

// "name=value domain path", the flags set, and when it ends: "session", "expired", "soon" (within
// a day) or "until <seconds since the epoch>".
std::string describe(const Cookie& c) {
    const auto now = std::chrono::system_clock::now();
    return c.name + "=" + c.value + " " + c.domain + " " + c.path + (c.secure ? " secure" : "") +
           (c.httpOnly ? " httpOnly" : "") +
           (!c.expires          ? " session"
            : *c.expires <= now ? " expired"
            : *c.expires < now + 24h
                ? " soon"
                : " until " + std::to_string(std::chrono::system_clock::to_time_t(*c.expires)));
}

TEST(Cookie, SetCookieHeadersAreReadWithEveryAttributeAndForeignDomainsDropped) {
    const Url site = url("https://cdn.example.com/live/sub/index.m3u8");
    HeaderFields fields;
    EXPECT_TRUE(Cookie::cookies(fields, site).empty());
    for (const char* value :
         {"session=abc; Domain=.Example.com; Path=/live; Secure; HttpOnly; Expires=Wed, 21 Oct 2037 07:28:00 "
          "GMT",
          "a=1; Domain=other.com", "b=2; Domain=ample.com", "plain=\"quoted\"", "novalue",
          "gone=x; Max-Age=0", "=x", "short=y; Max-Age=60; Expires=Thu, 01 Jan 1970 00:00:00 GMT",
          "c=3; Domain=cdn.example.com"})
        fields.addValue(value, "Set-Cookie");
    std::vector<std::string> cookies;
    for (const auto& cookie : Cookie::cookies(fields, site))
        cookies.push_back(describe(cookie));
    // Nameless ones ("novalue", "=x") are no cookies, and do not spoil the cookie before them.
    EXPECT_EQ(cookies,
              (std::vector<std::string>{
                  "session=abc .example.com /live secure httpOnly until 2139722880",
                  // Without attributes: the host only, the directory of the request path, a session cookie.
                  "plain=quoted cdn.example.com /live/sub session",
                  "gone=x cdn.example.com /live/sub expired",
                  "short=y cdn.example.com /live/sub soon", // Max-Age wins over Expires
                  "c=3 .cdn.example.com /live/sub session",
              }));
}

class CookieStorageTest : public ::testing::Test {
protected:
    void SetUp() override { storage.removeAll(); }
    CookieStorage& storage = CookieStorage::shared();
};

TEST_F(CookieStorageTest, StoresReplacesAndExpires) {
    const Url site = url("http://example.com/a/b.m3u8");
    storage.setCookies({*Cookie::make("x", "1"), *Cookie::make("deep", "2", "", "/a")}, site);
    // An empty domain was stored as the URL's host, so other hosts do not see it.
    EXPECT_EQ(std::tuple(storage.headerValue(site), storage.headerValue(url("http://other.com/a/")),
                         storage.cookies(url("http://example.com/")).size()),
              std::tuple("deep=2; x=1", "", 1u));
    storage.setCookies({*Cookie::make("x", "new")}, site);
    EXPECT_EQ(storage.headerValue(site), "deep=2; x=new");
    Cookie expired = *Cookie::make("x", "", "example.com");
    expired.expires = std::chrono::system_clock::now() - 1s;
    storage.setCookies({expired}, site);
    EXPECT_EQ(storage.headerValue(site), "deep=2");
    storage.removeAll();
    EXPECT_TRUE(storage.cookies(site).empty());
}

TEST_F(CookieStorageTest, IsSafeFromSeveralThreads) {
    const Url site = url("http://example.com/");
    std::latch start(4);
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            start.arrive_and_wait(); // all start together, so that they meet in the storage
            for (int i = 0; i < 500; ++i) {
                storage.setCookies({*Cookie::make("c" + std::to_string(t), std::to_string(i))}, site);
                (void)storage.headerValue(site);
            }
        });
    threads.clear();
    EXPECT_EQ(storage.cookies(site).size(), 4u);
}

struct Outcome {
    std::optional<Data> data;
    std::optional<UrlResponse> response;
    std::optional<Error> error;
    bool onDelegateQueue = false;
};

// A task, resumed unless told otherwise, and its outcome to come.
std::pair<std::shared_ptr<UrlSessionDataTask>, std::shared_future<Outcome>>
start(const std::shared_ptr<UrlSession>& session, UrlRequest request, bool resume = true) {
    auto promise = std::make_shared<std::promise<Outcome>>();
    auto task = session->dataTask(std::move(request), [promise, queue = session->delegateQueue()](
                                                          auto data, auto response, auto error) {
        promise->set_value(
            Outcome{std::move(data), std::move(response), std::move(error), queue->isCurrent()});
    });
    if (resume) task->resume();
    return {task, promise->get_future().share()};
}

Outcome await(const std::shared_future<Outcome>& future) {
    if (future.wait_for(30s) == std::future_status::ready) return future.get(); // guards a hang only
    ADD_FAILURE() << "no completion";
    return {};
}

Outcome perform(UrlRequest request, std::shared_ptr<UrlSession> session = UrlSession::create()) {
    return await(start(session, std::move(request)).second);
}

// The error's code, or else the response's status.
std::int64_t code(const Outcome& outcome) {
    return outcome.error ? outcome.error->code : outcome.response ? outcome.response->statusCode : 0;
}

LoopbackServer::Routes routes() {
    return [](httplib::Server& http) {
        using Request = const httplib::Request&;
        using Response = httplib::Response&;
        http.Get("/text", [](Request, Response response) {
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
        // Anything else: the target and Host header as they arrived.
        http.Get(".*", [](Request request, Response response) {
            response.set_content(request.target + " " + request.get_header_value("Host"), "text/plain");
        });
    };
}

// One server for the suite: stopping a server waits for idle keep-alive connections.
class UrlSessionTest : public CookieStorageTest {
protected:
    static void SetUpTestSuite() { origin = std::make_unique<LoopbackServer>(routes()); }
    static void TearDownTestSuite() { origin.reset(); }

    static inline std::unique_ptr<LoopbackServer> origin;
    LoopbackServer& server = *origin;
};

// A server of its own counts the connections: sessions share one.
TEST_F(UrlSessionTest, GetDeliversBodyStatusAndHeadersOnTheSessionQueueOverASharedConnection) {
    LoopbackServer fresh(routes());
    const auto outcome = perform(url(fresh.url("/text")));
    ASSERT_TRUE(outcome.response) << outcome.error->localizedDescription;
    const auto& r = *outcome.response;
    EXPECT_EQ(std::tuple(code(outcome), outcome.onDelegateQueue, outcome.data, r.isHttp,
                         r.url.absoluteString(), r.headers.value("x-multi"), r.mimeType,
                         r.expectedContentLength),
              std::tuple(200, true, "hello", true, fresh.url("/text"), "a, b", "text/plain", 5));
    EXPECT_EQ(perform(url(fresh.url("/text"))).data, "hello");
    EXPECT_EQ(fresh.connectionCount(), 1u);
}

TEST_F(UrlSessionTest, SendsBodiesWithTheirMethod) {
    for (const char* method : {"POST", "PUT"}) {
        UrlRequest send(url(server.url("/echo")));
        send.httpMethod = method;
        send.httpBody = std::string(100000, 'z') + "spc=AAAA%2B";
        send.setValue("application/octet-stream", "Content-Type");
        const auto outcome = perform(send);
        EXPECT_EQ(std::tuple(code(outcome), outcome.data),
                  std::tuple(200, std::string(method) + ":" + *send.httpBody));
    }
}

TEST_F(UrlSessionTest, FollowsRedirectsAndReportsTheLastResponseAndKeepsTheRedirectsCookie) {
    const auto outcome = perform(url(server.url("/redirect")));
    ASSERT_TRUE(outcome.response);
    const auto& r = *outcome.response;
    EXPECT_EQ(std::tuple(r.statusCode, r.url.absoluteString(), r.headers.value("X-Final"),
                         r.headers.value("Location"), outcome.data,
                         storage.headerValue(url(server.url("/")))),
              std::tuple(200, server.url("/final?x=1"), "yes", none, "final", "hop=1"));
}

TEST_F(UrlSessionTest, StoresResponseCookiesAndSendsThemBack) {
    ASSERT_FALSE(perform(url(server.url("/set-cookie"))).error);
    const auto stored = storage.cookies(url(server.url("/")));
    ASSERT_EQ(stored.size(), 2u);
    EXPECT_TRUE(stored[1].expires);

    // One Cookie header, each cookie once: the request's own first, then the stored ones it lacks.
    const struct {
        std::vector<std::string> written; // Cookie fields added to the request
        const char* sent;
    } cases[] = {
        {{}, "a=1; b=2"},                              // stored only
        {{"mine=0"}, "mine=0; a=1; b=2"},              // another cookie
        {{"a=1; b=2;c"}, "a=1; b=2; c"},               // the stored ones again
        {{" b=2"}, "b=2; a=1"},                        // a blank before a name
        {{"a=9"}, "a=9; b=2"},                         // the request's value wins
        {{"x=1", "x=2", "y=3"}, "x=1; y=3; a=1; b=2"}, // two fields join
    };
    for (const auto& c : cases) {
        UrlRequest next(url(server.url("/cookies")));
        for (const auto& value : c.written)
            next.addValue(value, "Cookie");
        EXPECT_EQ(perform(next).data, c.sent);
    }
}

TEST_F(UrlSessionTest, MapsTransportFailuresToUrlErrors) {
    const std::string closed = SilentListener().baseUrl(); // nothing listens there any more
    SilentListener silent;
    // URL, idle timeout, deadline, code and description (unchecked when empty).
    for (const auto& [target, timeout, deadline, code, description] : std::initializer_list<
             std::tuple<std::string, double, std::optional<double>, std::int64_t, std::string>>{
             {closed + "/x", 60, none, urlErrorCannotConnectToHost, "Could not connect to the server."},
             {server.url("/partial"), 60, none, urlErrorNetworkConnectionLost,
              "The network connection was lost."},
             {silent.baseUrl() + "/never", 1, none, urlErrorTimedOut, "The request timed out."},
             {server.url("/drip"), 60, 1, urlErrorTimedOut, "The request timed out."},
             {"ftp://127.0.0.1/x", 60, none, urlErrorUnsupportedURL, ""},
             {"file:///nonexistent/ovalto/file.m3u8", 60, none, urlErrorFileDoesNotExist, ""},
         }) {
        UrlRequest sent(url(target), CachePolicy::useProtocolCachePolicy, timeout);
        sent.deadlineInterval = deadline;
        const auto outcome = perform(sent);
        ASSERT_TRUE(outcome.error) << target;
        EXPECT_EQ(std::tuple(outcome.response.has_value(), outcome.data.has_value(), outcome.error->domain,
                             outcome.error->code,
                             description.empty() ? "" : outcome.error->localizedDescription),
                  std::tuple(false, false, Error::urlDomain, code, description))
            << target;
    }
}

TEST_F(UrlSessionTest, ReadsFileUrlsFromDisk) {
    const auto path =
        std::filesystem::temp_directory_path() / ("ovalto url session " + std::to_string(::getpid()));
    const std::string content("#EXTM3U\n\0binary", 15);
    std::ofstream(path, std::ios::binary) << content;
    const auto outcome = perform(Url::fileUrl(path.string()));
    std::filesystem::remove(path);
    ASSERT_TRUE(outcome.response);
    EXPECT_EQ(std::tuple(outcome.response->isHttp, outcome.data, outcome.response->expectedContentLength),
              std::tuple(false, content, 15));
}

TEST_F(UrlSessionTest, CancelOrInvalidationCompletesOnceWithCancelledButFinishingLetsRunningTasksEnd) {
    SilentListener silent;
    auto session = UrlSession::create(), other = UrlSession::create();
    auto [task, running] = start(session, url(silent.baseUrl() + "/hang"));
    task->cancel();
    task->cancel();
    EXPECT_EQ(code(await(running)), urlErrorCancelled);
    // A task cancelled before it starts completes too, and resume() does nothing afterwards.
    auto [suspended, never] = start(session, url(server.url("/text")), false);
    suspended->cancel();
    suspended->resume();
    EXPECT_EQ(code(await(never)), urlErrorCancelled);

    auto finishing = start(session, url(server.url("/text"))).second;
    session->finishTasksAndInvalidate();
    EXPECT_EQ(await(finishing).data, "hello");
    EXPECT_EQ(code(perform(url(server.url("/text")), session)), urlErrorCancelled);
    auto hanging = start(other, url(silent.baseUrl() + "/hang")).second;
    other->invalidateAndCancel();
    EXPECT_EQ(code(await(hanging)), urlErrorCancelled);
}

TEST_F(UrlSessionTest, ManyConcurrentTasksAllComplete) {
    std::vector<std::shared_future<Outcome>> running;
    std::vector<std::shared_ptr<UrlSession>> sessions;
    for (int i = 0; i < 24; ++i) {
        if (i % 4 == 0) sessions.push_back(UrlSession::create());
        running.push_back(start(sessions.back(), url(server.url(i % 2 ? "/text" : "/status/204"))).second);
    }
    for (std::size_t i = 0; i < running.size(); ++i)
        EXPECT_EQ(code(await(running[i])), i % 2 ? 200 : 204);
}

// What reaches the server is what the URL says, byte for byte: a CDN signs these.
TEST_F(UrlSessionTest, SendsTheTargetAndHostAsWritten) {
    const auto port = std::to_string(server.port());
    for (const std::string path : {"/v/seg%2f1.ts?sig=a%2fb", "/v/seg%2F1.ts?sig=a%2Fb&exp=9",
                                   "/~user/%7Euser/a.ts?t=~", "/A/B.TS?Q=%41"}) {
        const auto outcome = perform(url(server.url(path)));
        ASSERT_TRUE(outcome.response) << path;
        EXPECT_EQ(std::tuple(outcome.data, outcome.response->url.absoluteString()),
                  std::tuple(path + " 127.0.0.1:" + port, server.url(path)));
    }
    EXPECT_EQ(perform(url("HTTP://LocalHost:" + port + "/x.ts")).data, "/x.ts LocalHost:" + port);
}

TEST(NetworkStatus, TheDefaultRouteDecidesHowTheInternetIsReached) {
    const auto route = [](std::string interface, const char* metric, const char* flags = "0003",
                          const char* destination = "00000000", const char* mask = "00000000") {
        return interface + "\t" + destination + "\t0102A8C0\t" + flags + "\t0\t0\t" + metric + "\t" + mask +
               "\t0\t0\t0\n";
    };
    // What, routes after the header line, reachable, over a modem, interface.
    for (const auto& [what, routes, reachable, wwan, interface] :
         std::initializer_list<std::tuple<const char*, std::string, bool, bool, std::string>>{
             {"no routes at all", "", false, false, ""},
             {"only a local network", route("eth0", "100", "0001", "0002A8C0", "00FFFFFF"), false, false, ""},
             {"Ethernet", route("eth0", "100"), true, false, "eth0"},
             {"a modem", route("wwan0", "700"), true, true, "wwan0"},
             {"modem behind Wi-Fi", route("wwp0s20u4", "700") + route("wlan0", "600"), true, false, "wlan0"},
             {"a route that is down", route("wwan0", "700", "0002"), false, false, ""},
             {"garbled lines", "eth0\tzz\n\n\t\nwwan0\t00000000\t0\t1\t0\t0\t1\t00000000\n", true, true,
              "wwan0"},
         }) {
        const auto status = NetworkStatus::fromRouteTable(
            "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n" + routes);
        EXPECT_EQ(std::tuple(status.reachable, status.isWWAN, status.interfaceName),
                  std::tuple(reachable, wwan, interface))
            << what;
    }
}

} // namespace
