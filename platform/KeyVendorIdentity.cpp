#include "platform/KeyVendorIdentity.h"

#include "platform/OpenSslHandles.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

namespace ovalto::platform {

namespace {

Data drain(BIO* bio) {
    char* bytes = nullptr;
    const long length = BIO_get_mem_data(bio, &bytes);
    return length > 0 ? Data(bytes, static_cast<std::size_t>(length)) : Data();
}

Data pemOf(X509* certificate) {
    openssl::Bio bio(BIO_new(BIO_s_mem()));
    if (!bio || PEM_write_bio_X509(bio.get(), certificate) != 1) return {};
    return drain(bio.get());
}

} // namespace

std::optional<KeyVendorIdentity> KeyVendorIdentity::generate(const std::string& commonName) {
    std::shared_ptr<EVP_PKEY> key(EVP_RSA_gen(2048), EVP_PKEY_free);
    openssl::Certificate certificate(X509_new());
    if (!key || !certificate) return std::nullopt;
    X509_set_version(certificate.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 10L * 365 * 24 * 3600);
    X509_NAME* name = X509_get_subject_name(certificate.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1, 0);
    X509_set_issuer_name(certificate.get(), name);
    if (X509_set_pubkey(certificate.get(), key.get()) != 1 ||
        X509_sign(certificate.get(), key.get(), EVP_sha256()) == 0)
        return std::nullopt;
    Data pem = pemOf(certificate.get());
    auto parsed = ApplicationCertificate::read(pem);
    if (!std::holds_alternative<ApplicationCertificate>(parsed)) return std::nullopt;
    return KeyVendorIdentity(std::move(key), std::get<ApplicationCertificate>(std::move(parsed)),
                             std::move(pem));
}

std::variant<KeyVendorIdentity, std::string> KeyVendorIdentity::read(std::string_view privateKeyPem,
                                                                     std::string_view certificate) {
    openssl::Bio bio(BIO_new_mem_buf(privateKeyPem.data(), static_cast<int>(privateKeyPem.size())));
    std::shared_ptr<EVP_PKEY> key(
        bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr) : nullptr, EVP_PKEY_free);
    if (!key || EVP_PKEY_base_id(key.get()) != EVP_PKEY_RSA)
        return std::string("not an RSA private key in PEM form");
    auto parsed = ApplicationCertificate::read(certificate);
    if (auto* error = std::get_if<Error>(&parsed)) return error->localizedDescription;
    auto& applicationCertificate = std::get<ApplicationCertificate>(parsed);
    if (EVP_PKEY_eq(key.get(), applicationCertificate.publicKey().get()) != 1)
        return std::string("the certificate is not the private key's");
    // Keep the certificate in PEM form, whichever form it came in.
    Data pem(certificate);
    if (pem.find("-----BEGIN") == Data::npos) {
        const auto* der = reinterpret_cast<const unsigned char*>(pem.data());
        openssl::Certificate x509(d2i_X509(nullptr, &der, static_cast<long>(pem.size())));
        pem = x509 ? pemOf(x509.get()) : Data();
    }
    return KeyVendorIdentity(std::move(key), std::move(applicationCertificate), std::move(pem));
}

Data KeyVendorIdentity::privateKeyPem() const {
    openssl::Bio bio(BIO_new(BIO_s_mem()));
    if (!bio ||
        PEM_write_bio_PrivateKey(bio.get(), privateKey_.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1)
        return {};
    return drain(bio.get());
}

std::optional<Data> KeyVendorIdentity::unwrap(std::string_view wrapped, std::string_view label) const {
    openssl::KeyContext context(EVP_PKEY_CTX_new(privateKey_.get(), nullptr));
    if (!context || EVP_PKEY_decrypt_init(context.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_OAEP_PADDING) != 1 ||
        EVP_PKEY_CTX_set_rsa_oaep_md(context.get(), EVP_sha256()) != 1)
        return std::nullopt;
    void* labelCopy = OPENSSL_memdup(label.data(), label.size());
    if (!labelCopy ||
        EVP_PKEY_CTX_set0_rsa_oaep_label(context.get(), labelCopy, static_cast<int>(label.size())) != 1) {
        OPENSSL_free(labelCopy);
        return std::nullopt;
    }
    const auto* in = reinterpret_cast<const unsigned char*>(wrapped.data());
    std::size_t length = 0;
    if (EVP_PKEY_decrypt(context.get(), nullptr, &length, in, wrapped.size()) != 1) return std::nullopt;
    Data out(length, '\0');
    if (EVP_PKEY_decrypt(context.get(), reinterpret_cast<unsigned char*>(out.data()), &length, in,
                         wrapped.size()) != 1)
        return std::nullopt;
    out.resize(length);
    return out;
}

} // namespace ovalto::platform
