#include "nivora/reference/ReferenceNivora.h"

namespace nivora::reference {

ReferenceNivora::ReferenceNivora(Options options)
    : network_(std::make_shared<ReferenceNetworkPlugin>(std::move(options.manifestHeaders),
                                                        std::move(options.fragmentHeaders)))
    , qoe_(std::make_shared<ReferenceQOEPlugin>(std::move(options.qoe))) {}

} // namespace nivora::reference
