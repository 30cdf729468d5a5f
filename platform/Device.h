#pragma once

#include <string>

namespace ovalto::platform {

class KeyValueStore;

// What the process can tell about the machine it runs on.
struct Device {
    std::string machine;       // the hardware name from uname(2), e.g. "x86_64"
    std::string name;          // the host name
    std::string model;         // "Linux"
    std::string systemName;    // NAME of /etc/os-release, e.g. "Debian GNU/Linux"
    std::string systemVersion; // VERSION_ID of /etc/os-release, else the kernel release

    static const Device& current();
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
