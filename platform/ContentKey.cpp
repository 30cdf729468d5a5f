#include "platform/ContentKey.h"

#include "platform/BinaryFormat.h"
#include "platform/DeviceSecret.h"
#include "platform/KeyExchange.h"
#include "platform/LoadingRequest.h"
#include "platform/SealedBox.h"

namespace ovalto::platform {

namespace {

// Persistable key, version 1: "OPCK" | version | u16 length + asset | expiry (i64)
// | AES-256-GCM under the device secret of key (16) | IV (16), with the header as additional data.
constexpr std::string_view persistableMagic = "OPCK";
constexpr std::uint8_t persistableVersion = 1;

Error loaderError(LoaderErrorCode code, std::string description) {
    return Error{Error::loaderDomain, code, std::move(description), {}};
}

struct Header {
    std::string_view assetId;
    std::int64_t expiry = 0;
    std::size_t size = 0;
};

std::optional<Header> readHeader(std::string_view bytes) {
    BinaryFormat::Reader reader(bytes);
    auto magic = reader.bytes(persistableMagic.size());
    auto version = reader.unsignedValue(1);
    auto asset = reader.shortString();
    auto expiry = reader.unsignedValue(8);
    if (magic != persistableMagic || version != persistableVersion || !asset || !expiry) return std::nullopt;
    return Header{*asset, static_cast<std::int64_t>(*expiry), reader.consumed(bytes)};
}

} // namespace

bool ContentKey::isExpired(std::chrono::system_clock::time_point now) const {
    if (expiry == 0) return false;
    return std::chrono::duration_cast<std::chrono::seconds>(now.time_since_epoch()).count() >= expiry;
}

std::variant<Data, Error> ContentKey::seal() const {
    if (key.size() != size || iv.size() != size)
        return loaderError(loaderErrorInvalidKeyResponse, "The content key is not a 128-bit key and IV.");
    auto secret = DeviceSecret::current();
    if (auto* error = std::get_if<Error>(&secret)) return *error;
    Data header(persistableMagic);
    header += static_cast<char>(persistableVersion);
    if (!BinaryFormat::appendShortString(header, assetId))
        return loaderError(loaderErrorInvalidContentIdentifier, "The content identifier is not valid.");
    BinaryFormat::appendUnsigned(header, static_cast<std::uint64_t>(expiry), 8);
    auto box = SealedBox::seal(std::get<Data>(secret), header, key + iv);
    if (!box) return loaderError(loaderErrorKeyStorageUnavailable, "The content key cannot be sealed.");
    return header + *box;
}

std::variant<ContentKey, Error> ContentKey::unseal(std::string_view persistable) {
    auto header = readHeader(persistable);
    if (!header)
        return loaderError(loaderErrorInvalidKeyResponse, "The stored key is not a persistable content key.");
    auto secret = DeviceSecret::current();
    if (auto* error = std::get_if<Error>(&secret)) return *error;
    auto material = SealedBox::open(std::get<Data>(secret), persistable.substr(0, header->size),
                                    persistable.substr(header->size));
    if (!material || material->size() != 2 * size) {
        return loaderError(loaderErrorInvalidKeyResponse,
                           "The stored key cannot be opened: it was changed or sealed on another device.");
    }
    return ContentKey{material->substr(0, size), material->substr(size), std::string(header->assetId),
                      header->expiry};
}

std::optional<ContentKey::Description> ContentKey::describe(std::string_view persistable) {
    auto header = readHeader(persistable);
    if (!header) return std::nullopt;
    return Description{std::string(header->assetId), header->expiry};
}

std::variant<ContentKey, Error> ContentKey::fromKeyAnswer(std::string_view answer,
                                                          const std::optional<std::string>& contentType,
                                                          const std::optional<KeyRequestSession>& session,
                                                          std::string_view assetId) {
    std::variant<ContentKey, Error> key =
        loaderError(loaderErrorInvalidKeyResponse,
                    "The key answer for " + std::string(assetId) + " answers no key request that was made.");
    if (contentType == streamingKeyDeliveryPersistentContentKeyType)
        key = unseal(answer);
    else if (session)
        key = KeyExchange::readAnswer(answer, *session);
    auto* found = std::get_if<ContentKey>(&key);
    if (!found) return key;
    if (found->assetId != assetId) {
        return loaderError(loaderErrorKeyForAnotherAsset,
                           "The key is for " + found->assetId + ", not for " + std::string(assetId) + ".");
    }
    if (found->isExpired())
        return loaderError(loaderErrorKeyExpired, "The key for " + found->assetId + " has expired.");
    return key;
}

} // namespace ovalto::platform
