#pragma once

#include "PlayList/Container.h"
#include "PlayList/PlayList.h"
#include "Resources/Resource.h"
#include "platform/UrlRequest.h"
#include "platform/UrlSession.h"

#include <chrono>
#include <memory>
#include <optional>

namespace ovalto {

// Serves the player's playlist requests ("cplp"): works out the real playlist behind the
// rewritten URL, lets the listener see and change the request, downloads it (up to four
// attempts), parses it into the model and answers with the regenerated text. Bytes that the
// parser or generator refuses are passed through unchanged.
class PlayListResource : public Resource, public std::enable_shared_from_this<PlayListResource> {
public:
    // A MasterPlayList or MediaPlayList, chosen from the request path.
    std::unique_ptr<PlayList> playList;
    // What the playlist fills: the Presentation for the master, a Representation for a media one.
    std::shared_ptr<Container> container;

    // Completes on the URL session's callback queue, or synchronously for input failures.
    void load(const std::shared_ptr<platform::LoadingRequest>& loadingRequest,
              const std::shared_ptr<Presentation>& presentation, Completion completion) override;

    // Attempts left after the first one.
    static constexpr int retries = 3;
    // Seconds, when the listener cleared the timeout or set one that is not positive.
    static constexpr int defaultTimeout = 30;
    // The timeout is an idle timeout; all attempts together end after this many timeouts, so
    // that an origin dripping its answer cannot hold the player forever.
    static constexpr int deadlineFactor = 4;

private:
    // `retry`: attempts still allowed after this one; `error`: the previous attempt's failure.
    void loadInternal(int retry, std::optional<platform::Error> error, Completion completion);
    void didLoad(int retry, std::optional<platform::Data> data, std::optional<platform::UrlResponse> response,
                 std::optional<platform::Error> error, Completion completion);
    void answer(const platform::Data& data, const platform::UrlResponse& response);

    std::shared_ptr<platform::LoadingRequest> loadingRequest_;
    // Every attempt sends this same request.
    std::optional<platform::UrlRequest> request_;
    std::shared_ptr<platform::UrlSession> session_;
    std::chrono::steady_clock::time_point deadline_;
};

} // namespace ovalto
