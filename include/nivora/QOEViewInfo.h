#pragma once

#include <cstdint>
#include <string>

namespace nivora {

// Where and how a pre-alert is drawn: a position keyword ("TOP_LEFT", "TOP_RIGHT", "UNDER_LEFT",
// "UNDER_RIGHT", anything else centres) and one style per text.
struct QOEViewInfo {
    struct ViewDetailInfo {
        bool isBold = false;
        bool isItalic = false;
        std::int32_t fontSizePercent = 100; // of the largest size that fits one line in the view
        std::string colorHex;               // "#RRGGBB"
        bool isUnderlined = false;
    };

    std::string position;
    ViewDetailInfo firstDetail;
    ViewDetailInfo secondDetail;
    ViewDetailInfo thirdDetail;
};

} // namespace nivora
