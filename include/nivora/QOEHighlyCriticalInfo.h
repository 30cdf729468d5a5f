#pragma once

#include <string>

namespace nivora {

// The three texts of a pre-alert, shown one under the other.
struct QOEHighlyCriticalInfo {
    std::string firstText;
    std::string secondText;
    std::string thirdText;
};

} // namespace nivora
