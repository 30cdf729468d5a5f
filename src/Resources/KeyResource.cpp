#include "Resources/KeyResource.h"

#include "ovalto/OVALog.h"
#include "ovalto/OvaltoError.h"

namespace ovalto {

void KeyResource::load(const std::shared_ptr<platform::LoadingRequest>& /*loadingRequest*/,
                       const std::shared_ptr<Presentation>& /*presentation*/, Completion completion) {
    OVALog(OVALogLevel::error, "ckey request is not answered.",
           "load(loadingRequest:presentation:completion:)", __FILE__, __LINE__);
    completion(Result::failure(OvaltoError::inputParam("Key request is not valid", 0x8300).toError()));
}

} // namespace ovalto
