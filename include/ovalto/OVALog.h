#pragma once

#include <atomic>
#include <optional>
#include <string>
#include <string_view>

namespace ovalto {

enum class OVALogLevel : int { debug = 0, info = 1, warning = 2, error = 3, silent = 4 };

// The threshold of OVALog: lines below it are dropped. It is the facade's Ovalto::logLevel too;
// it lives here so that code that only logs needs nothing of the facade.
inline std::atomic<OVALogLevel> OVALogThreshold{OVALogLevel::debug};

// No value for a raw value outside 0…4.
std::optional<OVALogLevel> makeOVALogLevel(int rawValue);
std::string_view displayName(OVALogLevel level);

// Writes "[<Level> <file name>|<function>|<line>] <message>" to the system log unless `logLevel`
// is below OVALogThreshold. `function` is the caller's signature text, `file` its source path.
void OVALog(OVALogLevel logLevel, std::string_view message, std::string_view function, std::string_view file,
            int line);

// Writes an optional the way the platform describes one: Optional("text") or nil.
std::string describeOptional(const std::optional<std::string>& value);

// Writes a decimal the way the platform prints one: the shortest text that reads back as the same
// number, with ".0" on whole numbers ("2.02", "2500000.0") and an exponent only for very small or
// very large magnitudes ("1e-05", "1e+20"); "nan", "inf" and "-inf" otherwise.
std::string describeDecimal(double value);

} // namespace ovalto
