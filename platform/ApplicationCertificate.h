#pragma once

#include "platform/Error.h"

#include <memory>
#include <string_view>
#include <variant>

typedef struct evp_pkey_st EVP_PKEY;

namespace ovalto::platform {

// The application certificate a key request is made with: an X.509 certificate (DER or PEM)
// whose RSA public key belongs to the licence server. Key requests carry their session key
// encrypted to it, so only the holder of the matching private key can answer them.
class ApplicationCertificate {
public:
    // A loader error (loaderErrorInvalidCertificate) when the bytes are not an RSA certificate.
    static std::variant<ApplicationCertificate, Error> read(std::string_view bytes);

    // SHA-256 of the DER form: names the certificate inside a key request.
    const Data& digest() const { return digest_; }
    const std::shared_ptr<EVP_PKEY>& publicKey() const { return publicKey_; }

    // RSA-OAEP (SHA-256) of `secret` under the certificate's key, bound to `label`.
    std::variant<Data, Error> wrap(std::string_view secret, std::string_view label) const;

private:
    ApplicationCertificate(std::shared_ptr<EVP_PKEY> key, Data digest)
        : publicKey_(std::move(key))
        , digest_(std::move(digest)) {}

    std::shared_ptr<EVP_PKEY> publicKey_;
    Data digest_;
};

} // namespace ovalto::platform
