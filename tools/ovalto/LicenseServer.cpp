#include "LicenseServer.h"

#include "Bridge/ExclusivePort.h"

#include "Utils/Base64.h"
#include "platform/KeyExchange.h"

#include <httplib.h>
#include <nlohmann/json.hpp>

#include <cctype>
#include <condition_variable>
#include <cstdio>
#include <thread>
#include <variant>

namespace ovalto::tool {

namespace {

constexpr const char* formType = "application/x-www-form-urlencoded";

// The form fields as sent: split on "&" and the first "=", nothing decoded, because the
// library sends base64 with "+", "/" and "=" as they are.
std::map<std::string, std::string> formFields(const std::string& body) {
    std::map<std::string, std::string> fields;
    std::size_t start = 0;
    while (start <= body.size()) {
        auto end = body.find('&', start);
        if (end == std::string::npos) end = body.size();
        const auto pair = body.substr(start, end - start);
        if (auto equals = pair.find('='); equals != std::string::npos)
            fields.emplace(pair.substr(0, equals), pair.substr(equals + 1));
        start = end + 1;
    }
    return fields;
}

std::optional<platform::Data> fromHex(const std::string& text) {
    if (text.size() != 2 * platform::ContentKey::size) return std::nullopt;
    platform::Data out;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        unsigned value = 0;
        if (std::sscanf(text.c_str() + i, "%2x", &value) != 1 ||
            !std::isxdigit(static_cast<unsigned char>(text[i])) ||
            !std::isxdigit(static_cast<unsigned char>(text[i + 1])))
            return std::nullopt;
        out += static_cast<char>(value);
    }
    return out;
}

} // namespace

struct LicenseServer::Impl {
    Impl(platform::KeyVendorIdentity identity, Options options)
        : identity(std::move(identity))
        , options(std::move(options)) {}

    const platform::KeyVendorIdentity identity;
    httplib::Server server;
    ExclusivePort exclusive{server};
    std::thread thread;
    int port = -1;

    mutable std::mutex mutex;
    Options options;
    std::function<void(const Exchange&)> observer;
    std::vector<Exchange> exchanges;
    bool stopping = false;
    std::condition_variable stopped;

    bool bind(std::string* error);
    void handle(const httplib::Request& request, httplib::Response& response);
    // Fills the answer for a request that passed every check.
    void answer(Exchange& exchange, const platform::KeyRequestSession& session, httplib::Response& response);
};

bool LicenseServer::Impl::bind(std::string* error) {
    server.Post(".*", [this](const httplib::Request& request, httplib::Response& response) {
        handle(request, response);
    });
    const auto refuseMethod = [this](const httplib::Request& request, httplib::Response& response) {
        handle(request, response);
    };
    server.Get(".*", refuseMethod);
    server.Put(".*", refuseMethod);
    server.Delete(".*", refuseMethod);
    server.set_tcp_nodelay(true);
    // One request per connection: a pooled client connection must not hold stop() for the
    // keep-alive timeout.
    server.set_keep_alive_max_count(1);
    std::lock_guard lock(mutex);
    port = options.port == 0 ? server.bind_to_any_port(options.host)
                             : (server.bind_to_port(options.host, options.port) ? options.port : -1);
    if (port < 0 && error) *error = "cannot listen on " + options.host + ":" + std::to_string(options.port);
    if (port >= 0) exclusive.deepen();
    return port >= 0;
}

void LicenseServer::Impl::handle(const httplib::Request& request, httplib::Response& response) {
    Exchange exchange;
    exchange.method = request.method;
    exchange.contentType = request.get_header_value("Content-Type");
    exchange.body = request.body;
    for (const auto& [name, value] : request.headers)
        exchange.headers.emplace_back(name, value);

    const auto refuse = [&](int status, std::string reason) {
        exchange.status = status;
        exchange.reason = std::move(reason);
        response.status = status;
        response.set_content(exchange.reason + "\n", "text/plain");
    };
    const auto fields = formFields(request.body);
    if (auto asset = fields.find("assetId"); asset != fields.end()) exchange.assetId = asset->second;
    if (auto os = fields.find("os_version"); os != fields.end()) exchange.osVersion = os->second;

    std::optional<platform::KeyRequestSession> session;
    if (request.method != "POST") {
        refuse(405, "licence requests are POSTed");
    } else if (exchange.contentType != formType) {
        refuse(415, "the body must be " + std::string(formType));
    } else if (!fields.contains("spc") || !fields.contains("assetId")) {
        refuse(400, "the form needs spc and assetId");
    } else if (auto spc = Base64::decodeIgnoringUnknownCharacters(fields.at("spc")); !spc) {
        refuse(400, "spc is not base64");
    } else if (auto read = platform::KeyExchange::readRequest(*spc, identity);
               auto* reason = std::get_if<std::string>(&read)) {
        refuse(400, "bad spc: " + *reason);
    } else if (std::get<platform::KeyRequestSession>(read).contentIdentifier != exchange.assetId) {
        refuse(400, "assetId " + exchange.assetId + " is not the asset of the spc");
    } else {
        session = std::get<platform::KeyRequestSession>(std::move(read));
        exchange.persistent = session->persistent;
    }
    if (session) answer(exchange, *session, response);

    std::function<void(const Exchange&)> observer;
    {
        std::lock_guard lock(mutex);
        exchanges.push_back(exchange);
        observer = this->observer;
    }
    if (observer) observer(exchange);
}

