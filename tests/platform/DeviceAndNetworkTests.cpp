#include "platform/Device.h"
#include "platform/KeyValueStore.h"
#include "platform/NetworkStatus.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <regex>

namespace ovalto::platform {
namespace {

constexpr const char* header =
    "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";

TEST(NetworkStatus, TheDefaultRouteDecidesHowTheInternetIsReached) {
    struct Case {
        const char* what;
        std::string routes;
        bool reachable;
        bool wwan;
        const char* interface;
    };
    const Case cases[] = {
        {"no routes at all", "", false, false, ""},
        {"only a local network", "eth0\t0002A8C0\t00000000\t0001\t0\t0\t100\t00FFFFFF\t0\t0\t0\n", false,
         false, ""},
        {"Ethernet", "eth0\t00000000\t0102A8C0\t0003\t0\t0\t100\t00000000\t0\t0\t0\n", true, false, "eth0"},
        {"a modem", "wwan0\t00000000\t0100000A\t0003\t0\t0\t700\t00000000\t0\t0\t0\n", true, true, "wwan0"},
        {"a modem behind Wi-Fi by metric",
         "wwp0s20u4\t00000000\t0100000A\t0003\t0\t0\t700\t00000000\t0\t0\t0\n"
         "wlan0\t00000000\t0102A8C0\t0003\t0\t0\t600\t00000000\t0\t0\t0\n",
         true, false, "wlan0"},
        {"a route that is down", "wwan0\t00000000\t0100000A\t0002\t0\t0\t700\t00000000\t0\t0\t0\n", false,
         false, ""},
        {"garbled lines are skipped", "eth0\tzz\n\n\t\nwwan0\t00000000\t0\t1\t0\t0\t1\t00000000\n", true,
         true, "wwan0"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const auto status = NetworkStatus::fromRouteTable(header + c.routes);
        EXPECT_EQ(status.reachable, c.reachable);
        EXPECT_EQ(status.isWWAN, c.wwan);
        EXPECT_EQ(status.interfaceName, c.interface);
    }
}

TEST(Device, TheVendorIdentifierIsARandomUuidKeptInTheStore) {
    const auto path = std::filesystem::temp_directory_path() / ("device-" + std::to_string(::getpid()));
    std::string first;
    {
        auto store = KeyValueStore::open((path / "defaults.sqlite3").string());
        first = Device::identifierForVendor(*store);
        EXPECT_TRUE(std::regex_match(
            first, std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")))
            << first;
    }
    auto reopened = KeyValueStore::open((path / "defaults.sqlite3").string());
    EXPECT_EQ(Device::identifierForVendor(*reopened), first);
    auto other = KeyValueStore::open((path / "other.sqlite3").string());
    EXPECT_NE(Device::identifierForVendor(*other), first);
    std::filesystem::remove_all(path);
}

} // namespace
} // namespace ovalto::platform
