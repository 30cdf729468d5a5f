#include "platform/PlaybackSession.h"

#include "platform/Asset.h"
#include "platform/AssetResourceLoader.h"
#include "platform/DispatchQueue.h"
#include "platform/SegmentCipher.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

namespace ovalto::platform {

struct PlaybackSession::Key {};

namespace {

constexpr double epsilon = 1e-3;         // seconds; below this two times are the same
constexpr double switchUpFactor = 1.5;   // headroom a variant needs before it is chosen
constexpr double switchDownFactor = 1.2; // below this multiple of the current bandwidth, step down
constexpr double liveEdgeDistance = 3;   // target durations between the live edge and the start
constexpr double throughputWeight = 0.3; // of a new sample in the smoothed throughput

enum PlayerErrorCode : std::int64_t {
    playerErrorNotPlayable = 1,
    playerErrorBadPlaylist = 2,
    playerErrorLiveStalled = 3,
    playerErrorUndecryptable = 4, // a protected segment without a usable key, or not media once decrypted
};
constexpr double stallTargetDurations = 3; // of an unchanged live playlist before it counts as stalled
constexpr std::string_view protectedKeyScheme = "skd";

Error playerError(PlayerErrorCode code, std::string description) {
    return Error{playerErrorDomain, code, std::move(description), {}};
}

MediaTime seconds(double value) {
    return MediaTime::makeWithSeconds(value, 1000);
}

} // namespace

std::shared_ptr<PlaybackSession> PlaybackSession::create(std::shared_ptr<PlayerItem> item,
                                                         std::shared_ptr<DispatchQueue> queue,
                                                         PlayerSettings settings) {
    return std::make_shared<PlaybackSession>(Key{}, std::move(item), std::move(queue), settings);
}

PlaybackSession::PlaybackSession(const Key&, std::shared_ptr<PlayerItem> item,
                                 std::shared_ptr<DispatchQueue> queue, PlayerSettings settings)
    : item_(std::move(item))
    , queue_(std::move(queue))
    , settings_(settings)
    , backoff_(settings.retryDelay, settings.maximumRetryDelay, settings.retryWindow,
               std::random_device{}()) {}

// Hops a fetch completion onto the queue, for as long as the session lives.
template <class Work> MediaFetcher::Completion PlaybackSession::whenFetched(Work work) {
    return [weak = weak_from_this(), queue = queue_, work](FetchResult result) {
        queue->async([weak, work, result = std::move(result)] {
            if (auto self = weak.lock()) work(*self, result);
        });
    };
}

template <class Work>
std::shared_ptr<DispatchWorkItem> PlaybackSession::after(std::chrono::steady_clock::duration delay,
                                                         Work work) {
    return queue_->asyncAfter(delay, [weak = weak_from_this(), work] {
        if (auto self = weak.lock()) work(*self);
    });
}

// MARK: - Opening

void PlaybackSession::start(double rate, MediaFetcher::Trace trace, std::function<void()> onEnd) {
    rate_ = std::max(0.0, rate);
    onEnd_ = std::move(onEnd);
    const auto& asset = item_->asset();
    if (!asset) {
        failed_ = true;
        item_->announceStatus(PlayerItem::Status::failed,
                              playerError(playerErrorNotPlayable, "The item has no asset to play."));
        return;
    }
    fetcher_ = MediaFetcher::create(asset->resourceLoader(),
                                    asset->options().httpCookies.value_or(std::vector<Cookie>{}));
    setTrace(std::move(trace));
    item_->setSelectionHandler([weak = weak_from_this(), queue = queue_](MediaCharacteristic characteristic) {
        queue->async([weak, characteristic] {
            if (auto self = weak.lock()) self->selectionChanged(characteristic);
        });
    });
    asset->loadValuesAsynchronously({Asset::playableKey}, [weak = weak_from_this(), queue = queue_] {
        queue->async([weak] {
            if (auto self = weak.lock()) self->assetLoaded();
        });
    });
    scheduleTick();
}

void PlaybackSession::setTrace(MediaFetcher::Trace trace) {
    if (fetcher_) fetcher_->setTrace(trace);
    if (item_->asset()) item_->asset()->setRequestTrace(std::move(trace));
}

void PlaybackSession::assetLoaded() {
    if (stopped_ || failed_) return;
    const auto& asset = item_->asset();
    const auto playable = asset->statusOfValue(Asset::playableKey);
    std::optional<Error> error = playable.error;
    if (!error && !asset->isPlayable()) {
        error = playerError(playerErrorNotPlayable,
                            "The presentation at " + asset->url().absoluteString() + " cannot be played.");
    }
    if (error) {
        // Nothing was playing yet: the item just fails.
        failed_ = true;
        fetcher_->cancelAll();
        item_->announceStatus(PlayerItem::Status::failed, error);
        finishSeeks(false);
        return;
    }
    opened_ = true;
    master_ = asset->masterPlaylist();
    if (master_) {
        openVariant(initialVariant());
    } else if (asset->isHls()) {
        beginAccessLogEvent(0, asset->url());
        setTrackUrl(Role::main, asset->url(), std::nullopt);
    } else {
        loadPlainResource();
    }
}

std::size_t PlaybackSession::initialVariant() const {
    const auto& variants = master_->variants;
    const double peak = item_->preferredPeakBitRate();
    if (peak <= 0 || static_cast<double>(variants.front().bandwidth) <= peak) return 0;
    std::optional<std::size_t> best;
    std::size_t lowest = 0;
    for (std::size_t i = 0; i < variants.size(); ++i) {
        if (variants[i].bandwidth < variants[lowest].bandwidth) lowest = i;
        if (static_cast<double>(variants[i].bandwidth) <= peak &&
            (!best || variants[i].bandwidth > variants[*best].bandwidth)) {
            best = i;
        }
    }
    return best.value_or(lowest);
}

void PlaybackSession::openVariant(std::size_t index) {
    variant_ = index;
    samplesSinceSwitch_ = 0;
    const HlsVariant variant = master_->variants[index];
    beginAccessLogEvent(static_cast<double>(variant.bandwidth), variant.uri);
    setTrackUrl(Role::main,
                master_->mainPlaylistUrl(variant, item_->selectedName(MediaCharacteristic::visual)),
                std::nullopt);
    const auto companion = [&](Role role, const std::optional<std::string>& group, const char* type,
                               MediaCharacteristic characteristic) {
        const HlsRendition* rendition =
            group ? master_->rendition(type, *group, item_->selectedName(characteristic)) : nullptr;
        if (rendition && rendition->uri) {
            setTrackUrl(role, *rendition->uri, std::nullopt);
        } else {
            removeTrack(role);
        }
    };
    companion(Role::audio, variant.audio, "AUDIO", MediaCharacteristic::audible);
    companion(Role::subtitles, variant.subtitles, "SUBTITLES", MediaCharacteristic::legible);
}

void PlaybackSession::loadPlainResource() {
    const Url url = item_->asset()->url();
    beginAccessLogEvent(0, url);
    Track& track = tracks_[Role::main];
    track.url = url;
    track.segmentTask =
        fetcher_->fetch({url, {}, false}, whenFetched([](PlaybackSession& self, FetchResult result) {
                            self.plainResourceLoaded(std::move(result));
                        }));
}

void PlaybackSession::plainResourceLoaded(FetchResult result) {
    if (stopped_ || failed_) return;
    Track& track = tracks_[Role::main];
    track.segmentTask.reset();
    if (result.error) {
        logError(result);
        return fail(*result.error);
    }
    recordMediaRequest(result);
    // Nothing is decoded, so a plain resource has no length: it is over once it is here.
    track.positioned = true;
    track.complete = true;
    duration_ = 0;
    item_->setDuration(seconds(0));
    update();
}

void PlaybackSession::setTrackUrl(Role role, const Url& url, std::optional<double> flushTo) {
    Track& track = tracks_[role];
    track.role = role;
    if (track.url && *track.url == url) return;
    cancelDownloads(track, true);
    track.url = url;
    track.playlist.reset();
    track.starts.clear();
    track.complete = false;
    track.playlistFailures = {};
    track.segmentFailures = {};
    track.stalled = false;
    if (flushTo && track.positioned) track.bufferedEnd = std::min(track.bufferedEnd, *flushTo);
    // Companions are placed on the main playlist's timeline, so they wait for it.
    const auto main = tracks_.find(Role::main);
    if (role == Role::main || (main != tracks_.end() && main->second.positioned)) loadPlaylist(role);
}

void PlaybackSession::removeTrack(Role role) {
    auto found = tracks_.find(role);
    if (found == tracks_.end()) return;
    cancelDownloads(found->second, true);
    tracks_.erase(found);
}

void PlaybackSession::cancelDownloads(Track& track, bool playlistToo) {
    ++track.segmentGeneration;
    if (track.segmentTask) track.segmentTask->cancel();
    track.segmentTask.reset();
    if (track.retryTimer) track.retryTimer->cancel();
    track.retryTimer.reset();
    if (!playlistToo) return;
    ++track.playlistGeneration;
    if (track.playlistTask) track.playlistTask->cancel();
    track.playlistTask.reset();
    if (track.reloadTimer) track.reloadTimer->cancel();
    track.reloadTimer.reset();
}

// MARK: - Playlists

void PlaybackSession::loadPlaylist(Role role) {
    Track& track = tracks_.at(role);
    if (!track.url || track.playlistTask) return;
    const auto generation = track.playlistGeneration;
    if (role == Role::main && !usedAssetPlaylist_) {
        // The asset read this playlist to learn whether it plays; reading it again straight
        // away would only put a needless request before the first reload.
        usedAssetPlaylist_ = true;
        auto known = item_->asset()->firstMediaPlaylist();
        if (known && known->first == *track.url) {
            queue_->async([weak = weak_from_this(), generation, playlist = std::move(known->second)] {
                auto self = weak.lock();
                if (!self || self->stopped_ || self->failed_) return;
                auto found = self->tracks_.find(Role::main);
                if (found == self->tracks_.end() || found->second.playlistGeneration != generation) return;
                self->acceptPlaylist(found->second, playlist);
            });
            return;
        }
    }
    track.playlistTask = fetcher_->fetch(
        {*track.url, {}, false}, whenFetched([role, generation](PlaybackSession& self, FetchResult r) {
            self.playlistLoaded(role, generation, std::move(r));
        }));
}

void PlaybackSession::playlistLoaded(Role role, std::uint64_t generation, FetchResult result) {
    if (stopped_ || failed_) return;
    auto found = tracks_.find(role);
    if (found == tracks_.end() || found->second.playlistGeneration != generation) return;
    Track& track = found->second;
    track.playlistTask.reset();
    if (result.error) {
        const auto wait = retryOrFail(track, track.playlistFailures, result);
        if (!wait) return;
        track.reloadTimer = after(*wait, [role, generation](PlaybackSession& self) {
            auto again = self.tracks_.find(role);
            if (again != self.tracks_.end() && again->second.playlistGeneration == generation) {
                again->second.reloadTimer.reset();
                self.loadPlaylist(role);
            }
        });
        return;
    }
    auto parsed = HlsReader::read(result.data.value_or(Data()), result.baseUrl());
    auto* media = parsed ? std::get_if<HlsMediaPlaylist>(&*parsed) : nullptr;
    if (!media) {
        result.error = playerError(playerErrorBadPlaylist,
                                   "The playlist at " + result.url.absoluteString() + " cannot be read.");
        logError(result);
        return fail(*result.error);
    }
    track.playlistFailures = {};
    acceptPlaylist(track, std::move(*media));
}

void PlaybackSession::acceptPlaylist(Track& track, HlsMediaPlaylist playlist) {
    const Role role = track.role;
    const bool changed = merge(track, std::move(playlist));
    const bool first = !track.positioned;
    if (first) position(track);

    if (item_->asset()->resourceLoader()->preloadsEligibleContentKeys()) {
        for (const auto& segment : track.playlist->segments) {
            if (segment.key && segment.key->uri && MediaFetcher::isCustomScheme(*segment.key->uri)) {
                requestKey(*segment.key->uri);
            }
        }
    }
    if (track.playlist->isLive()) {
        watchForStall(track, changed || first);
        scheduleReload(role, changed);
        if (role == Role::main) item_->setDuration(MediaTime::indefiniteTime());
    } else if (role == Role::main) {
        duration_ = track.knownEnd;
        item_->setDuration(seconds(track.knownEnd));
    }
    if (role == Role::main && first) {
        for (auto& [other, companion] : tracks_) {
            if (other != Role::main && companion.url && !companion.playlist) loadPlaylist(other);
        }
    }
    pump();
    update();
}

bool PlaybackSession::merge(Track& track, HlsMediaPlaylist playlist) {
    const auto& segments = playlist.segments;
    // Segments already seen keep their place on the timeline; the rest follow from them.
    std::optional<double> anchor;
    double before = 0;
    for (const auto& segment : segments) {
        if (auto known = track.history.find(segment.sequence); known != track.history.end()) {
            anchor = known->second - before;
            break;
        }
        before += segment.duration;
    }
    if (!anchor) {
        const auto main = tracks_.find(Role::main);
        if (!playlist.isLive()) {
            anchor = 0;
        } else if (!track.history.empty()) {
            anchor = track.knownEnd; // the window moved past everything seen so far
        } else if (track.role != Role::main && main != tracks_.end() && main->second.positioned) {
            anchor = main->second.knownEnd - playlist.duration(); // live companions end together
        } else {
            anchor = 0;
        }
    }
    const bool changed =
        !track.playlist || track.playlist->segments.size() != segments.size() ||
        (!segments.empty() && track.playlist->segments.back().sequence != segments.back().sequence);
    track.starts.clear();
    double time = *anchor;
    for (const auto& segment : segments) {
        track.starts.push_back(time);
        track.history[segment.sequence] = time;
        time += segment.duration;
    }
    if (!segments.empty()) {
        track.knownEnd = time;
        // Enough history to recognise an old window, not the whole of a long live stream.
        track.history.erase(track.history.begin(),
                            track.history.lower_bound(segments.front().sequence - 1000));
    }
    track.playlist = std::move(playlist);
    track.complete =
        track.positioned && !track.playlist->isLive() && track.bufferedEnd >= track.knownEnd - epsilon;
    return changed;
}

void PlaybackSession::position(Track& track) {
    double start = now();
    if (track.role == Role::main) {
        start = track.starts.empty() ? 0 : track.starts.front();
        if (startAt_) {
            start = std::clamp(*startAt_, start, std::max(start, track.knownEnd));
        } else if (track.playlist->isLive()) {
            // Far enough from the edge that reloads keep up with playback.
            const double edge = track.knownEnd - liveEdgeDistance * track.playlist->targetDuration;
            for (double segmentStart : track.starts) {
                if (segmentStart <= edge + epsilon) start = segmentStart;
            }
        }
        startAt_.reset();
        rangeStart_ = start;
        setClock(start, start);
    }
    track.bufferedEnd = start;
    track.positioned = true;
    track.complete = !track.playlist->isLive() && track.bufferedEnd >= track.knownEnd - epsilon;
}

void PlaybackSession::scheduleReload(Role role, bool changed) {
    Track& track = tracks_.at(role);
    if (track.reloadTimer) track.reloadTimer->cancel();
    double target = track.playlist->targetDuration;
    if (target <= 0)
        target = track.playlist->segments.empty() ? 1.0 : track.playlist->segments.back().duration;
    // An unchanged playlist is asked again sooner, as its next segment is overdue.
    const double delay = std::max(changed ? target : target / 2, 0.1);
    const auto generation = track.playlistGeneration;
    track.reloadTimer = after(
        std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(delay)),
        [role, generation](PlaybackSession& self) {
            auto found = self.tracks_.find(role);
            if (self.stopped_ || self.failed_ || found == self.tracks_.end() ||
                found->second.playlistGeneration != generation) {
                return;
            }
            found->second.reloadTimer.reset();
            self.loadPlaylist(role);
        });
}

