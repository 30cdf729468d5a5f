#include "Command.h"
#include "LicenseServer.h"
#include "ProtectedPlay.h"

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>

namespace ovalto::tool {

namespace {

const char* licenseServerUsage =
    R"(usage: ovalto license-server [--port P] [--keys FILE] [--identity KEY CERT] [--cert-out FILE]
                             [--wrap] [--lease S] [--fail STATUS|empty|garbage|slow|tamper|other-asset]

A licence server on loopback for "skd" keys. It answers form-encoded POSTs of
"spc=<base64>&assetId=<id>[&os_version=<v>]" with the base64 of a CKC: the asset's content key and
IV wrapped with the session key of the key request. It checks the method, the content type, the
form fields and the key request (a bad one is answered 400 with the reason), and logs every
exchange on standard error.

  --port P              the port (default: any free port)
  --keys FILE           the content keys: {"<asset>": {"key": "<32 hex>", "iv": "<32 hex>"}, …}
                        (default: the protected sample's)
  --identity KEY CERT   the private key (PEM) and certificate of the server (default: a new key)
  --cert-out FILE       write the application certificate (PEM) that goes with the server's key
  --wrap                answer <ckc>…</ckc> and a line break instead of bare base64
  --lease S             persistable keys expire S seconds after they are issued
  --fail F              misbehave: answer HTTP status F, or an empty body, text that is not
                        base64, after 31 s, a CKC with a changed byte, or a CKC for another asset

Stops on Ctrl-C.
)";

int fail(const std::string& message) {
    std::cerr << "ovalto license-server: " << message << "\n";
    return 2;
}

int licenseServer(const std::vector<std::string>& args) {
    LicenseServer::Options options;
    std::string keysPath = ProtectedPlay::sampleDirectory() + "/keys.json";
    std::optional<std::pair<std::string, std::string>> identityPaths;
    std::optional<std::string> certificateOut;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const auto& arg = args[i];
        const auto value = [&]() -> std::optional<std::string> {
            if (i + 1 >= args.size()) return std::nullopt;
            return args[++i];
        };
        if (arg == "--help" || arg == "-h") {
            std::cout << licenseServerUsage;
            return 0;
        }
        if (arg == "--wrap") {
            options.wrap = true;
            continue;
        }
        auto v = value();
        if (!v) return fail(arg + " needs a value");
        if (arg == "--port" || arg == "--lease") {
            char* end = nullptr;
            const long number = std::strtol(v->c_str(), &end, 10);
            if (*end != '\0' || number < 0 || (arg == "--port" && number > 65535))
                return fail(arg + " takes a number, not '" + *v + "'");
            if (arg == "--port") options.port = static_cast<int>(number);
            if (arg == "--lease") options.persistentLease = number;
        } else if (arg == "--keys") {
            keysPath = *v;
        } else if (arg == "--identity") {
            auto certificate = value();
            if (!certificate) return fail("--identity takes KEY CERT");
            identityPaths = {*v, *certificate};
        } else if (arg == "--cert-out") {
            certificateOut = *v;
        } else if (arg == "--fail") {
            static const std::pair<const char*, LicenseServer::Fault> faults[] = {
                {"empty", LicenseServer::Fault::empty},
                {"garbage", LicenseServer::Fault::garbage},
                {"slow", LicenseServer::Fault::slow},
                {"tamper", LicenseServer::Fault::tamper},
                {"other-asset", LicenseServer::Fault::otherAsset}};
            options.fault = LicenseServer::Fault::status;
            for (const auto& [name, fault] : faults) {
                if (*v == name) options.fault = fault;
            }
            if (options.fault == LicenseServer::Fault::status) {
                char* end = nullptr;
                const long status = std::strtol(v->c_str(), &end, 10);
                if (*end != '\0' || status < 100 || status > 599) return fail("unknown --fail " + *v);
                options.faultStatus = static_cast<int>(status);
            }
        } else {
            return fail("unknown option " + arg + "\nRun `ovalto license-server --help` for the options.");
        }
    }

    auto keysText = readFile(keysPath);
    if (!keysText) return fail("cannot read " + keysPath);
    auto keys = LicenseServer::readKeys(*keysText);
    if (auto* reason = std::get_if<std::string>(&keys)) return fail(keysPath + ": " + *reason);
    options.keys = std::get<0>(std::move(keys));

    std::optional<platform::KeyVendorIdentity> identity;
    if (identityPaths) {
        auto key = readFile(identityPaths->first);
        auto certificate = readFile(identityPaths->second);
        if (!key || !certificate) return fail("cannot read the identity files");
        auto read = platform::KeyVendorIdentity::read(*key, *certificate);
        if (auto* reason = std::get_if<std::string>(&read)) return fail(*reason);
        identity = std::get<platform::KeyVendorIdentity>(std::move(read));
    } else {
        identity = platform::KeyVendorIdentity::generate("Ovalto licence server");
        if (!identity) return fail("cannot make a key for the server");
    }
    if (certificateOut) {
        std::ofstream out(*certificateOut, std::ios::binary);
        out << identity->certificatePem();
        if (!out) return fail("cannot write " + *certificateOut);
    }

    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    LicenseServer server(std::move(*identity), std::move(options));
    server.setObserver([](const LicenseServer::Exchange& exchange) {
        std::cerr << exchange.method << " assetId=" << exchange.assetId
                  << (exchange.osVersion ? " os_version=" + *exchange.osVersion : "")
                  << (exchange.persistent ? " persistable" : "") << " -> " << exchange.status << " "
                  << exchange.reason << "\n";
    });
    std::string error;
    if (!server.start(&error)) {
        std::cerr << "ovalto license-server: " << error << "\n";
        return 1;
    }
    std::cout << "Licence server at " << server.url() << " for " << keysPath << "\n";
    if (certificateOut) std::cout << "Application certificate in " << *certificateOut << "\n";
    std::cout << std::flush;
    int signal = 0;
    sigwait(&signals, &signal);
    server.stop();
    return 0;
}

CommandRegistrar registrar({"license-server", "answer \"skd\" key requests on loopback (a licence server)",
                            licenseServer});

} // namespace

} // namespace ovalto::tool
