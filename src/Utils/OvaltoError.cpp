#include "ovalto/OvaltoError.h"

namespace ovalto {

std::optional<std::string> OvaltoError::errorDescription() const {
    switch (case_) {
    case Case::debuggerDetected:
        return "debugger is detected";
    case Case::jailbreakDetected:
        return "jailbreak is detected";
    case Case::assetPlayable:
        return "asset is not playable";
    default:
        return message_;
    }
}

platform::Error OvaltoError::toError() const {
    return platform::Error{domain, ordinal(), errorDescription().value_or(""), *this};
}

std::optional<OvaltoError> OvaltoError::from(const platform::Error& error) {
    if (const auto* typed = std::any_cast<OvaltoError>(&error.payload)) return *typed;
    return std::nullopt;
}

} // namespace ovalto
