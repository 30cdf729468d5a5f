#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>

namespace ovalto::platform::openssl {

// Owning handles for the libcrypto objects the key system makes, freed with libcrypto's own calls.
struct FreeCertificate {
    void operator()(X509* certificate) const { X509_free(certificate); }
};
struct FreeBio {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
struct FreeKeyContext {
    void operator()(EVP_PKEY_CTX* context) const { EVP_PKEY_CTX_free(context); }
};
struct FreeCipherContext {
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};

using Certificate = std::unique_ptr<X509, FreeCertificate>;
using Bio = std::unique_ptr<BIO, FreeBio>;
using KeyContext = std::unique_ptr<EVP_PKEY_CTX, FreeKeyContext>;
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, FreeCipherContext>;

} // namespace ovalto::platform::openssl
