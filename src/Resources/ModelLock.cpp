#include "Resources/ModelLock.h"

#include <array>
#include <cstdint>
#include <functional>

namespace ovalto {

std::mutex& modelLock(const Container& container) {
    static std::array<std::mutex, 64> stripes;
    // Objects are at least 16-byte aligned; drop the bits that never differ.
    const auto address = reinterpret_cast<std::uintptr_t>(&container) >> 4;
    return stripes[std::hash<std::uintptr_t>{}(address) % stripes.size()];
}

} // namespace ovalto
