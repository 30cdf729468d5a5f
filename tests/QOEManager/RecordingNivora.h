#pragma once

// A plug-in that records what the QoE manager hands it and does what a test tells it to.

#include "nivora/Nivora.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <vector>

namespace ovalto::test {

class RecordingNetworkPlugin : public nivora::NetworkPlugin {
public:
    using Request = nivora::NetworkPlugin::Request;
    using Response = nivora::NetworkPlugin::Response;

    std::function<void(Request&)> rewrite = [](Request&) {};
    bool throws = false;

    void onManifestRequest(Request& request) override { handle(request, std::nullopt); }
    void onFragmentRequest(Request& request, nivora::MediaType type) override { handle(request, type); }
    void onManifestResponse(Response& response) override { handle(response, std::nullopt); }
    void onFragmentResponse(Response& response, nivora::MediaType type) override { handle(response, type); }

    std::vector<Request> requests() const {
        std::lock_guard lock(mutex_);
        return requests_;
    }
    std::vector<Response> responses() const {
        std::lock_guard lock(mutex_);
        return responses_;
    }
    std::vector<std::optional<nivora::MediaType>> types() const {
        std::lock_guard lock(mutex_);
        return types_;
    }

private:
    void handle(Request& request, std::optional<nivora::MediaType> type) {
        {
            std::lock_guard lock(mutex_);
            requests_.push_back(request);
            types_.push_back(type);
        }
        if (throws) throw std::runtime_error("hook refused the request");
        rewrite(request);
    }
    void handle(Response& response, std::optional<nivora::MediaType> type) {
        {
            std::lock_guard lock(mutex_);
            responses_.push_back(response);
            types_.push_back(type);
        }
        if (throws) throw std::runtime_error("hook refused the response");
    }

    mutable std::mutex mutex_;
    std::vector<Request> requests_;
    std::vector<Response> responses_;
    std::vector<std::optional<nivora::MediaType>> types_;
};

class RecordingQOEPlugin : public nivora::QOEPlugin {
public:
    std::int32_t interval = 0; // what onConfiguration fills in
    bool throws = false;
    std::atomic<int> configurations{0};

    void onConfiguration(Configuration& configuration) override {
        ++configurations;
        if (throws) throw std::runtime_error("no configuration today");
        configuration.interval = interval;
    }
    void setOnIntervalListener(OnInterval listener) override {
        std::lock_guard lock(mutex_);
        onInterval_ = std::move(listener);
    }
    void setOnPreAlertListener(OnPreAlert listener) override {
        std::lock_guard lock(mutex_);
        onPreAlert_ = std::move(listener);
    }
    void onQOEEvent(const Dictionary& report) override {
        std::lock_guard lock(mutex_);
        reports_.push_back(report);
        if (throws) throw std::runtime_error("collector refused the report");
    }

    void changeInterval(std::int32_t seconds) {
        OnInterval listener;
        {
            std::lock_guard lock(mutex_);
            listener = onInterval_;
        }
        if (listener) listener(seconds);
    }
    void preAlert(const nivora::QOEHighlyCriticalInfo& alert, const nivora::QOEViewInfo& view) {
        OnPreAlert listener;
        {
            std::lock_guard lock(mutex_);
            listener = onPreAlert_;
        }
        if (listener) listener(alert, view);
    }
    std::vector<Dictionary> reports() const {
        std::lock_guard lock(mutex_);
        return reports_;
    }

private:
    mutable std::mutex mutex_;
    OnInterval onInterval_;
    OnPreAlert onPreAlert_;
    std::vector<Dictionary> reports_;
};

// Either hook may be left out, as a plug-in that installs none.
class RecordingNivora : public nivora::Nivora {
public:
    std::shared_ptr<RecordingNetworkPlugin> network = std::make_shared<RecordingNetworkPlugin>();
    std::shared_ptr<RecordingQOEPlugin> qoe = std::make_shared<RecordingQOEPlugin>();

    std::shared_ptr<nivora::NetworkPlugin> getNetworkPlugin() override { return network; }
    std::shared_ptr<nivora::QOEPlugin> getQOEPlugin() override { return qoe; }
};

} // namespace ovalto::test
