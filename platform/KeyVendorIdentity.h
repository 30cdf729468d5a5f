#pragma once

#include "platform/ApplicationCertificate.h"
#include "platform/Error.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace ovalto::platform {

// The licence server's side of the application certificate: its RSA private key and the
// self-signed certificate that applications are given. Only this side can open key requests.
class KeyVendorIdentity {
public:
    // A fresh 2048-bit key and a certificate for it, valid for ten years.
    static std::optional<KeyVendorIdentity> generate(const std::string& commonName);
    // From a PEM private key and its certificate (DER or PEM); a reason when they do not match.
    static std::variant<KeyVendorIdentity, std::string> read(std::string_view privateKeyPem,
                                                             std::string_view certificate);

    const ApplicationCertificate& certificate() const { return certificate_; }
    const Data& certificatePem() const { return certificatePem_; }
    Data privateKeyPem() const;

    // Reverses ApplicationCertificate::wrap with the same label; no value for anything else.
    std::optional<Data> unwrap(std::string_view wrapped, std::string_view label) const;

private:
    KeyVendorIdentity(std::shared_ptr<EVP_PKEY> key, ApplicationCertificate certificate, Data certificatePem)
        : privateKey_(std::move(key))
        , certificate_(std::move(certificate))
        , certificatePem_(std::move(certificatePem)) {}

    std::shared_ptr<EVP_PKEY> privateKey_;
    ApplicationCertificate certificate_;
    Data certificatePem_;
};

} // namespace ovalto::platform
