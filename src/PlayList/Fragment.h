#pragma once

#include "PlayList/Container.h"
#include "PlayList/FragmentUrl.h"
#include "Utils/Guarded.h"
#include "Utils/GuardedBox.h"
#include "platform/Error.h"
#include "platform/MediaTime.h"

#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace ovalto {

// One media segment. A long VOD lists a hundred thousand of them, so a fragment is kept small:
// its timing and byte range are what the playlist said and never change, held as plain numbers
// that any thread may read (whole milliseconds, as the parser makes them; other times are kept
// exactly on the side); the fields later requests write (the index, a listener's replacement
// URL, the QoE attributes) are guarded, and those most fragments never get take one word.
class Fragment final : public Container {
public:
    Fragment() = default;
    // The URL is resolved from `source` when it is read (see FragmentUrl).
    Fragment(const std::optional<platform::MediaTime>& start,
             const std::optional<platform::MediaTime>& duration, const FragmentUrl::Source* source,
             std::optional<std::int64_t> offset, std::optional<std::int64_t> length)
        : url(source) {
        if (offset) {
            offset_ = *offset;
            present_ |= hasOffset;
        }
        if (length) {
            length_ = *length;
            present_ |= hasLength;
        }
        if (!isCompact(start, std::numeric_limits<std::int64_t>::max()) ||
            !isCompact(duration, std::numeric_limits<std::int32_t>::max())) {
            exact_ = std::make_unique<const Exact>(Exact{start, duration});
            return;
        }
        if (start) {
            start_ = start->value;
            present_ |= hasStart;
        }
        if (duration) {
            duration_ = static_cast<std::int32_t>(duration->value);
            present_ |= hasDuration;
        }
    }

    // The compact fields below fill the padding at its end.
    [[no_unique_address]] Guarded<std::optional<std::int64_t>> index;

private:
    std::uint8_t present_ = 0;
    std::int32_t duration_ = 0;

public:
    FragmentUrl url;
    // Filled by the redirect resource: "StreamIndex", "MediaType", "FragmentIndex", "Bitrate".
    GuardedBox<std::map<std::string, std::string>> attributes;
    GuardedBox<std::optional<platform::Data>> data;

    std::optional<platform::MediaTime> start() const {
        if (exact_) return exact_->start;
        return (present_ & hasStart) ? std::optional(milliseconds(start_)) : std::nullopt;
    }
    std::optional<platform::MediaTime> duration() const {
        if (exact_) return exact_->duration;
        return (present_ & hasDuration) ? std::optional(milliseconds(duration_)) : std::nullopt;
    }
    std::optional<std::int64_t> offset() const {
        return (present_ & hasOffset) ? std::optional(offset_) : std::nullopt;
    }
    std::optional<std::int64_t> length() const {
        return (present_ & hasLength) ? std::optional(length_) : std::nullopt;
    }

private:
    static constexpr std::int32_t millisecondScale = 1000;
    enum Present : std::uint8_t {
        hasStart = 1,
        hasDuration = 2,
        hasOffset = 4,
        hasLength = 8,
    };
    struct Exact {
        std::optional<platform::MediaTime> start;
        std::optional<platform::MediaTime> duration;
    };

    // Absent, or a plain time in milliseconds no greater than `limit`.
    static bool isCompact(const std::optional<platform::MediaTime>& time, std::int64_t limit) {
        return !time || (time->timescale == millisecondScale && time->flags == platform::MediaTime::valid &&
                         time->epoch == 0 && time->value >= -limit && time->value <= limit);
    }
    static platform::MediaTime milliseconds(std::int64_t value) {
        platform::MediaTime time;
        time.value = value;
        time.timescale = millisecondScale;
        time.flags = platform::MediaTime::valid;
        return time;
    }

    std::int64_t start_ = 0;
    std::int64_t offset_ = 0;
    std::int64_t length_ = 0;
    std::unique_ptr<const Exact> exact_; // times of another form, rare
};

} // namespace ovalto
