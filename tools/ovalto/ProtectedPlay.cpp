#include "ProtectedPlay.h"

#include "Command.h"
#include "Origin.h"
#include "Timeline.h"
#include "platform/Device.h"
#include "platform/Url.h"

#include <filesystem>

namespace ovalto::tool {

ProtectedPlay::ProtectedPlay() = default;
ProtectedPlay::~ProtectedPlay() = default;
ProtectedPlay::ProtectedPlay(ProtectedPlay&&) noexcept = default;
ProtectedPlay& ProtectedPlay::operator=(ProtectedPlay&&) noexcept = default;

std::string ProtectedPlay::sampleDirectory() {
    return (std::filesystem::path(builtInSampleDirectory()).parent_path() / "protected").string();
}

int ProtectedPlay::parse(const std::vector<std::string>& args, std::size_t& i, std::string& error) {
    const auto& arg = args[i];
    if (arg == "--protected") {
        sample_ = true;
        return 1;
    }
    if (arg != "--license-server" && arg != "--cert" && arg != "--license-header" && arg != "--os-version")
        return 0;
    if (i + 1 >= args.size()) {
        error = arg + " needs a value";
        return -1;
    }
    const auto& value = args[++i];
    if (arg == "--license-server") {
        server_ = value;
    } else if (arg == "--cert") {
        certificate_ = value;
    } else if (arg == "--os-version") {
        platform::Device::setSystemVersion(value);
    } else {
        const auto colon = value.find(':');
        if (colon == std::string::npos || colon == 0) {
            error = "--license-header takes NAME:VALUE, not '" + value + "'";
            return -1;
        }
        auto headerValue = value.substr(colon + 1);
        while (!headerValue.empty() && headerValue.front() == ' ')
            headerValue.erase(0, 1);
        headers_[value.substr(0, colon)] = headerValue;
    }
    return 1;
}

bool ProtectedPlay::servesSample() const {
    return sample_;
}

std::optional<std::string> ProtectedPlay::start(Timeline& timeline, std::string& error) {
    const auto directory = sampleDirectory();
    const auto keysText = readFile(directory + "/keys.json");
    const auto privateKey = readFile(directory + "/license-key.pem");
    const auto certificate = readFile(directory + "/license-cert.pem");
    if (!keysText || !privateKey || !certificate) {
        error = "the protected sample is incomplete in " + directory + " (run samples/make-protected.sh)";
        return std::nullopt;
    }
    auto keys = LicenseServer::readKeys(*keysText);
    auto identity = platform::KeyVendorIdentity::read(*privateKey, *certificate);
    if (auto* reason = std::get_if<std::string>(&keys)) return error = *reason, std::nullopt;
    if (auto* reason = std::get_if<std::string>(&identity)) return error = *reason, std::nullopt;

    LicenseServer::Options options;
    options.keys = std::get<0>(std::move(keys));
    licenseServer_ = std::make_unique<LicenseServer>(
        std::get<platform::KeyVendorIdentity>(std::move(identity)), std::move(options));
    licenseServer_->setObserver([&timeline](const LicenseServer::Exchange& exchange) {
        timeline.event(
            "licence",
            "key request for skd://" + exchange.assetId + " -> licence server " +
                std::to_string(exchange.status) + " (" + exchange.reason + ")" +
                (exchange.persistent ? ", persistable" : ""),
            {{"assetId", exchange.assetId}, {"status", exchange.status}, {"reason", exchange.reason}});
    });
    if (!licenseServer_->start(&error)) return std::nullopt;

    Origin::Options serve;
    serve.directory = directory;
    origin_ = std::make_unique<Origin>(serve);
    if (!origin_->start(&error)) return std::nullopt;
    const auto url = origin_->baseUrl() + "master.m3u8";
    timeline.event("origin",
                   "serving the protected sample at " + url + ", licences at " + licenseServer_->url(),
                   {{"url", url}, {"licenseServer", licenseServer_->url()}});
    if (!server_) server_ = licenseServer_->url();
    if (!certificate_) certificate_ = directory + "/license-cert.pem";
    return url;
}

bool ProtectedPlay::configure(Configurations& configurations, std::string& error) const {
    if (!server_ && !certificate_ && headers_.empty()) return true;
    if (!server_ || !certificate_) {
        error = "protected playback needs both --license-server and --cert";
        return false;
    }
    return licenseConfiguration(*server_, *certificate_, headers_, configurations, error);
}

bool ProtectedPlay::licenseConfiguration(const std::string& server, const std::string& certificate,
                                         const Headers& headers, Configurations& configurations,
                                         std::string& error) {
    auto serverUrl = platform::Url::parse(server);
    if (!serverUrl || !serverUrl->scheme()) {
        error = "'" + server + "' is not a licence server URL";
        return false;
    }
    configurations[ConfigurationKey::licenseServerUrl] = *serverUrl;
    if (certificate.starts_with("http://") || certificate.starts_with("https://") ||
        certificate.starts_with("file://")) {
        auto certificateUrl = platform::Url::parse(certificate);
        if (!certificateUrl) {
            error = "'" + certificate + "' is not a URL";
            return false;
        }
        configurations[ConfigurationKey::certUrl] = *certificateUrl;
    } else {
        auto bytes = readFile(certificate);
        if (!bytes) {
            error = "cannot read the certificate " + certificate;
            return false;
        }
        configurations[ConfigurationKey::certData] = platform::Data(*bytes);
    }
    if (!headers.empty()) configurations[ConfigurationKey::licenseServerHeader] = headers;
    return true;
}

} // namespace ovalto::tool
