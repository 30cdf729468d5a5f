#include "platform/Player.h"

#include "platform/DispatchQueue.h"
#include "platform/PlaybackSession.h"
#include "platform/PlayerItem.h"

#include <algorithm>

namespace ovalto::platform {

struct Player::Key {};

std::shared_ptr<Player> Player::create(std::shared_ptr<PlayerItem> item, PlayerSettings settings) {
    auto player = std::make_shared<Player>(Key{}, settings);
    if (item) player->replaceCurrentItem(std::move(item));
    return player;
}

Player::Player(const Key&, PlayerSettings settings)
    : settings_(settings)
    , queue_(DispatchQueue::serial("platform.player")) {}

Player::~Player() {
    std::shared_ptr<PlaybackSession> session;
    {
        std::lock_guard lock(mutex_);
        session = std::move(session_);
    }
    stopSession(std::move(session));
}

void Player::stopSession(std::shared_ptr<PlaybackSession> session) {
    if (!session) return;
    // Once this returns, the item hears nothing more from this player, so its observers may go.
    // On the queue's own thread (the last reference dropped inside a callback) that is already so.
    if (queue_->isCurrent()) {
        session->stop();
    } else {
        queue_->sync([&session] { session->stop(); });
    }
}

void Player::replaceCurrentItem(std::shared_ptr<PlayerItem> item) {
    std::shared_ptr<PlaybackSession> previous;
    std::shared_ptr<PlaybackSession> session;
    double rate = 0;
    MediaFetcher::Trace trace;
    {
        std::lock_guard lock(mutex_);
        if (item == item_) return;
        previous = std::move(session_);
        item_ = item;
        if (item_) session_ = PlaybackSession::create(item_, queue_, settings_);
        session = session_;
        rate = rate_;
        trace = trace_;
    }
    // The player stops at the end of an item: its rate drops to 0, as the item's clock did.
    auto onEnd = [weak = weak_from_this()] {
        if (auto player = weak.lock()) {
            std::lock_guard lock(player->mutex_);
            player->rate_ = 0;
        }
    };
    stopSession(std::move(previous));
    if (session) queue_->async([session, rate, trace, onEnd] { session->start(rate, trace, onEnd); });
}

std::shared_ptr<PlayerItem> Player::currentItem() const {
    std::lock_guard lock(mutex_);
    return item_;
}

double Player::rate() const {
    std::lock_guard lock(mutex_);
    return rate_;
}

void Player::setRate(double rate) {
    std::shared_ptr<PlaybackSession> session;
    {
        std::lock_guard lock(mutex_);
        rate_ = std::max(0.0, rate);
        rate = rate_;
        session = session_;
    }
    if (session) queue_->async([session, rate] { session->setRate(rate); });
}

void Player::seek(const MediaTime& time, std::function<void(bool finished)> completion) {
    std::shared_ptr<PlaybackSession> session;
    {
        std::lock_guard lock(mutex_);
        session = session_;
    }
    const double seconds = time.isNumeric() ? time.seconds() : 0;
    queue_->async([session, seconds, completion = std::move(completion)]() mutable {
        if (session) {
            session->seek(seconds, std::move(completion));
        } else if (completion) {
            completion(false);
        }
    });
}

MediaTime Player::currentTime() const {
    auto item = currentItem();
    return item ? item->currentTime() : MediaTime::zero();
}

void Player::setRequestTrace(MediaFetcher::Trace trace) {
    std::shared_ptr<PlaybackSession> session;
    {
        std::lock_guard lock(mutex_);
        trace_ = trace;
        session = session_;
    }
    if (session) queue_->async([session, trace = std::move(trace)] { session->setTrace(trace); });
}

} // namespace ovalto::platform
