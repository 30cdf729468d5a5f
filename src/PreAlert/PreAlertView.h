#pragma once

#include "nivora/QOEHighlyCriticalInfo.h"
#include "nivora/QOEViewInfo.h"
#include "platform/AttributedString.h"
#include "platform/TextView.h"

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string_view>

namespace ovalto {

namespace platform {
class DispatchWorkItem;
}

// The overlay on which the plug-in's pre-alerts appear: three styled texts, placed by a
// position keyword, shown for ten seconds. A newer alert replaces the text and restarts the
// ten seconds. show() may be called on any thread; the view changes on the main queue.
class PreAlertView : public platform::TextView {
public:
    enum class VerticalAlignment { top, bottom, center };

    static constexpr std::chrono::seconds hideDelay{10};
    // Hands the hide action to the main queue after a delay; replaceable so that tests decide
    // when the ten seconds have passed.
    using HideScheduler = std::function<void(std::chrono::steady_clock::duration,
                                             const std::shared_ptr<platform::DispatchWorkItem>&)>;

    explicit PreAlertView(platform::Rect frame);
    static std::shared_ptr<PreAlertView> create(platform::Rect frame);

    void show(const nivora::QOEHighlyCriticalInfo& alertInfo, const nivora::QOEViewInfo& viewInfo);
    void setHideScheduler(HideScheduler scheduler);

    using TextView::attributedText;
    using TextView::textAlignment;

    // "TOP_LEFT", "TOP_RIGHT", "UNDER_LEFT", "UNDER_RIGHT"; anything else centres.
    static platform::TextAlignment textAlignment(std::string_view position);
    static VerticalAlignment verticalAlignment(std::string_view position);
    // "#RRGGBB" (signs around it ignored, higher digits dropped); black when nothing is read.
    static platform::Color color(std::string_view hexString);
    // The three texts with a blank line between each, each styled by its detail; sizes are
    // percentages of `maxFontSize`.
    static platform::AttributedString attributedText(const nivora::QOEHighlyCriticalInfo& alertInfo,
                                                     const nivora::QOEViewInfo& viewInfo, double maxFontSize);

private:
    // The main-queue half of show().
    void display(const nivora::QOEHighlyCriticalInfo& alertInfo, const nivora::QOEViewInfo& viewInfo);

    std::mutex mutex_; // guards the two below: alerts may arrive on any thread
    std::shared_ptr<platform::DispatchWorkItem> hideItem_;
    HideScheduler hideScheduler_;
};

} // namespace ovalto
