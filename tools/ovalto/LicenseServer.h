#pragma once

#include "platform/ContentKey.h"
#include "platform/KeyVendorIdentity.h"

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace ovalto::tool {

// A licence server on loopback that answers key requests the way the library sends them: a
// form-encoded POST of "spc=<base64>&assetId=<id>[&os_version=<v>]", answered with the base64
// of a CKC (bare, or between <ckc> and </ckc>). It holds the private key of the application
// certificate it hands out, and a content key per asset.
class LicenseServer {
public:
    // What the server does instead of answering well, to show how clients cope.
    enum class Fault {
        none,
        status,     // answers `faultStatus`
        empty,      // 200 with an empty body
        garbage,    // 200 with text that is not base64
        slow,       // answers after `slowDelay`
        tamper,     // a CKC with one byte changed
        otherAsset, // a CKC made for another asset than the one asked for
    };

    struct Options {
        std::map<std::string, platform::ContentKey> keys; // by asset identifier
        bool wrap = false;                                // <ckc>…</ckc> and a line break
        Fault fault = Fault::none;
        int faultStatus = 500;
        std::chrono::milliseconds slowDelay{31'000};
        std::int64_t persistentLease = 0; // seconds a persistable key lasts; 0: for ever
        std::string host = "127.0.0.1";
        int port = 0; // 0: any free port
    };

    // One request and how it was answered.
    struct Exchange {
        std::string method;
        std::string contentType;
        std::vector<std::pair<std::string, std::string>> headers; // in the order received
        std::string body;                                         // as received
        std::string assetId;
        std::optional<std::string> osVersion;
        bool persistent = false;
        int status = 0;
        std::string reason; // why a request was refused, or "ok"
    };

    LicenseServer(platform::KeyVendorIdentity identity, Options options);
    ~LicenseServer();
    LicenseServer(const LicenseServer&) = delete;
    LicenseServer& operator=(const LicenseServer&) = delete;

    // Binds and serves on a background thread; false (with `error` set) when it cannot bind.
    bool start(std::string* error = nullptr);
    // Serves on the calling thread until stop().
    bool listen(std::string* error = nullptr);
    void stop();
    int port() const;
    std::string url() const; // "http://127.0.0.1:<port>/license"

    const platform::KeyVendorIdentity& identity() const;
    void setFault(Fault fault, int status = 500);
    // Called after every exchange, on a server thread.
    void setObserver(std::function<void(const Exchange&)> observer);
    std::vector<Exchange> exchanges() const;

    // Reads a keys file: {"<asset>": {"key": "<32 hex>", "iv": "<32 hex>"}, …}; a reason when
    // it cannot.
    static std::variant<std::map<std::string, platform::ContentKey>, std::string>
    readKeys(const std::string& text);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace ovalto::tool
