#include "platform/Device.h"

#include "platform/KeyValueStore.h"

#include <sys/utsname.h>

#include <cerrno>
#include <cstdio>
#include <random>

#include <fstream>
#include <mutex>
#include <sstream>

namespace ovalto::platform {

namespace {

std::string osReleaseValue(const std::string& key) {
    for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
        std::ifstream file(path);
        for (std::string line; std::getline(file, line);) {
            if (line.rfind(key + "=", 0) != 0) continue;
            auto value = line.substr(key.size() + 1);
            if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
                value.back() == value.front())
                value = value.substr(1, value.size() - 2);
            return value;
        }
    }
    return {};
}

Device readDevice() {
    Device device;
    utsname names{};
    if (uname(&names) == 0) {
        device.machine = names.machine; // stops at the first zero byte
        device.name = names.nodename;
        device.model = names.sysname;
        device.distributionVersion = names.release;
    }
    device.systemName = osReleaseValue("NAME");
    if (device.systemName.empty()) device.systemName = device.model;
    if (auto version = osReleaseValue("VERSION_ID"); !version.empty()) device.distributionVersion = version;
    device.systemVersion = Device::keySystemContractVersion;
    return device;
}

std::mutex& versionMutex() {
    static std::mutex mutex;
    return mutex;
}

std::string& versionOverride() {
    static std::string version;
    return version;
}

} // namespace

Device Device::current() {
    static const Device device = readDevice();
    Device copy = device;
    std::lock_guard lock(versionMutex());
    if (!versionOverride().empty()) copy.systemVersion = versionOverride();
    return copy;
}

void Device::setSystemVersion(const std::string& version) {
    std::lock_guard lock(versionMutex());
    versionOverride() = version;
}

bool Device::systemVersionAtLeast(int major, int minor) const {
    std::istringstream in(systemVersion);
    int actualMajor = 0, actualMinor = 0;
    char dot = 0;
    in >> actualMajor;
    if (in >> dot && dot == '.') in >> actualMinor;
    return actualMajor != major ? actualMajor > major : actualMinor >= minor;
}

std::string Device::identifierForVendor(KeyValueStore& store) {
    static constexpr const char* key = "ovalto.identifierForVendor";
    if (auto stored = store.string(key); stored && !stored->empty()) return *stored;
    std::random_device source;
    unsigned char bytes[16];
    for (auto& byte : bytes)
        byte = static_cast<unsigned char>(source());
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40); // version 4: random
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80); // RFC 4122 variant
    char text[37];
    std::snprintf(text, sizeof text, "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X",
                  bytes[0], bytes[1], bytes[2], bytes[3], bytes[4], bytes[5], bytes[6], bytes[7], bytes[8],
                  bytes[9], bytes[10], bytes[11], bytes[12], bytes[13], bytes[14], bytes[15]);
    return store.setString(text, key) ? std::string(text) : std::string();
}

std::string Device::identifierForVendor() {
    static const std::string identifier = identifierForVendor(KeyValueStore::standard());
    return identifier;
}

std::string Device::programName() {
    return program_invocation_short_name ? program_invocation_short_name : "";
}

} // namespace ovalto::platform
