#include "platform/DeviceSecret.h"

#include "platform/KeyValueStore.h"
#include "platform/LoadingRequest.h"
#include "platform/SealedBox.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>

namespace ovalto::platform {

namespace {

Error storageError(const std::string& description) {
    return Error{Error::loaderDomain, loaderErrorKeyStorageUnavailable, description, {}};
}

std::variant<Data, Error> readSecret(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) return storageError("The device secret " + path + " cannot be read.");
    std::ostringstream bytes;
    bytes << file.rdbuf();
    Data secret = bytes.str();
    if (secret.size() != DeviceSecret::size)
        return storageError("The device secret " + path + " is damaged.");
    return secret;
}

// Written to a private temporary file and linked into place, so that two processes starting at
// once agree on one secret and nobody reads half of one.
std::variant<Data, Error> makeSecret(const std::string& path) {
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
    auto secret = SealedBox::randomBytes(DeviceSecret::size);
    if (!secret) return storageError("No random bytes for the device secret.");
    std::string temporary = path + ".XXXXXX";
    const int fd = mkstemp(temporary.data());
    if (fd < 0) return storageError("The device secret " + path + " cannot be made.");
    fchmod(fd, S_IRUSR | S_IWUSR);
    const bool written =
        write(fd, secret->data(), secret->size()) == static_cast<ssize_t>(secret->size()) && fsync(fd) == 0;
    close(fd);
    const bool linked = written && link(temporary.c_str(), path.c_str()) == 0;
    unlink(temporary.c_str());
    if (!linked) return readSecret(path); // another process won the race, or the write failed
    return *secret;
}

} // namespace

std::string DeviceSecret::path() {
    if (const char* path = std::getenv("OVALTO_DEVICE_SECRET_PATH"); path && *path) return path;
    return (std::filesystem::path(KeyValueStore::standardPath()).parent_path() / "device-secret").string();
}

std::variant<Data, Error> DeviceSecret::current() {
    static std::mutex mutex;
    static std::map<std::string, Data> known; // by path: tests and tools may move the store
    const std::string where = path();
    std::lock_guard lock(mutex);
    if (auto found = known.find(where); found != known.end()) return found->second;
    auto secret = std::filesystem::exists(where) ? readSecret(where) : makeSecret(where);
    if (auto* bytes = std::get_if<Data>(&secret)) known[where] = *bytes;
    return secret;
}

} // namespace ovalto::platform