// MARK: - Segments and keys

void PlaybackSession::pump() {
    if (stopped_ || failed_ || ended_) return;
    for (auto& entry : tracks_)
        pumpTrack(entry.second);
}

void PlaybackSession::pumpTrack(Track& track) {
    if (!track.positioned || !track.playlist || track.segmentTask || track.retryTimer) return;
    if (track.bufferedEnd - now() >= forwardTarget()) return;
    const auto index = segmentCovering(track, track.bufferedEnd);
    if (!index) {
        track.complete = !track.playlist->isLive();
        return; // a live track waits for its next reload
    }
    const HlsSegment& segment = track.playlist->segments[*index];
    const double start = track.starts[*index];
    if (start > track.bufferedEnd + epsilon) track.bufferedEnd = start; // the live window moved on
    if (segment.map) {
        std::string initKey = segment.map->uri.absoluteString();
        if (segment.map->byteRange) initKey += "@" + segment.map->byteRange->rangeHeader();
        if (!track.initSections.contains(initKey)) {
            fetchMedia(track, {segment.map->uri, segment.map->byteRange, false}, initKey, start, start);
            return;
        }
    }
    track.decryption.reset();
    if (segment.key && segment.key->uri) {
        auto key = keys_.find(segment.key->uri->absoluteString());
        if (key == keys_.end() || !key->second) {
            requestKey(*segment.key->uri);
            return; // the key's arrival pumps again
        }
        // Whole segments under an "skd" key are this platform's protection; sample-level
        // encryption (SAMPLE-AES) is left to a decoder, which a headless player does not have.
        if (segment.key->uri->scheme() == protectedKeyScheme && segment.key->method == "AES-128") {
            auto decryption = decryptionFor(segment);
            if (auto* error = std::get_if<Error>(&decryption)) {
                FetchResult result(segment.uri);
                result.error = *error;
                logError(result);
                return fail(*error);
            }
            track.decryption = std::get<std::pair<ContentKey, Data>>(std::move(decryption));
        }
    }
    fetchMedia(track, {segment.uri, segment.byteRange, false}, std::nullopt, start, start + segment.duration);
}

