#pragma once

#include <optional>
#include <string>
#include <vector>

namespace ovalto::platform {

// What a rendition is for: hearing, reading or seeing.
enum class MediaCharacteristic { audible, legible, visual };

// One entry of an option's metadata; the title has the common key "title".
struct MetadataItem {
    std::string commonKey;
    std::optional<std::string> stringValue;
};

// One choice within a group: the renditions of one NAME, whatever group of the playlist they
// are listed in, so that the choice holds when the variant changes.
struct MediaSelectionOption {
    MediaCharacteristic characteristic = MediaCharacteristic::audible;
    std::string mediaType; // "audio", "subtitles", "closedCaptions" or "video"
    std::string displayName;
    std::optional<std::string> extendedLanguageTag;
    std::vector<MetadataItem> commonMetadata;

    bool operator==(const MediaSelectionOption& other) const {
        return characteristic == other.characteristic && displayName == other.displayName;
    }
};

// The options of one characteristic, in the order the playlist first names them.
struct MediaSelectionGroup {
    MediaCharacteristic characteristic = MediaCharacteristic::audible;
    std::vector<MediaSelectionOption> options;
    std::optional<MediaSelectionOption> defaultOption;
    bool allowsEmptySelection = false;
};

} // namespace ovalto::platform
