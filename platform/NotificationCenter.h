#pragma once

#include <any>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace ovalto::platform {

struct Notification {
    std::string name;
    // Identity of the posting object (compared by address); null for none.
    std::shared_ptr<const void> object;
    std::map<std::string, std::any> userInfo;

    // The object as the type it was posted with, if it is still alive.
    template <class T> std::shared_ptr<const T> objectAs() const {
        return std::static_pointer_cast<const T>(object);
    }
};

// Synchronous notification centre: post() calls every matching observer on the posting thread.
class NotificationCenter {
public:
    using Token = std::uint64_t;
    using Observer = std::function<void(const Notification&)>;

    static NotificationCenter& defaultCenter();

    // Observes `name` (empty: every name) from `object` (null: any object). The object is held
    // weakly and compared by address.
    Token addObserver(std::string name, std::weak_ptr<const void> object, Observer observer);
    void removeObserver(Token token);
    void post(std::string name, std::shared_ptr<const void> object = nullptr,
              std::map<std::string, std::any> userInfo = {});

    NotificationCenter();
    ~NotificationCenter();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace ovalto::platform