std::optional<std::size_t> PlaybackSession::segmentCovering(const Track& track, double time) const {
    const auto& segments = track.playlist->segments;
    for (std::size_t i = 0; i < segments.size(); ++i) {
        if (time < track.starts[i] + segments[i].duration - epsilon) return i;
    }
    return std::nullopt;
}

void PlaybackSession::fetchMedia(Track& track, FetchRequest request, std::optional<std::string> initKey,
                                 double start, double end) {
    const Role role = track.role;
    const auto generation = track.segmentGeneration;
    track.segmentTask = fetcher_->fetch(
        std::move(request),
        whenFetched([role, generation, initKey, start, end](PlaybackSession& self, FetchResult r) {
            self.mediaLoaded(role, generation, initKey, start, end, std::move(r));
        }));
}

void PlaybackSession::mediaLoaded(Role role, std::uint64_t generation, std::optional<std::string> initKey,
                                  double /*start*/, double end, FetchResult result) {
    if (stopped_ || failed_) return;
    auto found = tracks_.find(role);
    if (found == tracks_.end() || found->second.segmentGeneration != generation) return;
    Track& track = found->second;
    track.segmentTask.reset();
    if (result.error) {
        const auto wait = retryOrFail(track, track.segmentFailures, result);
        if (!wait) return;
        track.retryTimer = after(*wait, [role, generation](PlaybackSession& self) {
            auto again = self.tracks_.find(role);
            if (again == self.tracks_.end() || again->second.segmentGeneration != generation) return;
            again->second.retryTimer.reset();
            self.pump();
        });
        return;
    }
    if (!initKey && !decrypt(track, result)) return;
    track.segmentFailures = {};
    if (initKey) {
        track.initSections.insert(*initKey);
    } else {
        track.bufferedEnd = std::max(track.bufferedEnd, end);
        if (track.playlist) {
            track.complete = !track.playlist->isLive() && track.bufferedEnd >= track.knownEnd - epsilon;
        }
    }
    recordMediaRequest(result);
    if (role == Role::main && !initKey) considerSwitch(result);
    pump();
    update();
}