void LicenseServer::Impl::answer(Exchange& exchange, const platform::KeyRequestSession& session,
                                 httplib::Response& response) {
    Fault fault;
    int faultStatus;
    std::chrono::milliseconds slowDelay;
    bool wrap;
    std::optional<platform::ContentKey> key;
    std::int64_t lease;
    {
        std::lock_guard lock(mutex);
        fault = options.fault;
        faultStatus = options.faultStatus;
        slowDelay = options.slowDelay;
        wrap = options.wrap;
        lease = options.persistentLease;
        if (auto found = options.keys.find(session.contentIdentifier); found != options.keys.end())
            key = found->second;
    }
    if (!key) {
        exchange.status = response.status = 404;
        exchange.reason = "no key for " + session.contentIdentifier;
        return response.set_content(exchange.reason + "\n", "text/plain");
    }
    exchange.status = response.status = 200;
    exchange.reason = "ok";
    if (fault == Fault::status) {
        exchange.status = response.status = faultStatus;
        exchange.reason = "fault: status " + std::to_string(faultStatus);
        return response.set_content(exchange.reason + "\n", "text/plain");
    }
    if (fault == Fault::empty) {
        exchange.reason = "fault: empty body";
        return response.set_content("", "text/plain");
    }
    if (fault == Fault::garbage) {
        exchange.reason = "fault: not base64";
        return response.set_content("%%% this is not a key %%%", "text/plain");
    }
    if (fault == Fault::slow) {
        exchange.reason = "fault: slow";
        std::unique_lock lock(mutex);
        stopped.wait_for(lock, slowDelay, [this] { return stopping; });
    }
    platform::KeyRequestSession target = session;
    if (fault == Fault::otherAsset) {
        target.contentIdentifier += "-other";
        exchange.reason = "fault: ckc for " + target.contentIdentifier;
    }
    if (session.persistent && lease > 0 && key->expiry == 0) {
        key->expiry = std::chrono::duration_cast<std::chrono::seconds>(
                          std::chrono::system_clock::now().time_since_epoch())
                          .count() +
                      lease;
    }
    auto ckc = platform::KeyExchange::makeAnswer(target, *key);
    if (!ckc) {
        exchange.status = response.status = 500;
        exchange.reason = "the key for " + session.contentIdentifier + " cannot be wrapped";
        return response.set_content(exchange.reason + "\n", "text/plain");
    }
    if (fault == Fault::tamper) {
        (*ckc)[ckc->size() - 20] ^= 0x01;
        exchange.reason = "fault: tampered ckc";
    }
    const auto text = Base64::encode(*ckc);
    response.set_content(wrap ? "<ckc>" + text + "</ckc>\n" : text, "text/plain");
}

LicenseServer::LicenseServer(platform::KeyVendorIdentity identity, Options options)
    : impl_(std::make_unique<Impl>(std::move(identity), std::move(options))) {}

LicenseServer::~LicenseServer() {
    stop();
}

bool LicenseServer::start(std::string* error) {
    if (!impl_->bind(error)) return false;
    // The socket already listens, so clients may connect before the accept loop runs.
    impl_->thread = std::thread([this] { impl_->server.listen_after_bind(); });
    return true;
}

bool LicenseServer::listen(std::string* error) {
    if (!impl_->bind(error)) return false;
    return impl_->server.listen_after_bind();
}

void LicenseServer::stop() {
    {
        std::lock_guard lock(impl_->mutex);
        impl_->stopping = true;
    }
    impl_->stopped.notify_all();
    impl_->server.stop();
    if (impl_->thread.joinable()) impl_->thread.join();
}

int LicenseServer::port() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->port;
}

std::string LicenseServer::url() const {
    std::lock_guard lock(impl_->mutex);
    return "http://" + impl_->options.host + ":" + std::to_string(impl_->port) + "/license";
}

const platform::KeyVendorIdentity& LicenseServer::identity() const {
    return impl_->identity;
}

void LicenseServer::setFault(Fault fault, int status) {
    std::lock_guard lock(impl_->mutex);
    impl_->options.fault = fault;
    impl_->options.faultStatus = status;
}

void LicenseServer::setObserver(std::function<void(const Exchange&)> observer) {
    std::lock_guard lock(impl_->mutex);
    impl_->observer = std::move(observer);
}

std::vector<LicenseServer::Exchange> LicenseServer::exchanges() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->exchanges;
}

std::variant<std::map<std::string, platform::ContentKey>, std::string>
LicenseServer::readKeys(const std::string& text) {
    auto json = nlohmann::json::parse(text, nullptr, false);
    if (json.is_discarded() || !json.is_object()) return std::string("the keys file is not a JSON object");
    std::map<std::string, platform::ContentKey> keys;
    for (const auto& [asset, entry] : json.items()) {
        if (!entry.is_object() || !entry.contains("key") || !entry.contains("iv") ||
            !entry["key"].is_string() || !entry["iv"].is_string())
            return "the entry of " + asset + " needs \"key\" and \"iv\"";
        auto key = fromHex(entry["key"].get<std::string>());
        auto iv = fromHex(entry["iv"].get<std::string>());
        if (!key || !iv) return "the key and IV of " + asset + " must be 32 hex digits each";
        keys.emplace(asset, platform::ContentKey{*key, *iv, asset, 0});
    }
    return keys;
}

} // namespace ovalto::tool
