#pragma once

#include "nivora/QOEHighlyCriticalInfo.h"
#include "nivora/QOEViewInfo.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <functional>

namespace nivora {

// The plug-in's quality-of-experience hook: it chooses the report interval, receives each
// report, and may ask for a pre-alert. onConfiguration and onQOEEvent may throw.
class QOEPlugin {
public:
    struct Configuration {
        std::int32_t interval = 0; // seconds between reports; 0 sends none
        bool isDownloadOnly = true;
    };
    // A report: a JSON object whose keys keep the order in which they were written.
    using Dictionary = nlohmann::ordered_json;
    using OnInterval = std::function<void(std::int32_t interval)>;
    using OnPreAlert = std::function<void(const QOEHighlyCriticalInfo&, const QOEViewInfo&)>;

    virtual ~QOEPlugin() = default;

    virtual void onConfiguration(Configuration& configuration) = 0;
    // The plug-in calls `onInterval` whenever it wants another report interval.
    virtual void setOnIntervalListener(OnInterval onInterval) = 0;
    virtual void setOnPreAlertListener(OnPreAlert onPreAlert) = 0;
    virtual void onQOEEvent(const Dictionary& qoeReport) = 0;
};

} // namespace nivora