void PlaybackSession::recordMediaRequest(const FetchResult& result) {
    const auto bytes = static_cast<std::int64_t>(result.data ? result.data->size() : 0);
    const double transfer = std::chrono::duration<double>(result.transferDuration).count();
    item_->updateAccessLogEvent([&](AccessLogEvent& event) {
        ++event.numberOfMediaRequests;
        event.numberOfBytesTransferred += bytes;
        event.transferDuration += transfer;
        if (event.transferDuration > 0) {
            event.observedBitrate =
                static_cast<double>(event.numberOfBytesTransferred) * 8 / event.transferDuration;
        }
        if (result.serverAddress) event.serverAddress = result.serverAddress;
    });
}

void PlaybackSession::requestKey(const Url& uri) {
    const std::string key = uri.absoluteString();
    if (keys_.contains(key)) return; // once per key
    keys_[key] = false;
    fetcher_->fetch({uri, {}, true}, whenFetched([key](PlaybackSession& self, FetchResult result) {
                        self.keyLoaded(key, std::move(result));
                    }));
}

void PlaybackSession::keyLoaded(const std::string& key, FetchResult result) {
    if (stopped_ || failed_) return;
    if (result.error) {
        logError(result);
        return fail(*result.error);
    }
    if (result.url.scheme() == protectedKeyScheme) {
        auto contentKey = ContentKey::fromKeyAnswer(result.data.value_or(Data()), result.contentType,
                                                    result.keySession, result.url.host().value_or(""));
        if (auto* error = std::get_if<Error>(&contentKey)) {
            result.error = *error;
            logError(result);
            return fail(*error);
        }
        contentKeys_.insert_or_assign(key, std::get<ContentKey>(std::move(contentKey)));
    }
    keys_[key] = true;
    pump();
    update();
}

