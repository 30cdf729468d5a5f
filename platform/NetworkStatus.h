#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ovalto::platform {

// How the machine reaches the internet, read from the kernel's routing table: reachable when a
// default route is up; over cellular data when that route leaves through a wwan interface
// (wwan0, wwp0s20u4…), the names the kernel and udev give to modems.
struct NetworkStatus {
    bool reachable = false;
    bool isWWAN = false;
    std::string interfaceName; // of the default route; empty when there is none

    static NetworkStatus current();
    // The same from the text of /proc/net/route; the lowest-metric default route wins.
    static NetworkStatus fromRouteTable(std::string_view table);

    // Linux offers no common interface to a modem's radio technology or subscriber record, so
    // both stay unknown here and cellular data counts as the slower kind.
    struct CellularProvider {
        std::string carrierName, mobileCountryCode, mobileNetworkCode;
    };
    static std::optional<std::string> currentRadioAccessTechnology() { return std::nullopt; }
    static std::optional<CellularProvider> subscriberCellularProvider() { return std::nullopt; }
};

} // namespace ovalto::platform
