#include "PreparationOutcome.h"

#include "ovalto/Notifications.h"
#include "ovalto/Ovalto.h"
#include "ovalto/OvaltoError.h"

#include <any>

namespace ovalto::tool {

PreparationOutcome::PreparationOutcome(const std::shared_ptr<Ovalto>& facade) {
    auto& center = platform::NotificationCenter::defaultCenter();
    tokens_.push_back(center.addObserver(OvaltoPreparationNotification, facade,
                                         [state = state_](const platform::Notification&) {
                                             std::lock_guard lock(state->mutex);
                                             state->prepared = true;
                                         }));
    tokens_.push_back(center.addObserver(OvaltoErrorNotification, facade,
                                         [state = state_](const platform::Notification& note) {
                                             auto it = note.userInfo.find(OvaltoErrorUserInfoKey);
                                             if (it == note.userInfo.end()) return;
                                             const auto* error = std::any_cast<platform::Error>(&it->second);
                                             if (!error) return;
                                             std::lock_guard lock(state->mutex);
                                             if (endsPreparation(*error)) {
                                                 if (!state->ending) state->ending = *error;
                                             } else if (!state->firstReported) {
                                                 state->firstReported = *error;
                                             }
                                         }));
}

PreparationOutcome::~PreparationOutcome() {
    for (auto token : tokens_)
        platform::NotificationCenter::defaultCenter().removeObserver(token);
}

bool PreparationOutcome::ended() const {
    std::lock_guard lock(state_->mutex);
    return state_->prepared || state_->ending;
}

bool PreparationOutcome::prepared() const {
    std::lock_guard lock(state_->mutex);
    return state_->prepared;
}

std::optional<platform::Error> PreparationOutcome::error() const {
    std::lock_guard lock(state_->mutex);
    return state_->ending ? state_->ending : state_->firstReported;
}

bool PreparationOutcome::endsPreparation(const platform::Error& error) {
    auto typed = OvaltoError::from(error);
    if (!typed) return false;
    const int code = typed->code();
    return code == 0x8100 || code == 0x8201 || code == 0x8202;
}

} // namespace ovalto::tool