std::variant<std::pair<ContentKey, Data>, Error>
PlaybackSession::decryptionFor(const HlsSegment& segment) const {
    const std::string uri = segment.key->uri->absoluteString();
    auto found = contentKeys_.find(uri);
    if (found == contentKeys_.end())
        return playerError(playerErrorUndecryptable, "No content key was obtained from " + uri + ".");
    if (found->second.isExpired())
        return playerError(playerErrorUndecryptable, "The content key from " + uri + " has expired.");
    Data iv = found->second.iv;
    if (segment.key->iv) {
        auto given = SegmentCipher::ivFromAttribute(*segment.key->iv);
        if (!given)
            return playerError(playerErrorUndecryptable, "The IV of the key " + uri + " is not valid.");
        iv = std::move(*given);
    }
    return std::pair{found->second, std::move(iv)};
}

bool PlaybackSession::decrypt(Track& track, FetchResult& result) {
    auto decryption = std::exchange(track.decryption, std::nullopt);
    if (!decryption) return true;
    const auto& [contentKey, iv] = *decryption;
    auto clear = SegmentCipher::decrypt(result.data.value_or(Data()), contentKey.key, iv);
    if (clear && SegmentCipher::looksLikeMedia(*clear)) {
        result.data = std::move(*clear);
        return true;
    }
    // Garbage must never reach the decoder: a wrong or damaged key ends playback.
    result.error = playerError(playerErrorUndecryptable, "The segment " + result.url.absoluteString() +
                                                             " cannot be decrypted with the key for " +
                                                             contentKey.assetId + ".");
    logError(result);
    fail(*result.error);
    return false;
}

