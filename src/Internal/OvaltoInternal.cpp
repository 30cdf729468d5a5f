#include "Internal/OvaltoInternal.h"

#include "Utils/URLExtension.h"
#include "ovalto/Notifications.h"
#include "ovalto/OVALog.h"
#include "ovalto/Ovalto.h"
#include "ovalto/OvaltoError.h"
#include "platform/Cookie.h"
#include "platform/Device.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <ctime>
#include <limits>

namespace ovalto {

struct OvaltoInternal::Key {
    explicit Key() = default;
};

namespace {

constexpr const char* prepareFunction = "prepare(with:customHeaders:)";
constexpr const char* prepareInternalFunction = "prepareInternal(keys:)";
constexpr const char* observeFunction = "observeValue(forKeyPath:of:change:context:)";
constexpr const char* accessLogFunction = "onAccessLogEvent(fragment:)";

bool isHlsContentType(std::string value) {
    std::transform(value.begin(), value.end(), value.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    return value == "application/x-mpegurl" || value == "application/vnd.apple.mpegurl" ||
           value == "audio/x-mpegurl" || value == "audio/mpegurl";
}

platform::MediaCharacteristic characteristic(MediaType type) {
    switch (type) {
    case MediaType::audio:
        return platform::MediaCharacteristic::audible;
    case MediaType::text:
        return platform::MediaCharacteristic::legible;
    default:
        return platform::MediaCharacteristic::visual;
    }
}

// The cookies of a "Cookie" header value: "a=1; b=2;c" gives a=1 and " b"=2; pieces without "="
// and names the cookie store refuses are skipped. Names and values are not trimmed.
std::vector<platform::Cookie> cookiesFromHeader(const std::string& header) {
    std::vector<platform::Cookie> cookies;
    std::size_t begin = 0;
    while (begin <= header.size()) {
        auto end = header.find(';', begin);
        if (end == std::string::npos) end = header.size();
        auto piece = header.substr(begin, end - begin);
        begin = end + 1;
        auto equals = piece.find('=');
        if (piece.empty() || equals == std::string::npos) continue;
        if (auto cookie = platform::Cookie::make(piece.substr(0, equals), piece.substr(equals + 1), "", "/"))
            cookies.push_back(std::move(*cookie));
    }
    return cookies;
}

// A date as the platform describes one: "2026-11-22 19:49:29 +0000".
std::string describeDate(std::chrono::system_clock::time_point date) {
    std::time_t seconds = std::chrono::system_clock::to_time_t(date);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S +0000", &utc);
    return text;
}

std::string describeOptionalDate(const std::optional<std::chrono::system_clock::time_point>& date) {
    return date ? "Optional(" + describeDate(*date) + ")" : "nil";
}

template <class T> T parseNumber(const std::map<std::string, std::string>& attributes, const char* key) {
    auto it = attributes.find(key);
    std::string_view text = it == attributes.end() ? std::string_view("0") : std::string_view(it->second);
    T value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size() ? value : 0;
}

std::int32_t clampToInt32(double value) {
    if (!std::isfinite(value)) return 0;
    value = std::clamp(value, static_cast<double>(std::numeric_limits<std::int32_t>::min()),
                       static_cast<double>(std::numeric_limits<std::int32_t>::max()));
    return static_cast<std::int32_t>(value);
}

// Whole milliseconds since `date`; a clock that went back counts as no time.
std::uint64_t millisecondsSince(std::chrono::system_clock::time_point date) {
    auto elapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now() - date);
    return elapsed.count() > 0 ? static_cast<std::uint64_t>(elapsed.count()) : 0;
}

} // namespace

std::shared_ptr<OvaltoInternal> OvaltoInternal::create(std::weak_ptr<Ovalto> ovalto) {
    return std::make_shared<OvaltoInternal>(Key{}, std::move(ovalto));
}

OvaltoInternal::OvaltoInternal(const Key&, std::weak_ptr<Ovalto> facade)
    : masterUrl(*platform::Url::parse(masterUrlString))
    , apiQueue(platform::DispatchQueue::serial("ovalto.internal.api"))
    , resourceQueue(platform::DispatchQueue::serial("ovalto.internal.resource")) {
    ovalto.set(std::move(facade));
    const auto& device = platform::Device::current();
    OVALog(OVALogLevel::info,
           "Device " + device.machine + " " + device.systemName + " " + device.systemVersion, "init(ovalto:)",
           __FILE__, __LINE__);
}

OvaltoInternal::~OvaltoInternal() {
    reset();
}

void OvaltoInternal::prepare(const platform::Url& url, const std::optional<Headers>& customHeaders) {
    const auto name = url.lastPathComponent();
    OVALog(OVALogLevel::info, name + " " + (customHeaders ? "/ used a license handler" : ""), prepareFunction,
           __FILE__, __LINE__);
    resourceLoader.set(std::make_shared<OVAResourceLoader>(weak_from_this()));

    auto scheme = url.scheme();
    if (!scheme) {
        OVALog(OVALogLevel::error, "scheme is not founded from " + name + ".", prepareFunction, __FILE__,
               __LINE__);
        notify(OvaltoError::inputParam(name + " is not valid.", 0x8100).toError());
        return;
    }
    state.set(State::prepare);
    date.set(std::chrono::system_clock::now());
    apiQueue->async([weak = weak_from_this(), url, scheme = *scheme, customHeaders] {
        if (auto self = weak.lock()) self->prepareWork(url, scheme, customHeaders);
    });
}

void OvaltoInternal::prepareWork(const platform::Url& url, const std::string& scheme,
                                 const std::optional<Headers>& customHeaders) {
    std::shared_ptr<platform::Asset> newAsset;
    if (url.isFileUrl()) {
        newAsset = platform::Asset::create(url);
        // Stored persistable keys are asked for as soon as a playlist names them.
        if (platform::Device::current().systemVersionAtLeast(9, 0))
            newAsset->resourceLoader()->setPreloadsEligibleContentKeys(true);
    } else {
        auto headers =
            configurations.with([](const std::optional<Configurations>& all) -> std::optional<Headers> {
                return all ? configurationValue<Headers>(*all, ConfigurationKey::httpHeaders) : std::nullopt;
            });
        if (headers) {
            if (auto cookie = headers->find("Cookie"); cookie != headers->end()) {
                auto parsed = cookiesFromHeader(cookie->second);
                if (!parsed.empty()) platform::CookieStorage::shared().setCookies(parsed, url);
            }
        }
        auto headerFields = allHeaderFields(url, headers);
        auto contentType = headerFields.find("Content-Type");
        if (contentType != headerFields.end() && isHlsContentType(contentType->second)) {
            FragmentFunction function = [weak = weak_from_this()](std::any fragment) {
                if (auto self = weak.lock()) self->onAccessLogEvent(fragment);
            };
            configurations.with([&](std::optional<Configurations>& all) {
                if (!all) all.emplace();
                (*all)[ConfigurationKey::contentUrl] = url;
                (*all)[ConfigurationKey::scheme] = scheme;
                (*all)[ConfigurationKey::function] = function;
            });
            platform::AssetOptions options;
            if (auto found = cookies(url, headerFields)) options.httpCookies = std::move(*found);
            newAsset = platform::Asset::create(masterUrl, std::move(options));
        } else {
            newAsset = platform::Asset::create(url);
        }
    }
    asset.set(newAsset);

    if (auto loader = resourceLoader.get()) {
        loader->configurations.set(configurations.get());
        loader->pluginListener.set(pluginListener.get());
        loader->customHeaders.set(customHeaders);
        newAsset->resourceLoader()->setDelegate(loader, resourceQueue);
    }
    finishWhenLoaded(newAsset);
}

void OvaltoInternal::finishWhenLoaded(const std::shared_ptr<platform::Asset>& loading) {
    loading->loadValuesAsynchronously({platform::Asset::playableKey}, [weak = weak_from_this(), loading] {
        platform::DispatchQueue::main()->async([weak, loading] {
            auto self = weak.lock();
            if (!self) return;
            // A later preparation replaced this asset. This one still ends in its one notification,
            // with what the current asset gives once it has loaded; the later item is then the one
            // observed, whichever preparation finishes first.
            if (auto current = self->asset.get(); current && current != loading)
                return self->finishWhenLoaded(current);
            self->prepareInternal({platform::Asset::playableKey});
        });
    });
}

void OvaltoInternal::prepareInternal(const std::vector<std::string>& keys) {
    auto current = asset.get();
    if (!current) {
        OVALog(OVALogLevel::error, "AVURLAsset is not created.", prepareInternalFunction, __FILE__, __LINE__);
        notify(OvaltoError::inputParam("AVURLAsset is not created.", 0x8202).toError());
        return;
    }
    for (const auto& key : keys) {
        auto status = current->statusOfValue(key);
        if (status.status != platform::KeyValueStatus::failed) continue;
        auto reason =
            describeOptional(status.error ? std::optional(status.error->localizedDescription) : std::nullopt);
        OVALog(OVALogLevel::error, "asset is not valid because " + reason, prepareInternalFunction, __FILE__,
               __LINE__);
        notify(OvaltoError::inputParam("AVURLAsset is not valid. " + reason, 0x8201).toError());
        return;
    }
    if (!current->isPlayable()) {
        OVALog(OVALogLevel::error, "asset is not playable.", prepareInternalFunction, __FILE__, __LINE__);
        notify(OvaltoError::inputParam("AVURLAsset is not playable.", 0x8202).toError());
        return;
    }
    reset();
    playerItem.set(platform::PlayerItem::create(current));
    addObservers();
    addNotifications();
    postToFacade(OvaltoPreparationNotification);
}

void OvaltoInternal::reset() {
    ++timerGeneration_;
    if (auto running = timer.get()) running->invalidate();
    timer.set(nullptr);
    if (auto item = observedItem_.get()) {
        for (const char* keyPath : observedKeyPaths)
            item->removeObserver(this, keyPath, playerItemContext());
        observedItem_.set(nullptr);
    }
    removeNotifications();
    playerItem.set(nullptr);
}

void OvaltoInternal::notify(const platform::Error& error) {
    postToFacade(OvaltoErrorNotification, {{OvaltoErrorUserInfoKey, error}});
}

void OvaltoInternal::postToFacade(const char* name, std::map<std::string, std::any> userInfo) {
    std::shared_ptr<const void> object = ovalto.get().lock();
    platform::NotificationCenter::defaultCenter().post(name, std::move(object), std::move(userInfo));
}

// MARK: observation of the player item

void OvaltoInternal::addObservers() {
    auto item = playerItem.get();
    if (!item) return;
    for (const char* keyPath : observedKeyPaths) {
        item->addObserver(
            this, keyPath, playerItemContext(),
            [weak = weak_from_this(), context = playerItemContext()](
                const std::string& path, const platform::KeyValueChange& change, const void* token) {
                auto self = weak.lock();
                if (self && token == context) self->observeValue(path, change);
            });
    }
    observedItem_.set(item);
}

void OvaltoInternal::addNotifications() {
    auto item = playerItem.get();
    if (!item) return;
    struct Handler {
        const char* notification;
        const char* function;
    };
    static constexpr Handler handlers[] = {
        {platform::playerItemDidPlayToEndTimeNotification, "playerItemDidPlayToEndTime"},
        {platform::playerItemTimeJumpedNotification, "playerItemTimeJumped"},
        {platform::playerItemFailedToPlayToEndTimeNotification, "playerItemFailedToPlayToEndTime"},
        {platform::playerItemNewAccessLogEntryNotification, "playerItemNewAccessLogEntry"},
        {platform::playerItemNewErrorLogEntryNotification, "playerItemNewErrorLogEntry"},
    };
    std::vector<platform::NotificationCenter::Token> tokens;
    for (const auto& handler : handlers) {
        tokens.push_back(platform::NotificationCenter::defaultCenter().addObserver(
            handler.notification, item, [function = handler.function](const platform::Notification&) {
                OVALog(OVALogLevel::info, "", function, __FILE__, __LINE__);
            }));
    }
    notificationTokens_.with([&](auto& all) { all.insert(all.end(), tokens.begin(), tokens.end()); });
}

void OvaltoInternal::removeNotifications() {
    auto tokens = notificationTokens_.with([](auto& all) { return std::exchange(all, {}); });
    for (auto token : tokens)
        platform::NotificationCenter::defaultCenter().removeObserver(token);
}

void OvaltoInternal::observeValue(const std::string& keyPath, const platform::KeyValueChange& change) {
    if (keyPath == "status") {
        observeStatus(change);
    } else if (keyPath == "playbackBufferEmpty") {
        OVALog(OVALogLevel::debug, "buffer empty", observeFunction, __FILE__, __LINE__);
        // Only the buffer running dry opens a period; its refilling is announced as readyToPlay.
        const auto* empty = std::any_cast<bool>(&change.newValue);
        if (state.get() == State::start && (!empty || *empty)) date.set(std::chrono::system_clock::now());
    } else if (keyPath == "loadedTimeRanges") {
        const auto* ranges = std::any_cast<std::vector<platform::TimeRange>>(&change.newValue);
        if (ranges && !ranges->empty()) {
            OVALog(OVALogLevel::debug, "buffered " + describeDecimal(ranges->back().duration.seconds()),
                   observeFunction, __FILE__, __LINE__);
        }
    }
}

void OvaltoInternal::observeStatus(const platform::KeyValueChange& change) {
    const auto* status = std::any_cast<platform::PlayerItem::Status>(&change.newValue);
    if (!status || *status == platform::PlayerItem::Status::unknown) {
        OVALog(OVALogLevel::warning, "unknown", observeFunction, __FILE__, __LINE__);
        return;
    }
    if (*status == platform::PlayerItem::Status::readyToPlay) {
        OVALog(OVALogLevel::info, "readyToPlay", observeFunction, __FILE__, __LINE__);
        auto listener = pluginListener.get().lock();
        auto started = date.get();
        if (listener && started) {
            auto elapsed = millisecondsSince(*started);
            switch (state.get()) {
            case State::prepare:
                OVALog(OVALogLevel::info, "startupTime " + std::to_string(elapsed) + " ms", observeFunction,
                       __FILE__, __LINE__);
                state.set(State::start);
                listener->onStartupTime(elapsed);
                break;
            case State::start: {
                OVALog(OVALogLevel::info, "buffering " + std::to_string(elapsed) + " ms", observeFunction,
                       __FILE__, __LINE__);
                auto last = lastAccessLogEvent.get();
                auto since1970 =
                    std::chrono::duration_cast<std::chrono::seconds>(started->time_since_epoch()).count();
                listener->onBuffering(since1970 > 0 ? static_cast<std::uint64_t>(since1970) : 0, elapsed,
                                      last ? clampToInt32(last->indicatedBitrate) : 0);
                break;
            }
            case State::seek:
                state.set(State::start);
                break;
            default:
                break;
            }
        }
        date.set(std::nullopt);
        return;
    }
    // Failed: the error log says what went wrong, then the item's own error.
    auto item = playerItem.get();
    if (!item) return;
    if (auto log = item->errorLog()) {
        for (const auto& event : log->events) {
            OVALog(OVALogLevel::error,
                   describeOptionalDate(event.date) + " " + describeOptional(event.URI) + " " +
                       describeOptional(event.serverAddress) + " " +
                       describeOptional(event.playbackSessionID),
                   observeFunction, __FILE__, __LINE__);
            OVALog(OVALogLevel::error,
                   std::to_string(event.errorStatusCode) + " " + event.errorDomain + " " +
                       describeOptional(event.errorComment),
                   observeFunction, __FILE__, __LINE__);
        }
    }
    if (auto error = item->error())
        OVALog(OVALogLevel::error, error->localizedDescription, observeFunction, __FILE__, __LINE__);
}

void OvaltoInternal::onAccessLogEvent(const std::any& argument) {
    auto item = playerItem.get();
    auto log = item ? item->accessLog() : std::nullopt;
    if (!log || log->events.empty()) {
        OVALog(OVALogLevel::warning, "access log event does not exist.", accessLogFunction, __FILE__,
               __LINE__);
        return;
    }
    const auto event = log->events.back();
    const auto* fragmentPointer = std::any_cast<std::shared_ptr<Fragment>>(&argument);
    if (!fragmentPointer || !*fragmentPointer) {
        OVALog(OVALogLevel::warning, "fragment is not Fragment type.", accessLogFunction, __FILE__, __LINE__);
        return;
    }
    const auto& fragment = *fragmentPointer;

    std::lock_guard lock(accessLogMutex_);
    auto last = lastAccessLogEvent.get();
    if (last && last->numberOfMediaRequests < event.numberOfMediaRequests) {
        OVALog(OVALogLevel::debug,
               "last numberOfMediaRequests: " + std::to_string(last->numberOfMediaRequests),
               accessLogFunction, __FILE__, __LINE__);
        std::int64_t size = last->numberOfBytesTransferred;
        if (last->indicatedBitrate == event.indicatedBitrate)
            size = event.numberOfBytesTransferred - last->numberOfBytesTransferred;
        double elapsed = event.transferDuration - last->transferDuration;
        OVALog(OVALogLevel::info, "size: " + std::to_string(size) + ", elapsed: " + describeDecimal(elapsed),
               accessLogFunction, __FILE__, __LINE__);
        if (size < 0) {
            auto describe = [](const char* which, const platform::AccessLogEvent& e) {
                return std::string(which) + describeDecimal(e.indicatedBitrate) + "-(" +
                       std::to_string(e.numberOfMediaRequests) + ") size - " +
                       std::to_string(e.numberOfBytesTransferred) + ", duration - " +
                       describeDecimal(e.transferDuration);
            };
            OVALog(OVALogLevel::warning, describe("last ", *last), accessLogFunction, __FILE__, __LINE__);
            OVALog(OVALogLevel::warning, describe("curr ", event), accessLogFunction, __FILE__, __LINE__);
        }
        if (auto listener = pluginListener.get().lock()) {
            OVALog(OVALogLevel::debug,
                   "onFragmentResponse : " + describeOptional(last->URI) + ", " +
                       describeOptional(last->serverAddress),
                   accessLogFunction, __FILE__, __LINE__);
            auto attributes = fragment->attributes.get();
            ResponseInfo response;
            auto url = fragment->url.get();
            response.uri = url ? url->absoluteString() : std::string();
            response.originalUri = response.uri;
            response.edgeIP = last->serverAddress;
            response.size = size;
            auto type = attributes.find("MediaType");
            response.type = type == attributes.end() ? "unknown" : type->second;
            response.start = fragment->start();
            response.duration = fragment->duration();
            auto milliseconds =
                elapsed > 0 && std::isfinite(elapsed) ? static_cast<std::int64_t>(elapsed * 1000) : 0;
            response.downloadTime = platform::MediaTime::make(milliseconds, 1000);
            response.streamIndex = parseNumber<std::int32_t>(attributes, "StreamIndex");
            response.fragmentIndex = parseNumber<std::int64_t>(attributes, "FragmentIndex");
            response.bitrate = parseNumber<std::int32_t>(attributes, "Bitrate");
            listener->onFragmentResponse(response);
        }
    }
    lastFragment.set(fragment);
    lastAccessLogEvent.set(event);
}

// MARK: tracks

std::vector<std::string> OvaltoInternal::tracks(MediaType type) {
    std::vector<std::string> titles;
    auto item = playerItem.get();
    if (!item) return titles;
    auto group = item->asset()->mediaSelectionGroup(characteristic(type));
    if (!group) return titles;
    for (const auto& option : group->options) {
        for (const auto& metadata : option.commonMetadata) {
            if (!metadata.stringValue) continue;
            OVALog(OVALogLevel::info, "track : " + *metadata.stringValue, "tracks(type:)", __FILE__,
                   __LINE__);
            titles.push_back(*metadata.stringValue);
        }
    }
    return titles;
}

void OvaltoInternal::selectTrack(long index, MediaType type) {
    auto item = playerItem.get();
    if (!item) return;
    auto group = item->asset()->mediaSelectionGroup(characteristic(type));
    if (!group || index < 0 || static_cast<std::size_t>(index) >= group->options.size()) return;
    item->select(group->options[static_cast<std::size_t>(index)], *group);
}

} // namespace ovalto
