// The key system's messages as a device and a licence server read them: key requests, answers,
// stored keys and licence-answer base64. Nothing may crash, and whatever is accepted must be
// what the other side could have written.
#include "FuzzSupport.h"
#include "Utils/Base64.h"
#include "platform/ContentKey.h"
#include "platform/KeyExchange.h"
#include "platform/KeyVendorIdentity.h"
#include "platform/LoadingRequest.h"

#include <cstdint>

using namespace ovalto;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const auto identity = platform::KeyVendorIdentity::generate("fuzz");
    static const platform::KeyRequestSession session{platform::Data(32, 's'), "abc123", false};
    const std::string_view input(reinterpret_cast<const char*>(data), size);

    auto request = platform::KeyExchange::readRequest(input, *identity);
    if (auto* read = std::get_if<platform::KeyRequestSession>(&request))
        fuzz::check(read->sessionKey.size() == 32, "a key request opened to a session key of another size",
                    input);

    auto answer = platform::KeyExchange::readAnswer(input, session);
    if (auto* key = std::get_if<platform::ContentKey>(&answer)) {
        fuzz::check(key->key.size() == 16 && key->iv.size() == 16, "an answer with a key of another size",
                    input);
        fuzz::check(key->assetId == session.contentIdentifier, "an answer for another asset accepted", input);
    }

    if (auto description = platform::ContentKey::describe(input)) {
        auto stored = platform::ContentKey::unseal(input);
        if (auto* key = std::get_if<platform::ContentKey>(&stored))
            fuzz::check(key->assetId == description->assetId, "a stored key that opens to another asset",
                        input);
    }

    if (auto decoded = Base64::decodeIgnoringUnknownCharacters(input)) {
        auto again = Base64::decodeIgnoringUnknownCharacters(Base64::encode(*decoded));
        fuzz::check(again == decoded, "base64 that does not read back", input);
    }
    return 0;
}
