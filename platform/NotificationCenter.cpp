#include "platform/NotificationCenter.h"

#include "platform/NoDestructor.h"

#include <atomic>
#include <mutex>
#include <vector>

namespace ovalto::platform {

namespace {

struct Registration {
    std::string name;
    bool filtersObject = false;
    std::weak_ptr<const void> object;
    const void* objectAddress = nullptr;
    NotificationCenter::Observer observer;
    // Set by removeObserver(), so that a post already under way skips the observer.
    std::atomic<bool> removed{false};

    bool matches(const std::string& postedName, const std::shared_ptr<const void>& postedObject) const {
        if (!name.empty() && name != postedName) return false;
        if (!filtersObject) return true;
        // A dead object matches nothing, not even a new object that reuses its address.
        return postedObject && postedObject.get() == objectAddress && !object.expired();
    }
};

} // namespace

struct NotificationCenter::Impl {
    std::mutex mutex;
    Token nextToken = 1;
    // Ordered by token: observers are called in the order they were added.
    std::map<Token, std::shared_ptr<Registration>> registrations;
};

NotificationCenter::NotificationCenter()
    : impl_(std::make_unique<Impl>()) {}

NotificationCenter::~NotificationCenter() = default;

NotificationCenter& NotificationCenter::defaultCenter() {
    static NoDestructor<NotificationCenter> center;
    return *center;
}

NotificationCenter::Token NotificationCenter::addObserver(std::string name, std::weak_ptr<const void> object,
                                                          Observer observer) {
    auto registration = std::make_shared<Registration>();
    registration->name = std::move(name);
    // An empty weak_ptr means "any object"; one that once pointed at an object (even if that
    // object has died since) filters by it.
    std::weak_ptr<const void> none;
    registration->filtersObject = object.owner_before(none) || none.owner_before(object);
    registration->objectAddress = object.lock().get();
    registration->object = std::move(object);
    registration->observer = std::move(observer);

    std::lock_guard lock(impl_->mutex);
    Token token = impl_->nextToken++;
    impl_->registrations.emplace(token, std::move(registration));
    return token;
}

void NotificationCenter::removeObserver(Token token) {
    std::shared_ptr<Registration> removed;
    std::lock_guard lock(impl_->mutex);
    auto it = impl_->registrations.find(token);
    if (it == impl_->registrations.end()) return;
    removed = std::move(it->second);
    removed->removed.store(true);
    impl_->registrations.erase(it);
}

void NotificationCenter::post(std::string name, std::shared_ptr<const void> object,
                              std::map<std::string, std::any> userInfo) {
    Notification notification{std::move(name), std::move(object), std::move(userInfo)};
    // Observers run on a snapshot, unlocked: they may post, add or remove observers themselves.
    std::vector<std::shared_ptr<Registration>> matching;
    {
        std::lock_guard lock(impl_->mutex);
        for (const auto& [token, registration] : impl_->registrations) {
            if (registration->matches(notification.name, notification.object))
                matching.push_back(registration);
        }
    }
    for (const auto& registration : matching) {
        if (registration->removed.load()) continue;
        if (registration->observer) registration->observer(notification);
    }
}

} // namespace ovalto::platform
