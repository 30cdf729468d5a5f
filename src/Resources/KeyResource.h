#pragma once

#include "Resources/Resource.h"

namespace ovalto {

// The resource of the "ckey" scheme. No answer is defined for such keys, so rather than leave the
// player waiting it completes at once with OvaltoError inputParam "Key request is not valid"
// (0x8300).
class KeyResource : public Resource {
public:
    void load(const std::shared_ptr<platform::LoadingRequest>& loadingRequest,
              const std::shared_ptr<Presentation>& presentation, Completion completion) override;
};

} // namespace ovalto
