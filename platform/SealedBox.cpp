#include "platform/SealedBox.h"

#include "platform/OpenSslHandles.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <memory>

namespace ovalto::platform {

namespace {

constexpr int nonceSize = 12;
constexpr int tagSize = 16;

const unsigned char* bytesOf(std::string_view text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}
unsigned char* bytesOf(Data& data) {
    return reinterpret_cast<unsigned char*>(data.data());
}

} // namespace

std::optional<Data> SealedBox::randomBytes(std::size_t count) {
    Data bytes(count, '\0');
    if (count > 0 && RAND_bytes(bytesOf(bytes), static_cast<int>(count)) != 1) return std::nullopt;
    return bytes;
}

std::optional<Data> SealedBox::seal(std::string_view key, std::string_view additionalData,
                                    std::string_view plaintext) {
    if (key.size() != keySize) return std::nullopt;
    auto nonce = randomBytes(nonceSize);
    openssl::CipherContext context(EVP_CIPHER_CTX_new());
    if (!nonce || !context) return std::nullopt;
    Data box = *nonce;
    box.resize(nonceSize + plaintext.size() + tagSize);
    int length = 0;
    bool ok =
        EVP_EncryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, bytesOf(key), bytesOf(*nonce)) == 1 &&
        EVP_EncryptUpdate(context.get(), nullptr, &length, bytesOf(additionalData),
                          static_cast<int>(additionalData.size())) == 1 &&
        EVP_EncryptUpdate(context.get(), bytesOf(box) + nonceSize, &length, bytesOf(plaintext),
                          static_cast<int>(plaintext.size())) == 1 &&
        EVP_EncryptFinal_ex(context.get(), bytesOf(box) + nonceSize + length, &length) == 1 &&
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_GET_TAG, tagSize,
                            bytesOf(box) + nonceSize + plaintext.size()) == 1;
    if (!ok) return std::nullopt;
    return box;
}

std::optional<Data> SealedBox::open(std::string_view key, std::string_view additionalData,
                                    std::string_view box) {
    if (key.size() != keySize || box.size() < overhead) return std::nullopt;
    const auto nonce = box.substr(0, nonceSize);
    const auto ciphertext = box.substr(nonceSize, box.size() - overhead);
    Data tag(box.substr(box.size() - tagSize));
    openssl::CipherContext context(EVP_CIPHER_CTX_new());
    if (!context) return std::nullopt;
    Data plaintext(ciphertext.size(), '\0');
    int length = 0;
    bool ok =
        EVP_DecryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, bytesOf(key), bytesOf(nonce)) == 1 &&
        EVP_DecryptUpdate(context.get(), nullptr, &length, bytesOf(additionalData),
                          static_cast<int>(additionalData.size())) == 1 &&
        EVP_DecryptUpdate(context.get(), bytesOf(plaintext), &length, bytesOf(ciphertext),
                          static_cast<int>(ciphertext.size())) == 1 &&
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_TAG, tagSize, bytesOf(tag)) == 1 &&
        EVP_DecryptFinal_ex(context.get(), bytesOf(plaintext) + length, &length) == 1;
    if (!ok) return std::nullopt;
    return plaintext;
}

} // namespace ovalto::platform
