#pragma once

#include <string>

namespace ovalto::platform {

class KeyValueStore;

// What the process can tell about the machine it runs on.
struct Device {
    // The version of this platform's key-system contract that systemVersion reports unless a test
    // or the tool sets another: the one at which every path of the newest key system applies
    // (key preloading, content-key sessions, persistable keys).
    static constexpr const char* keySystemContractVersion = "17.0";

    std::string machine;             // the hardware name from uname(2), e.g. "x86_64"
    std::string name;                // the host name
    std::string model;               // "Linux"
    std::string systemName;          // NAME of /etc/os-release, e.g. "Debian GNU/Linux"
    std::string systemVersion;       // the key-system contract version (not the distribution's release)
    std::string distributionVersion; // VERSION_ID of /etc/os-release, else the kernel release

    // A snapshot: the version may be changed at any time by setSystemVersion.
    static Device current();
    // Makes `version` the reported systemVersion, so that older key-system paths can be run; an
    // empty text restores the contract version.
    static void setSystemVersion(const std::string& version);
    // Compares systemVersion numerically, component by component ("12" >= "9.0").
    bool systemVersionAtLeast(int major, int minor = 0) const;

    // A random UUID kept in `store` (standard(): the user's store), so that it stays the same
    // across runs; empty when the store can keep none.
    static std::string identifierForVendor(KeyValueStore& store);
    static std::string identifierForVendor();
    // The running program's name: what identifies the player application here.
    static std::string programName();
};

} // namespace ovalto::platform
