#include "ovalto/OVALog.h"

#include "platform/SystemLog.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace ovalto {

std::optional<OVALogLevel> makeOVALogLevel(int rawValue) {
    if (rawValue < 0 || rawValue > static_cast<int>(OVALogLevel::silent)) return std::nullopt;
    return static_cast<OVALogLevel>(rawValue);
}

std::string_view displayName(OVALogLevel level) {
    static constexpr std::array<std::string_view, 5> names{"Debug", "Info", "Warning", "Error", "Silent"};
    return names.at(static_cast<std::size_t>(level));
}

void OVALog(OVALogLevel logLevel, std::string_view message, std::string_view function, std::string_view file,
            int line) {
    if (static_cast<int>(logLevel) < static_cast<int>(OVALogThreshold.load(std::memory_order_relaxed)))
        return;

    std::string_view fileName = file;
    if (auto slash = file.rfind('/'); slash != std::string_view::npos) fileName = file.substr(slash + 1);
    if (fileName.empty()) fileName = "unknown";

    std::string text;
    text.reserve(message.size() + function.size() + fileName.size() + 32);
    text += '[';
    text += displayName(logLevel);
    text += ' ';
    text += fileName;
    text += '|';
    text += function;
    text += '|';
    text += std::to_string(line);
    text += "] ";
    text += message;
    platform::SystemLog::write(text);
}

std::string describeOptional(const std::optional<std::string>& value) {
    return value ? "Optional(\"" + *value + "\")" : "nil";
}

std::string describeDecimal(double value) {
    if (std::isnan(value)) return "nan";
    if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
    if (value == 0) return std::signbit(value) ? "-0.0" : "0.0";

    // The shortest digits that read back as `value`, from the scientific form "d.ddde±x".
    char buffer[64];
    auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::scientific);
    if (error != std::errc()) return "nan";
    const std::string_view scientific(buffer, static_cast<std::size_t>(end - buffer));
    const auto e = scientific.find('e');
    std::string digits;
    for (char c : scientific.substr(0, e))
        if (c >= '0' && c <= '9') digits += c;
    const int exponent = std::atoi(std::string(scientific.substr(e + 1)).c_str());

    std::string text = value < 0 ? "-" : "";
    // Below 0.0001 or above 2^54 the platform switches to the exponent form.
    if (exponent < -4 || std::fabs(value) > 0x1.0p54) {
        text += digits.front();
        if (digits.size() > 1) text += "." + digits.substr(1);
        char tail[16];
        std::snprintf(tail, sizeof tail, "e%c%02d", exponent < 0 ? '-' : '+', std::abs(exponent));
        return text + tail;
    }
    if (exponent < 0) return text + "0." + std::string(static_cast<std::size_t>(-exponent - 1), '0') + digits;
    const auto whole = static_cast<std::size_t>(exponent) + 1;
    if (digits.size() <= whole) return text + digits + std::string(whole - digits.size(), '0') + ".0";
    return text + digits.substr(0, whole) + "." + digits.substr(whole);
}

} // namespace ovalto
