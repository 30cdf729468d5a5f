#pragma once

#include "Resources/Resource.h"

namespace ovalto {

// Serves the player's segment requests ("rdtp"): finds the fragment behind the rewritten URL,
// lets the listener see and replace its URL (the replacement is kept on the fragment), moves it
// onto the preferred edge server, reports the fragment through the configured `function`, and
// answers with a redirect and a synthetic 302 response. The player fetches the bytes itself.
// Completes synchronously, before load returns.
class RedirectResource : public Resource {
public:
    void load(const std::shared_ptr<platform::LoadingRequest>& loadingRequest,
              const std::shared_ptr<Presentation>& presentation, Completion completion) override;

    // Seconds, for the redirect request when the listener cleared the timeout.
    static constexpr int defaultTimeout = 30;
};

} // namespace ovalto
