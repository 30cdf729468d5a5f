#include "platform/KeyExchange.h"

#include "platform/ApplicationCertificate.h"
#include "platform/BinaryFormat.h"
#include "platform/KeyVendorIdentity.h"
#include "platform/LoadingRequest.h"
#include "platform/SealedBox.h"

namespace ovalto::platform {

namespace {

constexpr std::string_view requestMagic = "OSPC";
constexpr std::string_view answerMagic = "OCKC";
constexpr std::uint8_t persistentFlag = 1;
constexpr std::size_t digestSize = 32;
constexpr std::size_t keyMaterialSize = 2 * ContentKey::size + 8;

Error loaderError(LoaderErrorCode code, std::string description) {
    return Error{Error::loaderDomain, code, std::move(description), {}};
}

} // namespace

std::variant<KeyExchange::Request, Error>
KeyExchange::makeRequest(std::string_view certificate, std::string_view contentIdentifier, bool persistent) {
    if (contentIdentifier.empty() || contentIdentifier.size() > 0xffff)
        return loaderError(loaderErrorInvalidContentIdentifier, "The content identifier is not valid.");
    auto parsed = ApplicationCertificate::read(certificate);
    if (auto* error = std::get_if<Error>(&parsed)) return *error;
    const auto& applicationCertificate = std::get<ApplicationCertificate>(parsed);

    auto sessionKey = SealedBox::randomBytes(SealedBox::keySize);
    if (!sessionKey) return loaderError(loaderErrorInvalidCertificate, "No random bytes for a session key.");
    Data spc(requestMagic);
    spc += static_cast<char>(version);
    spc += static_cast<char>(persistent ? persistentFlag : 0);
    spc += applicationCertificate.digest();
    BinaryFormat::appendShortString(spc, contentIdentifier);
    auto wrapped = applicationCertificate.wrap(*sessionKey, spc);
    if (auto* error = std::get_if<Error>(&wrapped)) return *error;
    BinaryFormat::appendShortString(spc, std::get<Data>(wrapped));
    return Request{std::move(spc),
                   KeyRequestSession{std::move(*sessionKey), std::string(contentIdentifier), persistent}};
}

std::variant<KeyRequestSession, std::string> KeyExchange::readRequest(std::string_view spc,
                                                                      const KeyVendorIdentity& identity) {
    BinaryFormat::Reader reader(spc);
    if (reader.bytes(requestMagic.size()) != requestMagic) return std::string("not a key request");
    auto requestVersion = reader.unsignedValue(1);
    if (requestVersion != version) return std::string("unknown key request version");
    auto flags = reader.unsignedValue(1);
    auto digest = reader.bytes(digestSize);
    auto identifier = reader.shortString();
    if (!flags || !digest || !identifier || identifier->empty()) return std::string("truncated key request");
    const auto label = spc.substr(0, reader.consumed(spc));
    auto wrapped = reader.shortString();
    if (!wrapped || !reader.rest().empty()) return std::string("truncated key request");
    if (*digest != identity.certificate().digest())
        return std::string("key request made for another certificate");
    auto sessionKey = identity.unwrap(*wrapped, label);
    if (!sessionKey || sessionKey->size() != SealedBox::keySize)
        return std::string("key request cannot be opened: it was changed");
    return KeyRequestSession{std::move(*sessionKey), std::string(*identifier),
                             (*flags & persistentFlag) != 0};
}

std::optional<Data> KeyExchange::makeAnswer(const KeyRequestSession& request, const ContentKey& key) {
    if (key.key.size() != ContentKey::size || key.iv.size() != ContentKey::size) return std::nullopt;
    Data ckc(answerMagic);
    ckc += static_cast<char>(version);
    if (!BinaryFormat::appendShortString(ckc, request.contentIdentifier)) return std::nullopt;
    Data material = key.key + key.iv;
    BinaryFormat::appendUnsigned(material, static_cast<std::uint64_t>(key.expiry), 8);
    auto box = SealedBox::seal(request.sessionKey, ckc, material);
    if (!box) return std::nullopt;
    return ckc + *box;
}

std::variant<ContentKey, Error> KeyExchange::readAnswer(std::string_view ckc,
                                                        const KeyRequestSession& session) {
    BinaryFormat::Reader reader(ckc);
    auto magic = reader.bytes(answerMagic.size());
    auto answerVersion = reader.unsignedValue(1);
    auto identifier = reader.shortString();
    if (magic != answerMagic || answerVersion != version || !identifier)
        return loaderError(loaderErrorInvalidKeyResponse, "The key response is not a content key context.");
    if (*identifier != session.contentIdentifier) {
        return loaderError(loaderErrorKeyForAnotherAsset, "The content key context is for " +
                                                              std::string(*identifier) + ", not for " +
                                                              session.contentIdentifier + ".");
    }
    auto material = SealedBox::open(session.sessionKey, ckc.substr(0, reader.consumed(ckc)), reader.rest());
    if (!material || material->size() != keyMaterialSize) {
        return loaderError(
            loaderErrorInvalidKeyResponse,
            "The content key context cannot be opened: it was changed or answers another request.");
    }
    BinaryFormat::Reader fields(*material);
    ContentKey key;
    key.key = Data(*fields.bytes(ContentKey::size));
    key.iv = Data(*fields.bytes(ContentKey::size));
    key.expiry = static_cast<std::int64_t>(*fields.unsignedValue(8));
    key.assetId = session.contentIdentifier;
    return key;
}

} // namespace ovalto::platform
