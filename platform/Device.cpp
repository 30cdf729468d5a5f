#include "platform/Device.h"

#include <sys/utsname.h>

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

} // namespace ovalto::platform
