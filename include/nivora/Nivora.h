#pragma once

#include "nivora/NetworkPlugin.h"
#include "nivora/QOEPlugin.h"

#include <memory>

namespace nivora {

// The plug-in library's entry object. The application owns it; the player library holds it
// weakly. A null hook means that the plug-in installs none.
class Nivora {
public:
    virtual ~Nivora() = default;

    virtual std::shared_ptr<NetworkPlugin> getNetworkPlugin() = 0;
    virtual std::shared_ptr<QOEPlugin> getQOEPlugin() = 0;
};

} // namespace nivora
