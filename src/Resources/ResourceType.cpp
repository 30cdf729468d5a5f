#include "Resources/ResourceType.h"

#include "PlayList/RewrittenUrl.h"
#include "Resources/FairPlayKeyResource.h"
#include "Resources/KeyResource.h"
#include "Resources/PlayListResource.h"
#include "Resources/RedirectResource.h"

namespace ovalto {

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
        return std::make_shared<FairPlayKeyResource>();
    }
    return nullptr;
}

} // namespace ovalto
