#include "Resources/ResourceType.h"

#include "PlayList/RewrittenUrl.h"
#include "Resources/KeyResource.h"
#include "Resources/PlayListResource.h"
#include "Resources/RedirectResource.h"
#include "ovalto/OVALog.h"
#include "ovalto/OvaltoError.h"

namespace ovalto {

namespace {

// Stands in for the FairPlay key resource until content keys are served: an "skd" request fails
// at once with OvaltoError inputParam "Fairplay request is not valid" (0x8300), the error the key
// resource gives for a request it cannot serve, instead of hanging the player.
class UnservedFairPlayResource : public Resource {
public:
    void load(const std::shared_ptr<platform::LoadingRequest>& /*loadingRequest*/,
              const std::shared_ptr<Presentation>& /*presentation*/, Completion completion) override {
        OVALog(OVALogLevel::error, "FairPlay key requests are not served.",
               "load(loadingRequest:presentation:completion:)", __FILE__, __LINE__);
        completion(
            Result::failure(OvaltoError::inputParam("Fairplay request is not valid", 0x8300).toError()));
    }
};

} // namespace

std::optional<ResourceType> ResourceType::fromRawValue(std::string_view rawValue) {
    for (auto value : allCases) {
        if (ResourceType(value).rawValue() == rawValue) return ResourceType(value);
    }
    return std::nullopt;
}

std::string_view ResourceType::rawValue() const {
    switch (value_) {
    case playlist:
        return RewrittenUrl::playListScheme;
    case key:
        return RewrittenUrl::keyScheme;
    case redirect:
        return RewrittenUrl::redirectScheme;
    case fairplay:
        return RewrittenUrl::fairPlayScheme;
    }
    return {};
}

std::shared_ptr<Resource> ResourceType::createResouece() const {
    switch (value_) {
    case playlist:
        return std::make_shared<PlayListResource>();
    case key:
        return std::make_shared<KeyResource>();
    case redirect:
        return std::make_shared<RedirectResource>();
    case fairplay:
        return std::make_shared<UnservedFairPlayResource>();
    }
    return nullptr;
}

} // namespace ovalto