void PlaybackSession::considerSwitch(const FetchResult& result) {
    if (!master_ || master_->variants.size() < 2 || !result.data) return;
    const double transfer = std::max(std::chrono::duration<double>(result.transferDuration).count(), 1e-4);
    const double sample = static_cast<double>(result.data->size()) * 8 / transfer;
    throughput_ =
        throughput_ == 0 ? sample : (1 - throughputWeight) * throughput_ + throughputWeight * sample;
    if (++samplesSinceSwitch_ < 2) return;

    const auto& variants = master_->variants;
    const double peak = item_->preferredPeakBitRate();
    const auto bandwidth = [&](std::size_t i) { return static_cast<double>(variants[i].bandwidth); };
    std::optional<std::size_t> best;
    std::size_t lowest = 0;
    for (std::size_t i = 0; i < variants.size(); ++i) {
        if (bandwidth(i) < bandwidth(lowest)) lowest = i;
        if (peak > 0 && bandwidth(i) > peak) continue;
        if (bandwidth(i) * switchUpFactor > throughput_) continue;
        if (!best || bandwidth(i) > bandwidth(*best)) best = i;
    }
    const std::size_t chosen = best.value_or(lowest);
    const double current = bandwidth(variant_);
    const bool up = bandwidth(chosen) > current;
    const bool down = bandwidth(chosen) < current &&
                      (throughput_ < current * switchDownFactor || (peak > 0 && current > peak));
    if ((up || down) && chosen != variant_) openVariant(chosen);
}

// MARK: - Buffer and clock

double PlaybackSession::now() const {
    return item_->clockSeconds();
}

double PlaybackSession::effectiveRate() const {
    return ready_ && !waiting_ && !ended_ && !failed_ && !stopped_ ? rate_ : 0;
}

void PlaybackSession::setClock(double anchor, double limit) {
    limit_ = limit;
    item_->setClock({anchor, std::chrono::steady_clock::now(), effectiveRate(), limit});
}

double PlaybackSession::forwardTarget() const {
    const double preferred = item_->preferredForwardBufferDuration();
    return preferred > 0 ? preferred : settings_.forwardBufferDuration;
}

