#include "PreAlert/PreAlertView.h"

#include "ovalto/OVALog.h"
#include "platform/DispatchQueue.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <limits>

namespace ovalto {

PreAlertView::PreAlertView(platform::Rect frame)
    : TextView(frame)
    , hideScheduler_([](std::chrono::steady_clock::duration delay,
                        const std::shared_ptr<platform::DispatchWorkItem>& item) {
        platform::DispatchQueue::main()->asyncAfter(delay, item);
    }) {}

std::shared_ptr<PreAlertView> PreAlertView::create(platform::Rect frame) {
    return std::make_shared<PreAlertView>(frame);
}

void PreAlertView::setHideScheduler(HideScheduler scheduler) {
    std::lock_guard lock(mutex_);
    hideScheduler_ = std::move(scheduler);
}

platform::TextAlignment PreAlertView::textAlignment(std::string_view position) {
    if (position == "TOP_LEFT" || position == "UNDER_LEFT") return platform::TextAlignment::left;
    if (position == "TOP_RIGHT" || position == "UNDER_RIGHT") return platform::TextAlignment::right;
    return platform::TextAlignment::center;
}

PreAlertView::VerticalAlignment PreAlertView::verticalAlignment(std::string_view position) {
    if (position == "TOP_LEFT" || position == "TOP_RIGHT") return VerticalAlignment::top;
    if (position == "UNDER_LEFT" || position == "UNDER_RIGHT") return VerticalAlignment::bottom;
    return VerticalAlignment::center;
}

platform::Color PreAlertView::color(std::string_view hexString) {
    auto alphanumeric = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; };
    auto first = std::find_if(hexString.begin(), hexString.end(), alphanumeric);
    auto last = std::find_if(hexString.rbegin(), hexString.rend(), alphanumeric).base();
    std::uint32_t value = 0;
    for (auto it = first; it < last && std::isxdigit(static_cast<unsigned char>(*it)); ++it) {
        const char c = static_cast<char>(std::tolower(static_cast<unsigned char>(*it)));
        // An unsigned 32-bit scan keeps the last eight digits; only the low six are a colour.
        value = (value << 4) | static_cast<std::uint32_t>(c <= '9' ? c - '0' : c - 'a' + 10);
    }
    return {((value >> 16) & 0xFF) / 255.0, ((value >> 8) & 0xFF) / 255.0, (value & 0xFF) / 255.0, 1};
}

platform::AttributedString PreAlertView::attributedText(const nivora::QOEHighlyCriticalInfo& alertInfo,
                                                        const nivora::QOEViewInfo& viewInfo,
                                                        double maxFontSize) {
    using platform::AttributedString;
    platform::AttributedString text(alertInfo.firstText + "\n\n" + alertInfo.secondText + "\n\n" +
                                    alertInfo.thirdText);
    const std::size_t separator = 2; // two line feeds, one UTF-16 unit each
    const std::size_t first = AttributedString::utf16Length(alertInfo.firstText);
    const std::size_t second = AttributedString::utf16Length(alertInfo.secondText);
    const std::size_t third = AttributedString::utf16Length(alertInfo.thirdText);
    auto style = [&](std::size_t location, std::size_t length,
                     const nivora::QOEViewInfo::ViewDetailInfo& detail) {
        AttributedString::Attributes attributes;
        const double size = maxFontSize / 100 * detail.fontSizePercent;
        attributes.font = platform::Font::systemFont(platform::Font::defaultSize)
                              .withTraits(detail.isBold, detail.isItalic, size);
        attributes.foregroundColor = color(detail.colorHex);
        if (detail.isUnderlined) attributes.underlineStyle = 1;
        text.addAttributes(location, length, std::move(attributes));
    };
    style(0, first, viewInfo.firstDetail);
    style(first + separator, second, viewInfo.secondDetail);
    style(first + separator + second + separator, third, viewInfo.thirdDetail);
    return text;
}

void PreAlertView::show(const nivora::QOEHighlyCriticalInfo& alertInfo, const nivora::QOEViewInfo& viewInfo) {
    std::weak_ptr<PreAlertView> weak = std::static_pointer_cast<PreAlertView>(shared_from_this());
    platform::DispatchQueue::main()->async([weak, alertInfo, viewInfo] {
        if (auto self = weak.lock()) self->display(alertInfo, viewInfo);
    });
    std::lock_guard lock(mutex_);
    if (hideItem_) {
        OVALog(OVALogLevel::info, "cancel previous work item", "show(alertInfo:viewInfo:)", __FILE__,
               __LINE__);
        hideItem_->cancel();
    }
    hideItem_ = std::make_shared<platform::DispatchWorkItem>([weak] {
        if (auto self = weak.lock()) self->setHidden(true);
    });
    hideScheduler_(hideDelay, hideItem_);
}

void PreAlertView::display(const nivora::QOEHighlyCriticalInfo& alertInfo,
                           const nivora::QOEViewInfo& viewInfo) {
    setHidden(false);
    // The size at which one line of the default 12-point text fills the view's height.
    const double referenceHeight = measure("The string to render").height;
    const double maxFontSize = referenceHeight > 0 ? 12 / referenceHeight * frame().size.height : 12;
    setAttributedText(attributedText(alertInfo, viewInfo, maxFontSize));
    setTextAlignment(textAlignment(viewInfo.position));

    const auto bounds = this->bounds();
    const double fitted = sizeThatFits({bounds.size.width, std::numeric_limits<double>::infinity()}).height;
    double offset = 0;
    switch (verticalAlignment(viewInfo.position)) {
    case VerticalAlignment::top:
        offset = 0;
        break;
    case VerticalAlignment::bottom:
        offset = bounds.size.height - fitted;
        break;
    case VerticalAlignment::center:
        offset = (bounds.size.height - fitted * zoomScale()) * 0.5;
        break;
    }
    offset = std::max(offset, 1.0);
    setContentOffset({contentOffset().x, -offset});
}

} // namespace ovalto
