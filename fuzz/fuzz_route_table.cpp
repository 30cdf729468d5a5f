// The kernel's routing table as the network status reads it: whatever the text, a default
// route that is found comes from the text, and cellular data means a wwan interface.
#include "FuzzSupport.h"
#include "platform/NetworkStatus.h"

#include <cstdint>

using namespace ovalto;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const auto status = platform::NetworkStatus::fromRouteTable(input);
    if (!status.reachable) {
        fuzz::check(!status.isWWAN && status.interfaceName.empty(), "a route without reachability", input);
        return 0;
    }
    fuzz::check(!status.interfaceName.empty(), "a default route without an interface", input);
    fuzz::check(input.find(status.interfaceName) != std::string_view::npos, "an interface not in the table",
                input);
    fuzz::check(status.isWWAN == status.interfaceName.starts_with("ww"), "cellular data on another interface",
                input);
    return 0;
}
