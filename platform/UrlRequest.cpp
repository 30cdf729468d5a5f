#include "platform/UrlRequest.h"

#include <algorithm>
#include <cctype>

namespace ovalto::platform {

namespace {

bool sameName(const std::string& a, const std::string& b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(),
                      [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
}

} // namespace

void HeaderFields::addValue(const std::string& value, const std::string& name) {
    auto field =
        std::find_if(fields_.begin(), fields_.end(), [&](const auto& f) { return sameName(f.first, name); });
    if (field == fields_.end()) {
        fields_.emplace_back(name, value);
    } else {
        // Cookie pairs are separated by "; ", and a comma may be part of a cookie's value.
        field->second += (sameName(name, "Cookie") ? "; " : ", ") + value;
    }
}

void HeaderFields::setValue(const std::string& value, const std::string& name) {
    auto field =
        std::find_if(fields_.begin(), fields_.end(), [&](const auto& f) { return sameName(f.first, name); });
    if (value.empty()) {
        if (field != fields_.end()) fields_.erase(field);
    } else if (field == fields_.end()) {
        fields_.emplace_back(name, value);
    } else {
        field->second = value;
    }
}

std::optional<std::string> HeaderFields::value(const std::string& name) const {
    auto field =
        std::find_if(fields_.begin(), fields_.end(), [&](const auto& f) { return sameName(f.first, name); });
    if (field == fields_.end()) return std::nullopt;
    return field->second;
}

} // namespace ovalto::platform
