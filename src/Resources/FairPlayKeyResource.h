#pragma once

#include "Resources/Resource.h"
#include "platform/Error.h"

#include <optional>
#include <string>
#include <variant>

namespace ovalto {

// Answers the player's "skd" key requests: with the key an offline download stored for the
// asset (the host of the key URL) when there is one, else with the CKC the licence server gives
// for the key request the platform makes. Runs synchronously on its global-queue thread; the
// certificate download and the licence request block it.
class FairPlayKeyResource : public Resource {
public:
    void load(const std::shared_ptr<platform::LoadingRequest>& loadingRequest,
              const std::shared_ptr<Presentation>& presentation, Completion completion) override;

    std::variant<platform::Data, platform::Error> getCertificate() const;
    // The CKC, or no value when the answer held no usable body.
    std::variant<std::optional<platform::Data>, platform::Error>
    getLicenseData(const platform::Data& requestData, const std::string& assetId) const;
};

} // namespace ovalto
