#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

namespace ovalto {

class Resource;

// The URL schemes the loader answers, in the order a scheme is matched. The raw value is the
// scheme itself.
class ResourceType {
public:
    enum Value : std::uint8_t { playlist, key, redirect, fairplay };
    static constexpr std::array<Value, 4> allCases{playlist, key, redirect, fairplay};

    constexpr ResourceType(Value value)
        : value_(value) {}
    constexpr operator Value() const { return value_; }

    // Exact, case-sensitive comparison with the raw values; no value for any other scheme.
    static std::optional<ResourceType> fromRawValue(std::string_view rawValue);
    std::string_view rawValue() const;

    // A new resource of this kind with its settings empty.
    std::shared_ptr<Resource> createResouece() const;

private:
    Value value_;
};

} // namespace ovalto
