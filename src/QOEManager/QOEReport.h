#pragma once

#include "Utils/JSONSerializable.h"

#include <cstdint>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

namespace ovalto::qoe {

// The records of a quality-of-experience report. Each lists its stored fields once, in
// declaration order; the keys are the field names, so they are the wire format.

struct DeviceInfo {
    std::string os;
    std::string osVersion;
    std::string player;
    std::string model;
    std::string deviceId;

    // This machine as the platform describes it.
    static DeviceInfo current();

    static constexpr auto jsonFields() {
        return std::tuple{jsonField("os", &DeviceInfo::os), jsonField("osVersion", &DeviceInfo::osVersion),
                          jsonField("player", &DeviceInfo::player), jsonField("model", &DeviceInfo::model),
                          jsonField("deviceId", &DeviceInfo::deviceId)};
    }
};

struct Buffering {
    std::uint64_t currentTime = 0; // seconds since 1970 when re-buffering began
    std::uint64_t duration = 0;    // milliseconds
    std::int32_t bitrate = 0;      // bit/s

    static constexpr auto jsonFields() {
        return std::tuple{jsonField("currentTime", &Buffering::currentTime),
                          jsonField("duration", &Buffering::duration),
                          jsonField("bitrate", &Buffering::bitrate)};
    }
};

struct PlaybackInfo {
    std::uint32_t sessionId = 0;
    std::optional<std::uint64_t> startupTime; // milliseconds; cleared after each report
    std::vector<Buffering> buffering;         // emptied after each report

    static constexpr auto jsonFields() {
        return std::tuple{jsonField("sessionId", &PlaybackInfo::sessionId),
                          jsonField("startupTime", &PlaybackInfo::startupTime),
                          jsonField("buffering", &PlaybackInfo::buffering)};
    }
};

struct Carrier {
    std::optional<std::string> name;
    std::optional<std::string> mcc;
    std::optional<std::string> mnc;

    // The subscriber's provider when the platform knows all three of its fields.
    static Carrier current();

    static constexpr auto jsonFields() {
        return std::tuple{jsonField("name", &Carrier::name), jsonField("mcc", &Carrier::mcc),
                          jsonField("mnc", &Carrier::mnc)};
    }
};

struct NetworkInfo {
    Carrier carrier;
    std::optional<std::string> type; // "WiFi", "3G" or "LTE" once a report has been made

    // Reads the route to the internet: "3G" (or "LTE" when the radio says so) over cellular
    // data, "WiFi" otherwise, also when there is no network at all.
    void updateStatus();

    static constexpr auto jsonFields() {
        return std::tuple{jsonField("carrier", &NetworkInfo::carrier), jsonField("type", &NetworkInfo::type)};
    }
};

struct Fragment {
    std::int64_t index = 0;
    std::int32_t bitrate = 0;
    std::string uri;
    std::int32_t startTime = 0; // milliseconds
    std::int32_t duration = 0;  // milliseconds
    std::int64_t size = 0;      // bytes
    std::int32_t downloadTime = 0;

    static constexpr auto jsonFields() {
        return std::tuple{jsonField("index", &Fragment::index),
                          jsonField("bitrate", &Fragment::bitrate),
                          jsonField("uri", &Fragment::uri),
                          jsonField("startTime", &Fragment::startTime),
                          jsonField("duration", &Fragment::duration),
                          jsonField("size", &Fragment::size),
                          jsonField("downloadTime", &Fragment::downloadTime)};
    }
};

struct Track {
    std::int32_t id = 0; // the stream index
    std::string name;
    std::string type;
    std::vector<Fragment> fragments;

    static constexpr auto jsonFields() {
        return std::tuple{jsonField("id", &Track::id), jsonField("name", &Track::name),
                          jsonField("type", &Track::type), jsonField("fragments", &Track::fragments)};
    }
};

// One session's report: device and network, start-up time and re-buffering since the last
// report, and every fragment since the session began. Not synchronised: its owner serialises.
class QOEReport {
public:
    // Collects the device and the carrier and draws the session number.
    QOEReport();
    QOEReport(DeviceInfo deviceInfo, Carrier carrier);

    std::optional<std::int64_t> transactionId;
    std::optional<std::int64_t> time;
    std::optional<std::string> manifest;
    DeviceInfo deviceInfo;
    PlaybackInfo playbackInfo;
    NetworkInfo networkInfo;
    std::vector<Track> tracks;

    // Files the track's one fragment under the track with the same id, or adds the track.
    void addFragment(Track track);
    // Compact JSON; no value when a text in it is not UTF-8.
    std::optional<std::string> toJSON() const;

    static constexpr auto jsonFields() {
        return std::tuple{jsonField("transactionId", &QOEReport::transactionId),
                          jsonField("time", &QOEReport::time),
                          jsonField("manifest", &QOEReport::manifest),
                          jsonField("deviceInfo", &QOEReport::deviceInfo),
                          jsonField("playbackInfo", &QOEReport::playbackInfo),
                          jsonField("networkInfo", &QOEReport::networkInfo),
                          jsonField("tracks", &QOEReport::tracks)};
    }
};

} // namespace ovalto::qoe
