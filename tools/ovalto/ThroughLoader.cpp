#include "ThroughLoader.h"

#include "PlayList/Presentation.h"
#include "PlayList/RewrittenUrl.h"
#include "Resources/OVAResourceLoader.h"
#include "ovalto/Ovalto.h"
#include "ovalto/OvaltoError.h"
#include "platform/AssetResourceLoader.h"
#include "platform/DispatchQueue.h"
#include "platform/LoadingRequest.h"
#include "platform/SystemLog.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <ostream>

namespace ovalto::tool {

namespace {

// Segment redirects asked for per representation, after its initialisation section.
constexpr int segmentsPerRepresentation = 3;

// Errors reach the application through the sink; here they are printed with each answer instead.
class QuietSink : public ErrorSink {
public:
    void notify(const platform::Error&) override {}
};

// The player's side of one request: hands it to the asset's loader and waits for the answer.
platform::LoadingOutcome request(platform::AssetResourceLoader& assetLoader, const platform::Url& url) {
    struct Answer {
        std::mutex mutex;
        std::condition_variable arrived;
        std::optional<platform::LoadingOutcome> outcome;
    };
    auto answer = std::make_shared<Answer>();
    auto loadingRequest = platform::LoadingRequest::create(platform::UrlRequest(url), {},
                                                           [answer](const platform::LoadingOutcome& outcome) {
                                                               std::lock_guard lock(answer->mutex);
                                                               answer->outcome = outcome;
                                                               answer->arrived.notify_all();
                                                           });
    assetLoader.load(loadingRequest);
    std::unique_lock lock(answer->mutex);
    // The player's own patience: the loader answers within four 30-second attempts.
    if (!answer->arrived.wait_for(lock, std::chrono::minutes(3),
                                  [&] { return answer->outcome.has_value(); })) {
        assetLoader.cancel(loadingRequest);
        answer->arrived.wait(lock, [&] { return answer->outcome.has_value(); });
    }
    return *answer->outcome;
}

std::string hex(int code) {
    char text[16];
    std::snprintf(text, sizeof(text), "0x%X", static_cast<unsigned>(code));
    return text;
}

void print(std::ostream& out, const platform::Url& url, const platform::LoadingOutcome& outcome) {
    out << "> " << url.absoluteString() << "\n";
    switch (outcome.kind) {
    case platform::LoadingOutcome::Kind::data:
        out << "< data, " << outcome.data.size() << " bytes\n" << outcome.data;
        if (!outcome.data.empty() && outcome.data.back() != '\n') out << "\n";
        break;
    case platform::LoadingOutcome::Kind::redirect:
        out << "< redirect " << (outcome.response ? outcome.response->statusCode : 0) << " "
            << (outcome.redirect ? outcome.redirect->url.absoluteString() : "(none)") << "\n";
        if (outcome.response) {
            for (const auto& [name, value] : outcome.response->headers.all())
                out << "  " << name << ": " << value << "\n";
        }
        break;
    case platform::LoadingOutcome::Kind::error: {
        const platform::Error error = outcome.error.value_or(platform::Error{});
        if (const auto typed = OvaltoError::from(error)) {
            // Small codes are HTTP statuses, the rest the library's own families.
            const std::string code = typed->code() < 0x1000
                                         ? std::to_string(typed->code())
                                         : hex(typed->code()) + " (" + std::to_string(typed->code()) + ")";
            out << "< error " << code << ": " << typed->message() << "\n";
        } else {
            out << "< error " << error.domain << " " << error.code << ": " << error.localizedDescription
                << "\n";
        }
        break;
    }
    case platform::LoadingOutcome::Kind::cancelled:
        out << "< no answer (given up)\n";
        break;
    }
    out << "\n";
}

} // namespace

int throughLoader(const std::string& url, bool verbose, std::ostream& out, std::ostream& err) {
    const auto contentUrl = platform::Url::parse(url);
    if (!contentUrl || !contentUrl->scheme()) {
        err << "ovalto rewrite: --through-loader needs an absolute URL, not '" << url << "'\n";
        return 2;
    }

    // The library's log goes to standard error only when asked for; it would bury the answers.
    const OVALogLevel savedLevel = Ovalto::logLevel.load();
    Ovalto::logLevel = verbose ? OVALogLevel::debug : OVALogLevel::silent;

    auto sink = std::make_shared<QuietSink>();
    auto loader = std::make_shared<OVAResourceLoader>(sink);
    loader->configurations.set(Configurations{{ConfigurationKey::contentUrl, *contentUrl}});
    auto assetLoader = platform::AssetResourceLoader::create();
    assetLoader->setDelegate(loader, platform::DispatchQueue::serial("ovalto.tool.resourceloader"));

    auto ask = [&](const std::string& text) {
        const auto requestUrl = *platform::Url::parse(text);
        const auto outcome = request(*assetLoader, requestUrl);
        print(out, requestUrl, outcome);
        return outcome;
    };

    const auto master = ask(RewrittenUrl::master);
    if (master.kind != platform::LoadingOutcome::Kind::data) {
        Ovalto::logLevel = savedLevel;
        err << "ovalto rewrite: the master playlist at " << url << " did not come through the loader\n";
        return 1;
    }

    const auto streams = loader->presentation->streams.get();
    for (std::size_t s = 0; s < streams.size(); ++s) {
        for (const auto& [key, representation] : streams[s]->representations.get()) {
            const long stream = static_cast<long>(s);
            // The media playlist's URI as the rewritten master names it, resolved as a player would.
            std::string media;
            RewrittenUrl::appendMediaPlayList(media, stream, key);
            ask(platform::Url::parse(media, *platform::Url::parse(RewrittenUrl::master))->absoluteString());
            // Only what the rewritten media playlist names, as a player would ask.
            if (representation->initialURL.get())
                ask(RewrittenUrl::segment(stream, key, RewrittenUrl::initialSection));
            const auto sequence = representation->sequence.get();
            const auto count = static_cast<long>(representation->fragments.get().size());
            for (long i = 0; sequence && i < std::min<long>(count, segmentsPerRepresentation); ++i) {
                std::int64_t number = 0;
                if (__builtin_add_overflow(*sequence, i, &number)) break;
                ask(RewrittenUrl::segment(stream, key, number));
            }
        }
    }
    Ovalto::logLevel = savedLevel;
    return 0;
}

} // namespace ovalto::tool
