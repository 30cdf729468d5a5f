#pragma once

#include "nivora/Nivora.h"
#include "nivora/reference/ReferenceNetworkPlugin.h"
#include "nivora/reference/ReferenceQOEPlugin.h"

#include <memory>

namespace nivora::reference {

// A plug-in library of our own behind the interface the player library talks to: what the
// command-line tool and the tests use where an application would link the real one.
class ReferenceNivora : public Nivora {
public:
    struct Options {
        ReferenceNetworkPlugin::Headers manifestHeaders;
        ReferenceNetworkPlugin::Headers fragmentHeaders;
        ReferenceQOEPlugin::Options qoe;
    };

    explicit ReferenceNivora(Options options);

    std::shared_ptr<NetworkPlugin> getNetworkPlugin() override { return network_; }
    std::shared_ptr<QOEPlugin> getQOEPlugin() override { return qoe_; }
    const std::shared_ptr<ReferenceQOEPlugin>& qoePlugin() const { return qoe_; }

private:
    std::shared_ptr<ReferenceNetworkPlugin> network_;
    std::shared_ptr<ReferenceQOEPlugin> qoe_;
};

} // namespace nivora::reference
