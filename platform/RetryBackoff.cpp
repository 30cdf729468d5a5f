#include "platform/RetryBackoff.h"

#include "platform/MediaFetcher.h"
#include "platform/PlayerItem.h"

#include <algorithm>

namespace ovalto::platform {

RetryBackoff::RetryBackoff(std::chrono::milliseconds first, std::chrono::milliseconds maximum,
                           std::chrono::milliseconds starvedWindow, std::uint32_t seed)
    : first_(std::max(first, std::chrono::milliseconds(1)))
    , maximum_(std::max(maximum, first_))
    , starvedWindow_(starvedWindow)
    , random_(seed) {}

bool RetryBackoff::isTransient(const Error& error) {
    if (error.domain == httpStatusErrorDomain) {
        const auto status = error.code;
        return status < 400 || status >= 500 || status == 408 || status == 429;
    }
    if (error.domain == playerErrorDomain) return false;
    if (error.domain == Error::urlDomain) {
        switch (error.code) {
        case urlErrorBadURL:
        case urlErrorUnsupportedURL:
        case urlErrorFileDoesNotExist:
            return false;
        default:
            return true;
        }
    }
    // A resource loader's own failure: it may have been a passing network fault at the origin.
    return true;
}

std::optional<RetryBackoff::Clock::duration>
RetryBackoff::next(int failures, bool buffered, std::optional<Clock::time_point>& starvedSince,
                   Clock::time_point now) {
    if (buffered) {
        starvedSince.reset();
    } else if (!starvedSince) {
        starvedSince = now;
    }
    if (starvedSince && now - *starvedSince >= starvedWindow_) return std::nullopt;
    std::chrono::duration<double, std::milli> wait = first_;
    for (int i = 1; i < failures && wait < maximum_; ++i)
        wait *= 2;
    wait = std::min<std::chrono::duration<double, std::milli>>(wait, maximum_);
    std::uniform_real_distribution<double> jitter(0.8, 1.2);
    return std::chrono::duration_cast<Clock::duration>(wait * jitter(random_));
}

} // namespace ovalto::platform
