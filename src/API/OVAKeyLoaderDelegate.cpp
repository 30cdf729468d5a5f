#include "ovalto/OVAKeyLoaderDelegate.h"

#include "Resources/LicenseExchange.h"
#include "Utils/Base64.h"
#include "ovalto/OVALog.h"
#include "ovalto/OvaltoError.h"
#include "platform/ContentKeyRequest.h"
#include "platform/ContentKeySession.h"
#include "platform/Device.h"
#include "platform/DispatchQueue.h"
#include "platform/KeyValueStore.h"
#include "platform/LoadingRequest.h"
#include "platform/PersistableContentKeyRequest.h"

#include <algorithm>
#include <cstdio>

namespace ovalto {

namespace {

constexpr const char* loadFunction = "load(loadingRequest:)";
constexpr const char* sessionFunction = "contentKeySession(_:didProvide:)";

platform::Error notReceived() {
    return OvaltoError::inputParam("License response is not received.", 0x8603).toError();
}

// Failures of the session path that are printed rather than logged.
void print(const std::string& text) {
    std::printf("%s\n", text.c_str());
    std::fflush(stdout);
}

// Stores a persistable key and makes it durable; the error when the store refuses it.
std::optional<platform::Error> store(const platform::Data& key, const std::string& assetId) {
    auto& defaults = platform::KeyValueStore::standard();
    if (defaults.set(key, assetId) && defaults.synchronize()) return std::nullopt;
    return platform::Error{platform::Error::loaderDomain,
                           platform::loaderErrorKeyStorageUnavailable,
                           "The key for " + assetId + " cannot be stored.",
                           {}};
}

} // namespace

struct OVAKeyLoaderDelegate::Key {};

std::shared_ptr<OVAKeyLoaderDelegate> OVAKeyLoaderDelegate::create() {
    return std::make_shared<OVAKeyLoaderDelegate>(Key{});
}

OVAKeyLoaderDelegate::OVAKeyLoaderDelegate(const Key&) {}

std::vector<std::string> OVAKeyLoaderDelegate::identifieres() const {
    std::lock_guard guard(lock);
    return identifieres_;
}

void OVAKeyLoaderDelegate::report(const platform::Error& error) const {
    if (onError) onError(error);
}

bool OVAKeyLoaderDelegate::shouldWaitForLoadingOfRequestedResource(
    platform::AssetResourceLoader& /*loader*/, const std::shared_ptr<platform::LoadingRequest>& request) {
    std::lock_guard guard(lock);
    if (!platform::Device::current().systemVersionAtLeast(11, 0)) {
        auto outcome = load(request);
        if (auto* error = std::get_if<platform::Error>(&outcome)) {
            report(*error);
            return false;
        }
        return std::get<bool>(outcome);
    }
    const auto host = request ? request->request().url.host() : std::nullopt;
    if (host && std::find(identifieres_.begin(), identifieres_.end(), *host) == identifieres_.end()) {
        identifieres_.push_back(*host);
        auto session = platform::ContentKeySession::create(platform::ContentKeySystem::fairPlayStreaming);
        session->setDelegate(weak_from_this(),
                             platform::DispatchQueue::serial("com.ovalto.keyloader.keysession"));
        {
            std::lock_guard sessions(sessionsMutex_);
            sessions_[*host] = session;
        }
        session->processContentKeyRequest(*host, std::nullopt);
    }
    return false;
}

bool OVAKeyLoaderDelegate::shouldWaitForRenewalOfRequestedResource(
    platform::AssetResourceLoader& loader, const std::shared_ptr<platform::LoadingRequest>& request) {
    return shouldWaitForLoadingOfRequestedResource(loader, request);
}

std::variant<platform::Data, platform::Error> OVAKeyLoaderDelegate::getCertificate() const {
    return LicenseExchange::certificate(configurations);
}

std::variant<std::optional<platform::Data>, platform::Error>
OVAKeyLoaderDelegate::getLicenseData(const platform::Data& requestData, const std::string& assetId) const {
    auto answer = LicenseExchange::licenseData(configurations, requestData, assetId,
                                               platform::Device::current().systemVersion);
    if (auto* error = std::get_if<platform::Error>(&answer)) {
        OVALog(OVALogLevel::error, error->localizedDescription, "getLicenseData(requestData:assetId:)",
               __FILE__, __LINE__);
    }
    return answer;
}

std::variant<bool, platform::Error>
OVAKeyLoaderDelegate::load(const std::shared_ptr<platform::LoadingRequest>& loadingRequest) {
    const auto host = loadingRequest ? loadingRequest->request().url.host() : std::nullopt;
    if (!loadingRequest || !loadingRequest->dataRequest() || !host || host->empty()) {
        OVALog(OVALogLevel::error, "Input params for FairPlay request is not valid.", loadFunction, __FILE__,
               __LINE__);
        return OvaltoError::inputParam("Fairplay request is not valid", 0x8300).toError();
    }
    if (!platform::Device::current().systemVersionAtLeast(9, 0)) {
        OVALog(OVALogLevel::error, "Persistent license not supported on this version.", loadFunction,
               __FILE__, __LINE__);
        return false;
    }
    const auto fail = [&](const platform::Error& error) -> std::variant<bool, platform::Error> {
        OVALog(OVALogLevel::error, error.localizedDescription, loadFunction, __FILE__, __LINE__);
        loadingRequest->finishLoading(error);
        return error;
    };
    auto certificate = getCertificate();
    if (auto* error = std::get_if<platform::Error>(&certificate)) return fail(*error);
    auto spc = loadingRequest->streamingContentKeyRequestData(
        std::get<platform::Data>(certificate), *host,
        {{platform::streamingContentKeyRequestRequiresPersistentKey, true}});
    if (auto* error = std::get_if<platform::Error>(&spc)) return fail(*error);
    const auto& requestData = std::get<platform::Data>(spc);
    OVALog(OVALogLevel::debug,
           "spc " + std::to_string(requestData.size()) + ", " + Base64::encode(requestData), loadFunction,
           __FILE__, __LINE__);
    auto ckc = getLicenseData(requestData, *host);
    if (auto* error = std::get_if<platform::Error>(&ckc)) return fail(*error);
    const auto& answer = std::get<std::optional<platform::Data>>(ckc);
    if (!answer) {
        OVALog(OVALogLevel::error, "response nil", loadFunction, __FILE__, __LINE__);
        return fail(notReceived());
    }
    OVALog(OVALogLevel::debug, "ckc " + std::to_string(answer->size()) + ", " + Base64::encode(*answer),
           loadFunction, __FILE__, __LINE__);
    auto key = loadingRequest->persistentContentKey(*answer);
    if (auto* error = std::get_if<platform::Error>(&key)) return fail(*error);
    const auto& persistable = std::get<platform::Data>(key);
    if (persistable.empty()) return fail(notReceived());

    OVALog(OVALogLevel::debug, "save the license " + std::to_string(persistable.size()) + ", " + *host,
           loadFunction, __FILE__, __LINE__);
    if (auto error = store(persistable, *host)) return fail(*error);
    if (auto* information = loadingRequest->contentInformationRequest())
        information->setContentType(platform::streamingKeyDeliveryPersistentContentKeyType);
    loadingRequest->dataRequest()->respond(persistable);
    loadingRequest->finishLoading();
    return true;
}

void OVAKeyLoaderDelegate::contentKeySessionDidProvide(
    platform::ContentKeySession& /*session*/,
    const std::shared_ptr<platform::ContentKeyRequest>& keyRequest) {
    keyRequest->respondByRequestingPersistableContentKeyRequest();
}

void OVAKeyLoaderDelegate::contentKeySessionDidProvidePersistable(
    platform::ContentKeySession& /*session*/,
    const std::shared_ptr<platform::PersistableContentKeyRequest>& keyRequest) {
    const std::string* identifier = std::any_cast<std::string>(&keyRequest->identifier());
    auto certificate = getCertificate();
    if (auto* error = std::get_if<platform::Error>(&certificate)) {
        print(error->localizedDescription);
        report(*error);
        if (identifier) endSession(*identifier);
        return;
    }
    if (!identifier) return;
    const std::string assetId = *identifier;
    keyRequest->makeStreamingContentKeyRequestData(
        std::get<platform::Data>(certificate), assetId,
        {{platform::contentKeyRequestProtocolVersionsKey, std::vector<int>{1}}},
        [self = shared_from_this(), keyRequest, assetId](std::optional<platform::Data> spc,
                                                         std::optional<platform::Error> error) {
            // Whatever happens below, this asset's session has done its work.
            struct End {
                OVAKeyLoaderDelegate& delegate;
                const std::string& assetId;
                ~End() { delegate.endSession(assetId); }
            } end{*self, assetId};
            if (error) {
                OVALog(OVALogLevel::error, error->localizedDescription, sessionFunction, __FILE__, __LINE__);
                return self->report(*error);
            }
            if (!spc) return;
            auto ckc = self->getLicenseData(*spc, assetId);
            if (auto* failure = std::get_if<platform::Error>(&ckc)) {
                print(failure->localizedDescription);
                return self->report(*failure);
            }
            const auto& answer = std::get<std::optional<platform::Data>>(ckc);
            if (!answer) return;
            OVALog(OVALogLevel::debug, "spc " + std::to_string(spc->size()) + ", " + Base64::encode(*spc),
                   sessionFunction, __FILE__, __LINE__);
            OVALog(OVALogLevel::debug,
                   "ckc " + std::to_string(answer->size()) + ", " + Base64::encode(*answer), sessionFunction,
                   __FILE__, __LINE__);
            auto key = keyRequest->persistableContentKey(*answer);
            if (auto* failure = std::get_if<platform::Error>(&key)) {
                print(failure->localizedDescription);
                return self->report(*failure);
            }
            const auto& persistable = std::get<platform::Data>(key);
            if (persistable.empty()) return self->report(notReceived());
            OVALog(OVALogLevel::debug,
                   "save the license " + std::to_string(persistable.size()) + ", " + assetId, sessionFunction,
                   __FILE__, __LINE__);
            if (auto failure = store(persistable, assetId)) self->report(*failure);
        });
}

void OVAKeyLoaderDelegate::endSession(const std::string& assetId) {
    std::shared_ptr<platform::ContentKeySession> ended;
    {
        std::lock_guard sessions(sessionsMutex_);
        auto found = sessions_.find(assetId);
        if (found == sessions_.end()) return;
        ended = std::move(found->second);
        sessions_.erase(found);
    }
}

} // namespace ovalto