void PlaybackSession::update() {
    if (stopped_ || failed_ || !opened_) return;
    double limit = std::numeric_limits<double>::infinity();
    bool everything = true; // every gating track holds all there is
    bool open = false;
    for (const auto& [role, track] : tracks_) {
        if (!track.gatesPlayback()) continue;
        if (!track.positioned) return; // not placed on the timeline yet
        open = true;
        if (track.complete) continue;
        everything = false;
        limit = std::min(limit, track.bufferedEnd);
    }
    if (!open) return;
    if (duration_) limit = std::min(limit, *duration_);
    const double current = now();
    if (!std::isfinite(limit)) limit = current;
    setClock(current, limit);

    const double ahead = limit - current;
    const bool canPlay =
        everything || ahead >= std::min(settings_.minimumBufferDuration, forwardTarget()) - epsilon;
    std::vector<TimeRange> ranges;
    if (limit > rangeStart_) ranges.push_back({seconds(rangeStart_), seconds(limit - rangeStart_)});
    item_->setLoadedTimeRanges(std::move(ranges));
    item_->setBool("playbackBufferFull", everything || ahead >= forwardTarget() - epsilon);

    if (!ready_ || waiting_) {
        if (!canPlay) return;
        // A second readyToPlay is how a stall or a seek tells that playback goes on. Observers
        // hear it with the clock still where it stood; it runs from the moment they return.
        item_->announceStatus(PlayerItem::Status::readyToPlay);
        item_->setBool("playbackLikelyToKeepUp", true);
        item_->setBool("playbackBufferEmpty", false);
        ready_ = true;
        waiting_ = false;
        setClock(current, limit);
        finishSeeks(true);
        return;
    }
    if (ended_ || effectiveRate() <= 0) return;
    if (duration_ && everything && current >= *duration_ - epsilon) {
        ended_ = true;
        rate_ = 0;
        setClock(*duration_, *duration_);
        if (onEnd_) onEnd_();
        item_->post(playerItemDidPlayToEndTimeNotification);
        return;
    }
    if (!everything && current >= limit - epsilon) {
        waiting_ = true;
        setClock(limit, limit);
        item_->setBool("playbackLikelyToKeepUp", false);
        item_->setBool("playbackBufferEmpty", true);
        item_->updateAccessLogEvent([](AccessLogEvent& event) { ++event.numberOfStalls; });
    }
}

void PlaybackSession::tick() {
    tickItem_.reset();
    if (stopped_ || failed_) return;
    pump();
    update();
    scheduleTick();
}

void PlaybackSession::scheduleTick() {
    tickItem_ = after(settings_.tickInterval, [](PlaybackSession& self) { self.tick(); });
}

// MARK: - Control

void PlaybackSession::setRate(double rate) {
    if (stopped_) return;
    const double current = now();
    rate_ = std::max(0.0, rate);
    setClock(current, limit_);
    update();
}

void PlaybackSession::seek(double target, std::function<void(bool)> completion) {
    if (stopped_ || failed_) {
        if (completion) completion(false);
        return;
    }
    finishSeeks(false);
    if (completion) seekCompletions_.push_back(std::move(completion));
    target = std::max(0.0, target);
    const auto main = tracks_.find(Role::main);
    if (main == tracks_.end() || !main->second.positioned || !main->second.playlist) {
        startAt_ = target; // applied when the main playlist is read
        item_->post(playerItemTimeJumpedNotification);
        return;
    }
    const Track& mainTrack = main->second;
    if (duration_) {
        target = std::min(target, *duration_);
    } else if (!mainTrack.starts.empty()) {
        target = std::clamp(target, mainTrack.starts.front(),
                            std::max(mainTrack.starts.front(), mainTrack.knownEnd));
    }
    for (auto& [role, track] : tracks_) {
        cancelDownloads(track, false);
        track.segmentFailures = {};
        if (!track.positioned) continue;
        track.bufferedEnd = target;
        track.complete = false;
    }
    rangeStart_ = target;
    ended_ = false;
    if (ready_) {
        waiting_ = true;
        item_->setBool("playbackLikelyToKeepUp", false);
        item_->setBool("playbackBufferEmpty", true);
    }
    setClock(target, target);
    item_->post(playerItemTimeJumpedNotification);
    pump();
    update();
}

void PlaybackSession::selectionChanged(MediaCharacteristic characteristic) {
    if (stopped_ || failed_ || !master_) return;
    const HlsVariant variant = master_->variants[variant_];
    const double at = now();
    const auto companion = [&](Role role, const std::optional<std::string>& group, const char* type) {
        if (!group) return;
        const HlsRendition* rendition = master_->rendition(type, *group, item_->selectedName(characteristic));
        if (rendition && rendition->uri) setTrackUrl(role, *rendition->uri, at);
    };
    switch (characteristic) {
    case MediaCharacteristic::visual:
        setTrackUrl(Role::main, master_->mainPlaylistUrl(variant, item_->selectedName(characteristic)), at);
        break;
    case MediaCharacteristic::audible:
        companion(Role::audio, variant.audio, "AUDIO");
        break;
    case MediaCharacteristic::legible:
        companion(Role::subtitles, variant.subtitles, "SUBTITLES");
        break;
    }
    pump();
    update();
}

