#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include "platform/CHandle.h"

namespace ovalto::platform::openssl {

// Owning handles for the libcrypto objects the key system makes.
using Certificate = CHandle<X509, X509_free>;
using Bio = CHandle<BIO, BIO_free>;
using KeyContext = CHandle<EVP_PKEY_CTX, EVP_PKEY_CTX_free>;
using CipherContext = CHandle<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>;

} // namespace ovalto::platform::openssl
