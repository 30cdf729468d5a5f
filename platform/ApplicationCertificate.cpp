#include "platform/ApplicationCertificate.h"

#include "platform/OpenSslHandles.h"

#include "platform/LoadingRequest.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

namespace ovalto::platform {

namespace {

Error certificateError(std::string description) {
    return Error{Error::loaderDomain, loaderErrorInvalidCertificate, std::move(description), {}};
}

openssl::Certificate parse(std::string_view bytes) {
    openssl::Bio bio(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
    if (!bio) return nullptr;
    if (bytes.find("-----BEGIN") != std::string_view::npos)
        return openssl::Certificate(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    const auto* der = reinterpret_cast<const unsigned char*>(bytes.data());
    openssl::Certificate certificate(d2i_X509(nullptr, &der, static_cast<long>(bytes.size())));
    // Trailing bytes after the certificate mean it is something else that happens to start like one.
    if (certificate && der != reinterpret_cast<const unsigned char*>(bytes.data()) + bytes.size())
        return nullptr;
    return certificate;
}

} // namespace

std::variant<ApplicationCertificate, Error> ApplicationCertificate::read(std::string_view bytes) {
    if (bytes.empty() || bytes.size() > 1'000'000)
        return certificateError("The application certificate is not valid.");
    auto certificate = parse(bytes);
    if (!certificate) return certificateError("The application certificate is not an X.509 certificate.");
    std::shared_ptr<EVP_PKEY> key(X509_get_pubkey(certificate.get()), EVP_PKEY_free);
    if (!key || EVP_PKEY_base_id(key.get()) != EVP_PKEY_RSA)
        return certificateError("The application certificate has no RSA public key.");
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (X509_digest(certificate.get(), EVP_sha256(), digest, &length) != 1)
        return certificateError("The application certificate cannot be digested.");
    return ApplicationCertificate(std::move(key), Data(reinterpret_cast<const char*>(digest), length));
}

std::variant<Data, Error> ApplicationCertificate::wrap(std::string_view secret,
                                                       std::string_view label) const {
    openssl::KeyContext context(EVP_PKEY_CTX_new(publicKey_.get(), nullptr));
    if (!context || EVP_PKEY_encrypt_init(context.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_OAEP_PADDING) != 1 ||
        EVP_PKEY_CTX_set_rsa_oaep_md(context.get(), EVP_sha256()) != 1) {
        return certificateError("The application certificate's key cannot encrypt.");
    }
    // The context takes ownership of the label copy.
    void* labelCopy = OPENSSL_memdup(label.data(), label.size());
    if (!labelCopy ||
        EVP_PKEY_CTX_set0_rsa_oaep_label(context.get(), labelCopy, static_cast<int>(label.size())) != 1) {
        OPENSSL_free(labelCopy);
        return certificateError("The application certificate's key cannot encrypt.");
    }
    std::size_t length = 0;
    const auto* in = reinterpret_cast<const unsigned char*>(secret.data());
    if (EVP_PKEY_encrypt(context.get(), nullptr, &length, in, secret.size()) != 1)
        return certificateError("The application certificate's key cannot encrypt.");
    Data out(length, '\0');
    if (EVP_PKEY_encrypt(context.get(), reinterpret_cast<unsigned char*>(out.data()), &length, in,
                         secret.size()) != 1)
        return certificateError("The application certificate's key cannot encrypt.");
    out.resize(length);
    return out;
}

} // namespace ovalto::platform
