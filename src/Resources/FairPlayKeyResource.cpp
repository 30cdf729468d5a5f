#include "Resources/FairPlayKeyResource.h"

#include "Resources/LicenseExchange.h"
#include "ovalto/OVALog.h"
#include "ovalto/OvaltoError.h"
#include "platform/Device.h"
#include "platform/KeyValueStore.h"
#include "platform/LoadingRequest.h"

namespace ovalto {

namespace {
constexpr const char* loadFunction = "load(loadingRequest:presentation:completion:)";
}

std::variant<platform::Data, platform::Error> FairPlayKeyResource::getCertificate() const {
    return LicenseExchange::certificate(configurations);
}

std::variant<std::optional<platform::Data>, platform::Error>
FairPlayKeyResource::getLicenseData(const platform::Data& requestData, const std::string& assetId) const {
    auto answer = LicenseExchange::licenseData(configurations, requestData, assetId, std::nullopt);
    if (auto* error = std::get_if<platform::Error>(&answer)) {
        OVALog(OVALogLevel::error, error->localizedDescription, "getLicenseData(requestData:assetId:)",
               __FILE__, __LINE__);
    }
    return answer;
}

void FairPlayKeyResource::load(const std::shared_ptr<platform::LoadingRequest>& loadingRequest,
                               const std::shared_ptr<Presentation>& /*presentation*/, Completion completion) {
    const auto host = loadingRequest ? loadingRequest->request().url.host() : std::nullopt;
    if (!loadingRequest || !loadingRequest->dataRequest() || !host || host->empty()) {
        OVALog(OVALogLevel::error, "Input params for FairPlay request is not valid.", loadFunction, __FILE__,
               __LINE__);
        return completion(
            Result::failure(OvaltoError::inputParam("Fairplay request is not valid", 0x8300).toError()));
    }
    const std::string& assetId = *host;

    if (platform::Device::current().systemVersionAtLeast(9, 0)) {
        if (auto stored = platform::KeyValueStore::standard().data(assetId)) {
            if (auto* information = loadingRequest->contentInformationRequest())
                information->setContentType(platform::streamingKeyDeliveryPersistentContentKeyType);
            loadingRequest->dataRequest()->respond(*stored);
            return completion(Result::success());
        }
    }

    const auto fail = [&](const platform::Error& error) {
        OVALog(OVALogLevel::error, error.localizedDescription, loadFunction, __FILE__, __LINE__);
        completion(Result::failure(error));
    };
    auto certificate = getCertificate();
    if (auto* error = std::get_if<platform::Error>(&certificate)) return fail(*error);
    auto spc = loadingRequest->streamingContentKeyRequestData(std::get<platform::Data>(certificate), assetId);
    if (auto* error = std::get_if<platform::Error>(&spc)) return fail(*error);
    auto ckc = getLicenseData(std::get<platform::Data>(spc), assetId);
    if (auto* error = std::get_if<platform::Error>(&ckc)) return fail(*error);
    auto& answer = std::get<std::optional<platform::Data>>(ckc);
    if (!answer) {
        OVALog(OVALogLevel::warning, "response nil", loadFunction, __FILE__, __LINE__);
        return completion(
            Result::failure(OvaltoError::inputParam("License response is not received.", 0x8603).toError()));
    }
    loadingRequest->dataRequest()->respond(*answer);
    completion(Result::success());
}

} // namespace ovalto
