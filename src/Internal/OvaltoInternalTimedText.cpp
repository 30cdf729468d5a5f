// OvaltoInternal: delivery of side-car subtitles (kept apart from preparation and observation).
#include "Internal/OvaltoInternal.h"
#include "TimedText/TimeKey.h"

#include <chrono>
#include <cmath>

namespace ovalto {

void OvaltoInternal::addTimedTextSource(const platform::Url& url, MimeType mimeType) {
    const auto source = ++timedTextSources_;
    auto headers = configurations.with([](const std::optional<Configurations>& all) {
        auto found = all ? configurationValue<Headers>(*all, ConfigurationKey::httpHeaders) : std::nullopt;
        return found.value_or(Headers{});
    });
    platform::DispatchQueue::global()->async(
        [weak = weak_from_this(), url, mimeType, source, headers = std::move(headers)] {
            std::shared_ptr<TimedText> parser = mimeType.timedText();
            parser->parse(url, headers);
            auto self = weak.lock();
            if (!self) return;
            // A later source wins even when its parse ends first.
            const bool installed = self->timedText.with([&](std::shared_ptr<const TimedText>& current) {
                if (self->timedTextSources_.load() != source) return false;
                current = std::move(parser);
                return true;
            });
            if (installed) self->createTimer(0.01);
        });
}

void OvaltoInternal::createTimer(double interval) {
    if (auto running = timer.get()) running->invalidate();
    const auto generation = timerGeneration_.load();
    platform::DispatchQueue::main()->async([weak = weak_from_this(), interval, generation] {
        auto self = weak.lock();
        if (!self || self->timerGeneration_.load() != generation) return;
        const auto period = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            std::chrono::duration<double>(std::isfinite(interval) && interval > 0 ? interval : 0.01));
        // The timer refers to the engine weakly: one that outlives a reset cannot keep it alive.
        auto fresh = platform::Timer::scheduledTimer(period, true, [weak](platform::Timer&) {
            if (auto engine = weak.lock()) engine->periodicTime();
        });
        auto previous = self->timer.with(
            [&](std::shared_ptr<platform::Timer>& current) { return std::exchange(current, fresh); });
        if (previous) previous->invalidate();
        // A reset that ran meanwhile has missed this timer.
        if (self->timerGeneration_.load() != generation) fresh->invalidate();
    });
}

void OvaltoInternal::periodicTime() {
    platform::DispatchQueue::global()->async([weak = weak_from_this()] {
        if (auto self = weak.lock()) self->deliverTimedText();
    });
}

void OvaltoInternal::deliverTimedText() {
    const auto item = playerItem.get();
    const auto parser = timedText.get();
    if (!item || !parser) return;
    const auto key = timeKey(item->currentTime().seconds());
    if (!key) return;
    if (const auto handler = onTimedText.get()) {
        if (auto found = parser->texts.find(*key); found != parser->texts.end())
            (*handler)(item->currentTime(), found->second);
    }
    if (const auto handler = onTimedTextCue.get()) {
        if (auto found = parser->cues.find(*key); found != parser->cues.end()) (*handler)(found->second);
    }
}

} // namespace ovalto
