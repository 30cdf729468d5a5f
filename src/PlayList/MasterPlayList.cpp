#include "PlayList/MasterPlayList.h"

#include "PlayList/Ext.h"
#include "PlayList/PlayListText.h"
#include "PlayList/Presentation.h"
#include "PlayList/RewrittenUrl.h"
#include "Utils/URLExtension.h"
#include "ovalto/OVALog.h"

#include <algorithm>
#include <map>
#include <memory>

namespace ovalto {

namespace {

constexpr std::string_view fileName = "PlayList/MasterPlayList";
constexpr std::string_view parseFunction = "parsePlayList(playList:baseUrl:container:)";
void appendMediaUri(std::string& out, long index, std::int32_t bitrate) {
    RewrittenUrl::appendMediaPlayList(out, index, bitrate);
}

// Appends `name=value` elements separated by commas.
struct ElementWriter {
    std::string& out;
    bool first = true;
    std::string& next() {
        if (!first) out += ',';
        first = false;
        return out;
    }
    void add(std::string_view name, std::string_view value) {
        next() += name;
        out += '=';
        out += value;
    }
};

void appendXMedia(std::string& out, MediaType type, std::int32_t bitrate, std::int32_t name, bool isDefault,
                  long index) {
    out += rawValue(Ext::xMedia);
    out += ":TYPE=";
    for (char c : type.rawValue())
        out += static_cast<char>(c - 'a' + 'A');
    out += ",GROUP-ID=\"";
    out += std::to_string(bitrate);
    out += "\",NAME=\"";
    out += std::to_string(name);
    out += isDefault ? "\",DEFAULT=YES,URI=\"" : "\",DEFAULT=NO,URI=\"";
    appendMediaUri(out, index, std::min(bitrate, name));
    out += '"';
}

} // namespace

bool MasterPlayList::parsePlayList(std::string_view playList, const platform::Url& baseUrl,
                                   Container& container) {
    using namespace playlisttext;
    if (!isValidUtf8(playList)) return false;
    auto* presentation = dynamic_cast<Presentation*>(&container);
    if (presentation == nullptr) return false;
    OVALog(OVALogLevel::debug, playList, parseFunction, fileName, 12);
    if (!playList.starts_with(rawValue(Ext::ext))) return false;

    std::vector<std::shared_ptr<Stream>> streams;
    if (!isMaster(playList)) {
        // The top URL is itself a media playlist: wrap it in a presentation of one variant.
        auto representation = std::make_shared<Representation>();
        representation->bitrate.set(defaultBitrate);
        representation->streamAttributes.set(AttributeList{{"BANDWIDTH", std::to_string(defaultBitrate)}});
        representation->url.set(baseUrl);
        auto stream = std::make_shared<Stream>();
        stream->representations.set({{defaultBitrate, std::move(representation)}});
        streams.push_back(std::move(stream));
        presentation->streams.set(std::move(streams));
        presentation->url.set(baseUrl);
        return true;
    }

    const SubUrlResolver resolve(baseUrl);
    // Every variant goes into one video stream, added after the renditions.
    auto video = std::make_shared<Stream>();
    std::map<std::int32_t, std::shared_ptr<Representation>> variants;
    std::shared_ptr<Representation> pending;
    std::int32_t pendingBitrate = defaultBitrate;
    forEachLine(playList, [&](std::string_view line) {
        if (!line.starts_with(rawValue(Ext::ext))) {
            // A URI line (or a comment, read the same way) points the pending variant; a second
            // one re-points it.
            if (!pending) return;
            pending->url.set(resolve(line));
            variants[pendingBitrate] = pending;
            return;
        }
        const std::string_view tag = splitTag(line).name;
        if (tag == rawValue(Ext::xMedia)) {
            auto stream = std::make_shared<Stream>();
            auto representation = std::make_shared<Representation>();
            representation->bitrate.set(renditionBitrate);
            AttributeList attributes = parseAttribute(line);
            if (const auto* type = attributes.find("TYPE")) stream->mediaType.set(MediaType::create(*type));
            if (const auto* uri = attributes.find("URI")) representation->url.set(resolve(*uri));
            stream->representations.set({{renditionBitrate, std::move(representation)}});
            stream->attributes.set(std::move(attributes));
            streams.push_back(std::move(stream));
        } else if (tag == rawValue(Ext::xStreamInf)) {
            pending = std::make_shared<Representation>();
            pendingBitrate = defaultBitrate;
            AttributeList attributes = parseAttribute(line);
            if (const auto* bandwidth = attributes.find("BANDWIDTH")) {
                if (auto bitrate = parseInteger<std::int32_t>(*bandwidth)) {
                    pendingBitrate = *bitrate;
                } else {
                    // Keyed like a variant without BANDWIDTH, so that it stays playable.
                    OVALog(OVALogLevel::warning,
                           "BANDWIDTH=" + *bandwidth +
                               " is not a 32-bit decimal integer; the variant is keyed " +
                               std::to_string(defaultBitrate) + ".",
                           parseFunction, fileName, __LINE__);
                }
            }
            pending->bitrate.set(pendingBitrate);
            pending->streamAttributes.set(std::move(attributes));
        }
    });
    video->representations.set(std::move(variants));
    streams.push_back(std::move(video));
    presentation->streams.set(std::move(streams));
    presentation->url.set(baseUrl);
    return true;
}

std::optional<platform::Data> MasterPlayList::generatePlayList(Container& container) {
    auto* presentation = dynamic_cast<Presentation*>(&container);
    if (presentation == nullptr) return std::nullopt;

    std::string out;
    out += rawValue(Ext::start);
    out += '\n';
    out += rawValue(Ext::xVersion);

    const auto streams = presentation->streams.get();
    // Renditions come first, whatever their place in the source.
    for (std::size_t i = 0; i < streams.size(); ++i) {
        const MediaType type = streams[i]->mediaType.get();
        if (type != MediaType::audio && type != MediaType::text) continue;
        const auto index = static_cast<long>(i);
        out += '\n';
        out += rawValue(Ext::xMedia);
        out += ':';
        ElementWriter elements{out};
        bool hasUri = false;
        streams[i]->attributes.with([&](const AttributeList& attributes) {
            for (const auto& [name, value] : attributes) {
                if (name == "URI") {
                    hasUri = true;
                } else {
                    elements.add(name, value);
                }
            }
        });
        if (hasUri) {
            for (const auto& [bitrate, representation] : streams[i]->representations.get()) {
                elements.next() += "URI=\"";
                appendMediaUri(out, index, bitrate);
                out += '"';
            }
        }
    }

    for (std::size_t i = 0; i < streams.size(); ++i) {
        if (streams[i]->mediaType.get() != MediaType::video) continue;
        const auto index = static_cast<long>(i);
        const auto representations = streams[i]->representations.get();
        std::vector<std::int32_t> bitrates; // ascending: the map is ordered
        bitrates.reserve(representations.size());
        for (const auto& entry : representations)
            bitrates.push_back(entry.first);
        const bool several = representations.size() > 1;
        for (const auto& [bitrate, representation] : representations) {
            if (several) {
                for (std::int32_t name : bitrates) {
                    out += '\n';
                    appendXMedia(out, MediaType::video, bitrate, name, name == bitrates.back(), index);
                }
            }
            out += '\n';
            out += rawValue(Ext::xStreamInf);
            out += ':';
            ElementWriter elements{out};
            representation->streamAttributes.with([&](const AttributeList& attributes) {
                for (const auto& [name, value] : attributes)
                    elements.add(name, value);
            });
            if (several) {
                elements.next() += "VIDEO=\"";
                out += std::to_string(bitrate);
                out += '"';
            }
            out += '\n';
            appendMediaUri(out, index, bitrate);
        }
    }

    presentation->playList.set(out);
    return out;
}

std::vector<std::string> MasterPlayList::generateXMedias(MediaType type, std::int32_t bitrate,
                                                         const std::vector<std::int32_t>& bitrates,
                                                         long index) {
    std::vector<std::string> lines;
    lines.reserve(bitrates.size());
    for (std::int32_t name : bitrates) {
        std::string line;
        appendXMedia(line, type, bitrate, name, name == bitrates.back(), index);
        lines.push_back(std::move(line));
    }
    return lines;
}

} // namespace ovalto
