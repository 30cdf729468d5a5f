#pragma once

#include "platform/ContentKey.h"
#include "platform/HlsReader.h"
#include "platform/MediaFetcher.h"
#include "platform/MediaSelectionGroup.h"
#include "platform/Player.h"
#include "platform/PlayerItem.h"
#include "platform/RetryBackoff.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace ovalto::platform {

class DispatchQueue;
class DispatchWorkItem;

// The playing of one item by a Player: the tracks it downloads, the buffer, the clock and the
// state it reports on the item. Everything runs on the player's queue; completions of the
// fetches hop onto it, so no field needs a lock.
class PlaybackSession : public std::enable_shared_from_this<PlaybackSession> {
public:
    struct Key;
    PlaybackSession(const Key&, std::shared_ptr<PlayerItem> item, std::shared_ptr<DispatchQueue> queue,
                    PlayerSettings settings);
    static std::shared_ptr<PlaybackSession>
    create(std::shared_ptr<PlayerItem> item, std::shared_ptr<DispatchQueue> queue, PlayerSettings settings);

    // All of these run on the player's queue.
    void start(double rate, MediaFetcher::Trace trace, std::function<void()> onEnd);
    void stop();
    void setRate(double rate);
    void seek(double seconds, std::function<void(bool)> completion);
    void setTrace(MediaFetcher::Trace trace);

private:
    enum class Role { main, audio, subtitles };

    // A run of failed downloads of one kind on one track.
    struct Failures {
        int count = 0;
        std::optional<RetryBackoff::Clock::time_point> starvedSince;
    };

    struct Track {
        Role role = Role::main;
        std::optional<Url> url;
        std::optional<HlsMediaPlaylist> playlist;
        std::vector<double> starts;             // timeline start of each segment of `playlist`
        std::map<std::int64_t, double> history; // sequence -> start, kept across reloads and switches
        double knownEnd = 0;                    // end of the latest segment seen
        bool positioned = false;
        double bufferedEnd = 0;
        bool complete = false; // everything to the end of a finished playlist is buffered
        std::uint64_t playlistGeneration = 0;
        std::uint64_t segmentGeneration = 0;
        std::shared_ptr<FetchTask> playlistTask;
        std::shared_ptr<FetchTask> segmentTask;
        std::shared_ptr<DispatchWorkItem> reloadTimer;
        std::shared_ptr<DispatchWorkItem> retryTimer;
        std::set<std::string> initSections;
        Failures playlistFailures;
        Failures segmentFailures;
        RetryBackoff::Clock::time_point changedAt{}; // when a reload last brought something new
        bool stalled = false;                        // a live playlist that stopped changing
        // How the segment being fetched is decrypted; none for a clear one.
        std::optional<std::pair<ContentKey, Data>> decryption;

        bool gatesPlayback() const { return role != Role::subtitles; }
    };

    // Loading
    void assetLoaded();
    std::size_t initialVariant() const;
    void openVariant(std::size_t index);
    void loadPlainResource();
    void plainResourceLoaded(FetchResult result);
    void setTrackUrl(Role role, const Url& url, std::optional<double> flushTo);
    void removeTrack(Role role);
    void loadPlaylist(Role role);
    void playlistLoaded(Role role, std::uint64_t generation, FetchResult result);
    void acceptPlaylist(Track& track, HlsMediaPlaylist playlist);
    bool merge(Track& track, HlsMediaPlaylist playlist);
    void position(Track& track);
    void scheduleReload(Role role, bool changed);

    // Segments, keys
    void pump();
    void pumpTrack(Track& track);
    std::optional<std::size_t> segmentCovering(const Track& track, double time) const;
    void fetchMedia(Track& track, FetchRequest request, std::optional<std::string> initKey, double start,
                    double end);
    void mediaLoaded(Role role, std::uint64_t generation, std::optional<std::string> initKey, double start,
                     double end, FetchResult result);
    void recordMediaRequest(const FetchResult& result);
    void requestKey(const Url& uri);
    void keyLoaded(const std::string& key, FetchResult result);
    // Key and IV for a segment under an "skd" key; the error when there is no usable key.
    std::variant<std::pair<ContentKey, Data>, Error> decryptionFor(const HlsSegment& segment) const;
    bool decrypt(Track& track, FetchResult& result);
    void considerSwitch(const FetchResult& result);

    // State
    void update();
    void tick();
    void scheduleTick();
    double now() const;
    double effectiveRate() const;
    void setClock(double anchor, double limit);
    void fail(const Error& error);
    void finishSeeks(bool finished);
    // Logs a failed download; the wait before trying again, or none once the item has failed.
    std::optional<RetryBackoff::Clock::duration> retryOrFail(Track& track, Failures& failures,
                                                             const FetchResult& result);
    void logError(const FetchResult& result, std::optional<RetryBackoff::Clock::duration> retryIn = {});
    void watchForStall(Track& track, bool changed);
    void beginAccessLogEvent(double bitrate, const Url& uri);
    double forwardTarget() const;
    void selectionChanged(MediaCharacteristic characteristic);
    void cancelDownloads(Track& track, bool playlistToo);
    // Hop onto the queue, and do nothing once the session is gone.
    template <class Work> MediaFetcher::Completion whenFetched(Work work);
    template <class Work>
    std::shared_ptr<DispatchWorkItem> after(std::chrono::steady_clock::duration delay, Work work);

    const std::shared_ptr<PlayerItem> item_;
    const std::shared_ptr<DispatchQueue> queue_;
    const PlayerSettings settings_;
    std::shared_ptr<MediaFetcher> fetcher_;
    RetryBackoff backoff_;
    std::function<void()> onEnd_;

    std::optional<HlsMasterPlaylist> master_;
    std::size_t variant_ = 0;
    std::map<Role, Track> tracks_;
    std::map<std::string, bool> keys_;              // key URI -> obtained
    std::map<std::string, ContentKey> contentKeys_; // "skd" key URI -> the key it gave
    std::optional<double> startAt_;                 // a seek made before the presentation was open
    std::optional<double> duration_;                // of a finished presentation
    double rangeStart_ = 0;                         // where the loaded range begins
    double limit_ = 0;                              // how far buffered media reaches
    double rate_ = 0;
    double throughput_ = 0; // bits per second, smoothed
    int samplesSinceSwitch_ = 0;
    bool opened_ = false; // the asset has loaded and playback is set up
    bool usedAssetPlaylist_ = false;
    bool ready_ = false;   // readyToPlay has been announced
    bool waiting_ = false; // waiting for media after a stall or seek
    bool ended_ = false;
    bool failed_ = false;
    bool stopped_ = false;
    std::vector<std::function<void(bool)>> seekCompletions_;
    std::shared_ptr<DispatchWorkItem> tickItem_;
};

} // namespace ovalto::platform
