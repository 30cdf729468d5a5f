#include "QOEManager/QOEReport.h"

#include "ovalto/OVALog.h"
#include "platform/Device.h"
#include "platform/NetworkStatus.h"

#include <random>

namespace ovalto::qoe {

DeviceInfo DeviceInfo::current() {
    const auto& device = platform::Device::current();
    DeviceInfo info;
    info.os = device.systemName;
    info.osVersion = device.systemVersion;
    info.player = platform::Device::programName();
    if (info.player.empty()) info.player = "unknown";
    info.model = device.model;
    info.deviceId = platform::Device::identifierForVendor();
    if (info.deviceId.empty()) info.deviceId = "unknown";
    return info;
}

Carrier Carrier::current() {
    Carrier carrier;
    auto provider = platform::NetworkStatus::subscriberCellularProvider();
    if (!provider) return carrier;
    OVALog(OVALogLevel::debug,
           "carrier " + provider->carrierName + ", MCC " + provider->mobileCountryCode + ", MNC " +
               provider->mobileNetworkCode,
           "init()", __FILE__, __LINE__);
    carrier.name = provider->carrierName;
    carrier.mcc = provider->mobileCountryCode;
    carrier.mnc = provider->mobileNetworkCode;
    return carrier;
}

void NetworkInfo::updateStatus() {
    const auto status = platform::NetworkStatus::current();
    OVALog(OVALogLevel::debug, std::string("network reachable ") + (status.reachable ? "true" : "false"),
           "updateStatus()", __FILE__, __LINE__);
    if (!status.isWWAN) {
        type = "WiFi";
        return;
    }
    type = "3G";
    if (platform::NetworkStatus::currentRadioAccessTechnology() == "LTE") type = "LTE";
}

QOEReport::QOEReport()
    : QOEReport(DeviceInfo::current(), Carrier::current()) {}

QOEReport::QOEReport(DeviceInfo device, Carrier carrier)
    : deviceInfo(std::move(device)) {
    networkInfo.carrier = std::move(carrier);
    std::random_device seed;
    std::mt19937 generator(seed());
    playbackInfo.sessionId = std::uniform_int_distribution<std::uint32_t>(0, 9998)(generator);
}

void QOEReport::addFragment(Track track) {
    for (auto& existing : tracks) {
        if (existing.id != track.id) continue;
        if (!track.fragments.empty()) existing.fragments.push_back(std::move(track.fragments.front()));
        return;
    }
    tracks.push_back(std::move(track));
}

std::optional<std::string> QOEReport::toJSON() const {
    // Fragments make up nearly all of a long report, at some 160 bytes each.
    std::size_t fragments = 0;
    for (const auto& track : tracks)
        fragments += track.fragments.size();
    return ovalto::toJSON(*this, 1024 + fragments * 192);
}

} // namespace ovalto::qoe
