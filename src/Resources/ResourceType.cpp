#include "Resources/ResourceType.h"

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
        return "cplp";
    case key:
        return "ckey";
    case redirect:
        return "rdtp";
    case fairplay:
        return "skd";
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
