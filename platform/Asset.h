#pragma once

#include "platform/AssetResourceLoader.h"
#include "platform/Cookie.h"
#include "platform/Error.h"
#include "platform/HlsReader.h"
#include "platform/MediaFetcher.h"
#include "platform/MediaSelectionGroup.h"
#include "platform/Url.h"

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace ovalto::platform {

struct AssetOptions {
    // Sent with every HTTP request the asset and its player make, where they match the URL.
    std::optional<std::vector<Cookie>> httpCookies;
};

enum class KeyValueStatus { unknown, loading, loaded, failed, cancelled };

// A presentation at a URL. Playlists on a custom scheme come through the resource loader's
// delegate; http(s) and file URLs are read directly.
class Asset : public std::enable_shared_from_this<Asset> {
public:
    static constexpr const char* playableKey = "playable";

    struct ValueStatus {
        KeyValueStatus status = KeyValueStatus::unknown;
        std::optional<Error> error; // with failed
    };

    static std::shared_ptr<Asset> create(Url url, AssetOptions options = {});

    const Url& url() const { return url_; }
    const AssetOptions& options() const { return options_; }
    const std::shared_ptr<AssetResourceLoader>& resourceLoader() const { return resourceLoader_; }

    // Loads the values of `keys` ("playable" is the one there is) and calls `completion` once,
    // on a thread of the asset's choosing, when each has loaded or failed.
    void loadValuesAsynchronously(std::vector<std::string> keys, std::function<void()> completion);
    ValueStatus statusOfValue(const std::string& key) const;
    // True once "playable" has loaded and found a presentation the player can play.
    bool isPlayable() const;
    // The renditions of a characteristic; none before "playable" has loaded or when the
    // presentation has no rendition of it.
    std::optional<MediaSelectionGroup> mediaSelectionGroup(MediaCharacteristic characteristic) const;

    // For the player: what loading "playable" found.
    bool isHls() const;
    std::optional<HlsMasterPlaylist> masterPlaylist() const;
    // The media playlist loading "playable" read (the top one, or the first variant's), by URL.
    std::optional<std::pair<Url, HlsMediaPlaylist>> firstMediaPlaylist() const;
    // The requests made while loading go to `trace` (see Player::setRequestTrace).
    void setRequestTrace(MediaFetcher::Trace trace);

    struct Key;
    Asset(const Key&, Url url, AssetOptions options);

private:
    struct Outcome;
    void loadPlayable();
    void readTopPlaylist(FetchResult result);
    void readFirstMediaPlaylist(FetchResult result);
    void keepMediaPlaylist(const Url& url, const HlsMediaPlaylist& playlist);
    void finish(Outcome outcome);

    const Url url_;
    const AssetOptions options_;
    const std::shared_ptr<AssetResourceLoader> resourceLoader_;
    const std::shared_ptr<MediaFetcher> fetcher_;

    mutable std::mutex mutex_;
    ValueStatus playable_;
    bool isPlayable_ = false;
    bool isHls_ = false;
    std::optional<HlsMasterPlaylist> master_;
    std::optional<std::pair<Url, HlsMediaPlaylist>> media_;
    std::vector<MediaSelectionGroup> groups_;
    std::vector<std::function<void()>> waiting_;
};

} // namespace ovalto::platform
