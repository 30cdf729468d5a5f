#pragma once

#include <string>
#include <vector>

namespace ovalto {

// A delivery server for segments; the one with the smallest priority is used.
struct EdgeServer {
    long priority = 0;
    std::string url;
    bool operator==(const EdgeServer&) const = default;
};
using EdgeList = std::vector<EdgeServer>;

} // namespace ovalto
