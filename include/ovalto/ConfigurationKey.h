#pragma once

#include <any>
#include <functional>
#include <map>
#include <optional>
#include <string>

namespace ovalto {

// Keys of the configuration dictionary; values are read back with a checked cast, and a value
// of another type counts as absent.
enum class ConfigurationKey {
    licenseServerUrl,    // platform::Url
    licenseServerHeader, // Headers
    certUrl,             // platform::Url
    certData,            // platform::Data
    scheme,              // std::string
    httpHeaders,         // Headers
    contentUrl,          // platform::Url
    function,            // FragmentFunction
};

using Configurations = std::map<ConfigurationKey, std::any>;
using Headers = std::map<std::string, std::string>;
// The `function` entry: called with the Fragment (as std::shared_ptr<Fragment>) a redirect served.
using FragmentFunction = std::function<void(std::any)>;

// The entry under `key` as a T, or no value when it is absent or of another type.
template <class T>
std::optional<T> configurationValue(const Configurations& configurations, ConfigurationKey key) {
    auto it = configurations.find(key);
    if (it == configurations.end()) return std::nullopt;
    if (const T* value = std::any_cast<T>(&it->second)) return *value;
    return std::nullopt;
}

} // namespace ovalto
