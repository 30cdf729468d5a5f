#include "platform/SegmentCipher.h"

#include "platform/OpenSslHandles.h"

#include <openssl/evp.h>

#include <array>
#include <memory>

namespace ovalto::platform {

namespace {

constexpr std::size_t blockSize = 16;

std::optional<Data> run(bool encrypting, std::string_view in, std::string_view key, std::string_view iv) {
    if (key.size() != blockSize || iv.size() != blockSize) return std::nullopt;
    if (!encrypting && (in.empty() || in.size() % blockSize != 0)) return std::nullopt;
    openssl::CipherContext context(EVP_CIPHER_CTX_new());
    if (!context) return std::nullopt;
    const auto* keyBytes = reinterpret_cast<const unsigned char*>(key.data());
    const auto* ivBytes = reinterpret_cast<const unsigned char*>(iv.data());
    if (EVP_CipherInit_ex(context.get(), EVP_aes_128_cbc(), nullptr, keyBytes, ivBytes, encrypting ? 1 : 0) !=
        1)
        return std::nullopt;
    Data out(in.size() + blockSize, '\0');
    auto* outBytes = reinterpret_cast<unsigned char*>(out.data());
    int written = 0, last = 0;
    if (EVP_CipherUpdate(context.get(), outBytes, &written, reinterpret_cast<const unsigned char*>(in.data()),
                         static_cast<int>(in.size())) != 1 ||
        EVP_CipherFinal_ex(context.get(), outBytes + written, &last) != 1)
        return std::nullopt;
    out.resize(static_cast<std::size_t>(written + last));
    return out;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

} // namespace

std::optional<Data> SegmentCipher::encrypt(std::string_view clear, std::string_view key,
                                           std::string_view iv) {
    return run(true, clear, key, iv);
}

std::optional<Data> SegmentCipher::decrypt(std::string_view encrypted, std::string_view key,
                                           std::string_view iv) {
    return run(false, encrypted, key, iv);
}

bool SegmentCipher::looksLikeMedia(std::string_view clear) {
    constexpr std::size_t packet = 188;
    if (!clear.empty() && clear[0] == 0x47) {
        // Every packet that is there must start with the sync byte, up to a handful.
        for (std::size_t at = 0; at < clear.size() && at < 8 * packet; at += packet) {
            if (clear[at] != 0x47) return false;
        }
        return true;
    }
    if (clear.size() >= 8) {
        static constexpr std::array<std::string_view, 9> boxes{"styp", "moof", "sidx", "prft", "emsg",
                                                               "ftyp", "moov", "mdat", "free"};
        const auto type = clear.substr(4, 4);
        for (auto box : boxes) {
            if (type == box) return true;
        }
    }
    if (clear.starts_with("ID3")) return true;
    return clear.size() >= 2 && static_cast<unsigned char>(clear[0]) == 0xff &&
           (static_cast<unsigned char>(clear[1]) & 0xf6) == 0xf0;
}

std::optional<Data> SegmentCipher::ivFromAttribute(std::string_view text) {
    if (!(text.starts_with("0x") || text.starts_with("0X"))) return std::nullopt;
    text.remove_prefix(2);
    if (text.size() != 2 * blockSize) return std::nullopt;
    Data iv;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const int high = hexValue(text[i]), low = hexValue(text[i + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        iv += static_cast<char>(high * 16 + low);
    }
    return iv;
}

} // namespace ovalto::platform
