#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ovalto {

// A request or response as the plug-in listener sees it. Headers are an ordered list: order is
// significant and a name may repeat.
class ConnectionInfo {
public:
    virtual ~ConnectionInfo() = default;

    std::optional<std::string> uri;
    std::vector<std::pair<std::string, std::string>> headers;
};

} // namespace ovalto
