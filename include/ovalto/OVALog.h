#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ovalto {

enum class OVALogLevel : int { debug = 0, info = 1, warning = 2, error = 3, silent = 4 };

// No value for a raw value outside 0…4.
std::optional<OVALogLevel> makeOVALogLevel(int rawValue);
std::string_view displayName(OVALogLevel level);

// Writes "[<Level> <file name>|<function>|<line>] <message>" to the system log unless `logLevel`
// is below Ovalto::logLevel. `function` is the caller's signature text, `file` its source path.
void OVALog(OVALogLevel logLevel, std::string_view message, std::string_view function, std::string_view file,
            int line);

// Writes an optional the way the platform describes one: Optional("text") or nil.
std::string describeOptional(const std::optional<std::string>& value);

} // namespace ovalto
