#include "PreparationOutcome.h"

#include "ovalto/Notifications.h"
#include "ovalto/Ovalto.h"
#include "ovalto/OvaltoError.h"

#include <any>

namespace ovalto::tool {

PreparationOutcome::PreparationOutcome(const std::shared_ptr<Ovalto>& facade) {
    auto& center = platform::NotificationCenter::defaultCenter();
    tokens_.push_back(
        center.addObserver(OvaltoPreparationNotification, facade, [this](const platform::Notification&) {
            std::lock_guard lock(mutex_);
            prepared_ = true;
        }));
    tokens_.push_back(
        center.addObserver(OvaltoErrorNotification, facade, [this](const platform::Notification& note) {
            auto it = note.userInfo.find(OvaltoErrorUserInfoKey);
            if (it == note.userInfo.end()) return;
            if (const auto* error = std::any_cast<platform::Error>(&it->second)) onError(*error);
        }));
}

PreparationOutcome::~PreparationOutcome() {
    for (auto token : tokens_)
        platform::NotificationCenter::defaultCenter().removeObserver(token);
}

void PreparationOutcome::onError(const platform::Error& error) {
    std::lock_guard lock(mutex_);
    if (endsPreparation(error)) {
        if (!ending_) ending_ = error;
    } else if (!firstReported_) {
        firstReported_ = error;
    }
}

bool PreparationOutcome::ended() const {
    std::lock_guard lock(mutex_);
    return prepared_ || ending_;
}

bool PreparationOutcome::prepared() const {
    std::lock_guard lock(mutex_);
    return prepared_;
}

std::optional<platform::Error> PreparationOutcome::error() const {
    std::lock_guard lock(mutex_);
    return ending_ ? ending_ : firstReported_;
}

bool PreparationOutcome::endsPreparation(const platform::Error& error) {
    auto typed = OvaltoError::from(error);
    if (!typed) return false;
    const int code = typed->code();
    return code == 0x8100 || code == 0x8201 || code == 0x8202;
}

} // namespace ovalto::tool