void PlaybackSession::stop() {
    if (stopped_) return;
    const double current = now();
    stopped_ = true;
    for (auto& entry : tracks_)
        cancelDownloads(entry.second, true);
    if (fetcher_) fetcher_->cancelAll();
    if (tickItem_) tickItem_->cancel();
    tickItem_.reset();
    item_->setSelectionHandler(nullptr);
    // The trace belongs to the player; the asset may outlive it.
    if (item_->asset()) item_->asset()->setRequestTrace(nullptr);
    setClock(current, limit_);
    finishSeeks(false);
}

// MARK: - Reporting

void PlaybackSession::fail(const Error& error) {
    if (failed_ || stopped_) return;
    const double current = now();
    failed_ = true;
    for (auto& entry : tracks_)
        cancelDownloads(entry.second, true);
    fetcher_->cancelAll();
    setClock(current, limit_);
    item_->announceStatus(PlayerItem::Status::failed, error);
    item_->post(playerItemFailedToPlayToEndTimeNotification,
                {{playerItemFailedToPlayToEndTimeErrorKey, error}});
    finishSeeks(false);
}

void PlaybackSession::finishSeeks(bool finished) {
    auto completions = std::exchange(seekCompletions_, {});
    for (auto& completion : completions)
        completion(finished);
}

std::optional<RetryBackoff::Clock::duration> PlaybackSession::retryOrFail(Track& track, Failures& failures,
                                                                          const FetchResult& result) {
    std::optional<RetryBackoff::Clock::duration> wait;
    if (RetryBackoff::isTransient(*result.error)) {
        // A player that waits for media is starved whatever it holds; a paused one keeps its
        // buffer, so it keeps trying.
        const bool buffered = ready_ && !waiting_ && track.positioned && track.bufferedEnd - now() > epsilon;
        wait = backoff_.next(++failures.count, buffered, failures.starvedSince);
    }
    logError(result, wait);
    if (!wait) fail(*result.error);
    return wait;
}

void PlaybackSession::watchForStall(Track& track, bool changed) {
    const auto at = RetryBackoff::Clock::now();
    if (changed) {
        track.changedAt = at;
        track.stalled = false; // playback picks up the new segments by itself
        return;
    }
    const double target = std::max(track.playlist->targetDuration, 0.1);
    const double unchanged = std::chrono::duration<double>(at - track.changedAt).count();
    if (track.stalled || unchanged <= stallTargetDurations * target) return;
    track.stalled = true;
    ErrorLogEvent event;
    event.date = std::chrono::system_clock::now();
    event.URI = track.url ? std::optional(track.url->absoluteString()) : std::nullopt;
    event.playbackSessionID = item_->playbackSessionID();
    event.errorStatusCode = playerErrorLiveStalled;
    event.errorDomain = playerErrorDomain;
    event.errorComment = "The live playlist has not changed for " +
                         std::to_string(static_cast<long>(std::lround(unchanged))) + " s.";
    event.isFatal = false;
    item_->addErrorLogEvent(std::move(event));
}

void PlaybackSession::logError(const FetchResult& result,
                               std::optional<RetryBackoff::Clock::duration> retryIn) {
    ErrorLogEvent event;
    event.date = std::chrono::system_clock::now();
    event.URI = (result.redirectedTo ? *result.redirectedTo : result.url).absoluteString();
    event.serverAddress = result.serverAddress;
    event.playbackSessionID = item_->playbackSessionID();
    if (result.error) {
        // An HTTP failure's code is its status; a transport or player error keeps its own code.
        event.errorStatusCode = result.error->code;
        event.errorDomain = result.error->domain;
        event.errorComment = result.error->localizedDescription;
    }
    if (retryIn) {
        event.isFatal = false;
        event.errorComment =
            event.errorComment.value_or("") + " Trying again in " +
            std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(*retryIn).count()) + " ms.";
    }
    item_->addErrorLogEvent(std::move(event));
}

void PlaybackSession::beginAccessLogEvent(double bitrate, const Url& uri) {
    AccessLogEvent event;
    event.indicatedBitrate = bitrate;
    event.URI = uri.absoluteString();
    event.playbackSessionID = item_->playbackSessionID();
    event.playbackStartDate = std::chrono::system_clock::now();
    item_->addAccessLogEvent(std::move(event));
}

} // namespace ovalto::platform
