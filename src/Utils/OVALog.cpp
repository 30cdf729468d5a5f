#include "ovalto/OVALog.h"

#include "ovalto/Ovalto.h"
#include "platform/SystemLog.h"

#include <array>

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
    if (static_cast<int>(logLevel) < static_cast<int>(Ovalto::logLevel.load(std::memory_order_relaxed)))
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

} // namespace ovalto
