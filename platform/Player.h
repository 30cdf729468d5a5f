#pragma once

#include "platform/MediaFetcher.h"
#include "platform/MediaTime.h"

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>

namespace ovalto::platform {

class DispatchQueue;
class PlaybackSession;
class PlayerItem;

// How the player buffers and retries; the defaults suit real streams, tests shorten them.
struct PlayerSettings {
    double minimumBufferDuration = 2.0;  // media seconds ahead before playback starts or resumes
    double forwardBufferDuration = 30.0; // media seconds kept ahead, unless the item says otherwise
    // A failed download is tried again after retryDelay, doubling up to maximumRetryDelay, for as
    // long as media is buffered and for retryWindow once the buffer is empty.
    std::chrono::milliseconds retryDelay{500};
    std::chrono::milliseconds maximumRetryDelay{4000};
    std::chrono::milliseconds retryWindow{10000};
    std::chrono::milliseconds tickInterval{20}; // how often the clock is checked against the buffer
};

// A headless player: it downloads the item's playlists and segments, keeps a buffer and a
// playback clock (a segment counts as its #EXTINF of media once downloaded; nothing is decoded)
// and reports on the item what happened. Its work runs on a serial queue of its own; item
// observers and notifications are delivered there.
class Player : public std::enable_shared_from_this<Player> {
public:
    static std::shared_ptr<Player> create(std::shared_ptr<PlayerItem> item = {},
                                          PlayerSettings settings = {});
    // Stops playing: when it returns, the item gets no more observations or notifications. It
    // waits for the player's thread, so it must not run where an item observer waits for.
    ~Player();
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

    // The previous item is stopped before this returns, as at destruction.
    void replaceCurrentItem(std::shared_ptr<PlayerItem> item);
    std::shared_ptr<PlayerItem> currentItem() const;

    void play() { setRate(1.0); }
    void pause() { setRate(0.0); }
    // Media seconds per second while media is buffered; 0 pauses. Becomes 0 at the end.
    double rate() const;
    void setRate(double rate);
    // Moves the clock to `time` (kept within the presentation), posts time-jumped and plays on
    // from there; `completion` gets true once playback can go on, false when overtaken by
    // another seek or a failure.
    void seek(const MediaTime& time, std::function<void(bool finished)> completion = {});
    MediaTime currentTime() const;

    // Receives a line per request the player makes (its item's asset included from now on).
    void setRequestTrace(MediaFetcher::Trace trace);

    const std::shared_ptr<DispatchQueue>& queue() const { return queue_; }

    struct Key;
    Player(const Key&, PlayerSettings settings);

private:
    void stopSession(std::shared_ptr<PlaybackSession> session);

    const PlayerSettings settings_;
    const std::shared_ptr<DispatchQueue> queue_;
    mutable std::mutex mutex_;
    std::shared_ptr<PlayerItem> item_;
    std::shared_ptr<PlaybackSession> session_;
    double rate_ = 0;
    MediaFetcher::Trace trace_;
};

} // namespace ovalto::platform
