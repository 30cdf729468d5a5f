#pragma once

#include "platform/Error.h"
#include "platform/NotificationCenter.h"

#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace ovalto {
class Ovalto;
}

namespace ovalto::tool {

// How one preparation of a facade ended, read from the facade's notifications. They arrive on
// whichever thread posts them (a failed playlist request on a resource's thread, the outcome on the
// main queue), so the state is kept behind a lock, shared with the observers so that a post under
// way when this object goes still finds it.
//
// A failed request is reported while the engine is still waiting for its asset; only the
// engine's own verdict (prepared, or an error with one of the codes that end a preparation)
// ends the wait. The request's error is kept to explain a preparation that never ends.
class PreparationOutcome {
public:
    explicit PreparationOutcome(const std::shared_ptr<Ovalto>& facade);
    ~PreparationOutcome();
    PreparationOutcome(const PreparationOutcome&) = delete;
    PreparationOutcome& operator=(const PreparationOutcome&) = delete;

    bool ended() const;
    bool prepared() const;
    // The error that ended the preparation, else the first one reported on the way.
    std::optional<platform::Error> error() const;

    // Whether `error` is the engine's verdict on a preparation rather than a failed request.
    static bool endsPreparation(const platform::Error& error);

private:
    struct State {
        std::mutex mutex;
        bool prepared = false;
        std::optional<platform::Error> ending;
        std::optional<platform::Error> firstReported;
    };

    const std::shared_ptr<State> state_ = std::make_shared<State>();
    std::vector<platform::NotificationCenter::Token> tokens_;
};

} // namespace ovalto::tool
