#pragma once

#include <string_view>
#include <vector>

namespace ovalto {

// `path` cut at every "/", empty pieces kept: "/1/800000/media.m3u8" gives "", "1", "800000",
// "media.m3u8". The rewritten-URL readers count components on this form.
inline std::vector<std::string_view> pathComponents(std::string_view path) {
    std::vector<std::string_view> components;
    for (;;) {
        const auto slash = path.find('/');
        components.push_back(path.substr(0, slash));
        if (slash == std::string_view::npos) return components;
        path.remove_prefix(slash + 1);
    }
}

} // namespace ovalto
