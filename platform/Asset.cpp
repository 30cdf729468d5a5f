#include "platform/Asset.h"

#include "platform/AssetResourceLoader.h"
#include "platform/DispatchQueue.h"

#include <algorithm>

namespace ovalto::platform {

struct Asset::Key {};

// What loading "playable" came to.
struct Asset::Outcome {
    static Outcome failed(std::optional<Error> error, std::optional<HlsMasterPlaylist> master = {}) {
        return {std::move(error), false, master.has_value(), std::move(master)};
    }
    static Outcome loaded(bool playable, bool hls, std::optional<HlsMasterPlaylist> master = {}) {
        return {std::nullopt, playable, hls, std::move(master)};
    }

    std::optional<Error> error;
    bool playable = false;
    bool hls = false;
    std::optional<HlsMasterPlaylist> master;
};

namespace {

struct CharacteristicOf {
    const char* type;
    MediaCharacteristic characteristic;
    const char* mediaType;
};

constexpr CharacteristicOf renditionTypes[] = {
    {"AUDIO", MediaCharacteristic::audible, "audio"},
    {"SUBTITLES", MediaCharacteristic::legible, "subtitles"},
    {"CLOSED-CAPTIONS", MediaCharacteristic::legible, "closedCaptions"},
    {"VIDEO", MediaCharacteristic::visual, "video"},
};

std::vector<MediaSelectionGroup> selectionGroups(const HlsMasterPlaylist& master) {
    std::vector<MediaSelectionGroup> groups;
    for (auto characteristic :
         {MediaCharacteristic::audible, MediaCharacteristic::legible, MediaCharacteristic::visual}) {
        MediaSelectionGroup group;
        group.characteristic = characteristic;
        group.allowsEmptySelection = characteristic == MediaCharacteristic::legible;
        for (const auto& rendition : master.renditions) {
            const auto kind = std::find_if(std::begin(renditionTypes), std::end(renditionTypes),
                                           [&](const auto& entry) { return rendition.type == entry.type; });
            if (kind == std::end(renditionTypes) || kind->characteristic != characteristic) continue;
            // Groups of different variants list the same NAME again; it is one choice.
            auto existing = std::find_if(group.options.begin(), group.options.end(), [&](const auto& option) {
                return option.displayName == rendition.name;
            });
            if (existing == group.options.end()) {
                MediaSelectionOption option;
                option.characteristic = characteristic;
                option.mediaType = kind->mediaType;
                option.displayName = rendition.name;
                option.extendedLanguageTag = rendition.language;
                option.commonMetadata.push_back(MetadataItem{"title", rendition.name});
                group.options.push_back(option);
                existing = group.options.end() - 1;
            }
            if (rendition.isDefault && !group.defaultOption) group.defaultOption = *existing;
        }
        if (group.options.empty()) continue;
        if (!group.defaultOption && !group.allowsEmptySelection) group.defaultOption = group.options.front();
        groups.push_back(std::move(group));
    }
    return groups;
}

} // namespace

std::shared_ptr<Asset> Asset::create(Url url, AssetOptions options) {
    return std::make_shared<Asset>(Key{}, std::move(url), std::move(options));
}

Asset::Asset(const Key&, Url url, AssetOptions options)
    : url_(std::move(url))
    , options_(std::move(options))
    , resourceLoader_(AssetResourceLoader::create())
    , fetcher_(MediaFetcher::create(resourceLoader_, options_.httpCookies.value_or(std::vector<Cookie>{}))) {}

void Asset::setRequestTrace(MediaFetcher::Trace trace) {
    fetcher_->setTrace(std::move(trace));
}

void Asset::loadValuesAsynchronously(std::vector<std::string> keys, std::function<void()> completion) {
    const bool wantsPlayable = std::find(keys.begin(), keys.end(), playableKey) != keys.end();
    bool start = false;
    bool done = false;
    {
        std::lock_guard lock(mutex_);
        if (!wantsPlayable || playable_.status == KeyValueStatus::loaded ||
            playable_.status == KeyValueStatus::failed) {
            done = true;
        } else {
            waiting_.push_back(std::move(completion));
            start = playable_.status == KeyValueStatus::unknown;
            if (start) playable_.status = KeyValueStatus::loading;
        }
    }
    if (done) {
        // Never call back on the caller's stack: callers expect an asynchronous answer.
        if (completion) DispatchQueue::global()->async(std::move(completion));
        return;
    }
    if (start) loadPlayable();
}

Asset::ValueStatus Asset::statusOfValue(const std::string& key) const {
    if (key != playableKey) {
        return {KeyValueStatus::failed,
                Error{Error::loaderDomain, 0, "The asset has no value for the key \"" + key + "\".", {}}};
    }
    std::lock_guard lock(mutex_);
    return playable_;
}

bool Asset::isPlayable() const {
    std::lock_guard lock(mutex_);
    return isPlayable_;
}

bool Asset::isHls() const {
    std::lock_guard lock(mutex_);
    return isHls_;
}

std::optional<HlsMasterPlaylist> Asset::masterPlaylist() const {
    std::lock_guard lock(mutex_);
    return master_;
}

std::optional<std::pair<Url, HlsMediaPlaylist>> Asset::firstMediaPlaylist() const {
    std::lock_guard lock(mutex_);
    return media_;
}

void Asset::keepMediaPlaylist(const Url& url, const HlsMediaPlaylist& playlist) {
    std::lock_guard lock(mutex_);
    media_.emplace(url, playlist);
}

std::optional<MediaSelectionGroup> Asset::mediaSelectionGroup(MediaCharacteristic characteristic) const {
    std::lock_guard lock(mutex_);
    for (const auto& group : groups_) {
        if (group.characteristic == characteristic) return group;
    }
    return std::nullopt;
}

void Asset::loadPlayable() {
    // The fetch keeps the asset alive until loading is over, as a loading asset is still wanted.
    fetcher_->fetch({url_, {}, false}, [self = shared_from_this()](FetchResult result) {
        self->readTopPlaylist(std::move(result));
    });
}

void Asset::readTopPlaylist(FetchResult result) {
    if (result.error) return finish(Outcome::failed(result.error));
    const Data& body = *result.data;
    if (!HlsReader::isPlaylist(body)) {
        // Something else than HLS plays when it can be read; a custom scheme carries only HLS.
        if (MediaFetcher::isCustomScheme(url_)) return finish(Outcome::loaded(false, false));
        return finish(Outcome::loaded(true, false));
    }
    auto playlist = HlsReader::read(body, result.baseUrl());
    if (!playlist) return finish(Outcome::loaded(false, true));
    if (auto* media = std::get_if<HlsMediaPlaylist>(&*playlist)) {
        keepMediaPlaylist(result.url, *media);
        return finish(Outcome::loaded(!media->segments.empty(), true));
    }
    auto master = std::get<HlsMasterPlaylist>(std::move(*playlist));
    if (master.variants.empty()) return finish(Outcome::loaded(false, true));
    const Url first = master.mainPlaylistUrl(master.variants.front(), std::nullopt);
    {
        std::lock_guard lock(mutex_);
        master_ = master;
    }
    fetcher_->fetch({first, {}, false}, [self = shared_from_this()](FetchResult media) {
        self->readFirstMediaPlaylist(std::move(media));
    });
}

void Asset::readFirstMediaPlaylist(FetchResult result) {
    std::optional<HlsMasterPlaylist> master;
    {
        std::lock_guard lock(mutex_);
        master = master_;
    }
    if (result.error) return finish(Outcome::failed(result.error, std::move(master)));
    auto playlist = HlsReader::read(*result.data, result.baseUrl());
    const auto* media = playlist ? std::get_if<HlsMediaPlaylist>(&*playlist) : nullptr;
    if (media) keepMediaPlaylist(result.url, *media);
    finish(Outcome::loaded(media != nullptr && !media->segments.empty(), true, std::move(master)));
}

void Asset::finish(Outcome outcome) {
    std::vector<std::function<void()>> waiting;
    {
        std::lock_guard lock(mutex_);
        if (outcome.error) {
            playable_ = {KeyValueStatus::failed, outcome.error};
        } else {
            playable_ = {KeyValueStatus::loaded, {}};
            isPlayable_ = outcome.playable;
            if (!outcome.playable) master_.reset();
        }
        isHls_ = outcome.hls;
        if (outcome.master && outcome.playable) {
            groups_ = selectionGroups(*outcome.master);
            master_ = std::move(outcome.master);
        }
        waiting.swap(waiting_);
    }
    for (auto& completion : waiting) {
        if (completion) completion();
    }
}

} // namespace ovalto::platform
