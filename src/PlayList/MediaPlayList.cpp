#include "PlayList/MediaPlayList.h"

#include "PlayList/Ext.h"
#include "PlayList/PlayListText.h"
#include "PlayList/Representation.h"
#include "PlayList/RewrittenUrl.h"
#include "Utils/URLExtension.h"
#include "ovalto/OVALog.h"
#include "platform/Pages.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <deque>
#include <map>
#include <memory>

namespace ovalto {

namespace {

constexpr std::string_view fileName = "PlayList/MediaPlayList";
constexpr std::string_view parseFunction = "parsePlayList(playList:baseUrl:container:)";
constexpr std::string_view generateFunction = "generatePlayList(container:)";
constexpr std::int32_t timescale = 1000;
constexpr std::string_view infPrefix = "#EXTINF:";
constexpr std::string_view byteRangePrefix = "#EXT-X-BYTERANGE:";

template <class T> void appendInteger(std::string& out, T value) {
    char buffer[24];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out.append(buffer, result.ptr);
}

// Raw writers for the segment lines, which are built in a stack buffer and appended at once.
// The buffer holds the longest lines: a duration of up to 350 characters (a double written in
// full), two 64-bit numbers and the segment URI with its 64-bit index.
constexpr std::size_t bufferSize = 1024;

void write(char*& cursor, std::string_view text) {
    std::memcpy(cursor, text.data(), text.size());
    cursor += text.size();
}

template <class T> void writeInteger(char*& cursor, T value) {
    cursor = std::to_chars(cursor, cursor + 24, value).ptr;
}

// The duration in seconds as the shortest text that reads back as the same double, in fixed
// notation with at least one decimal ("6.006", "10.0").
void writeSeconds(char*& cursor, const platform::MediaTime& duration) {
    // Whole milliseconds below 10^15 (all that the parser makes): that text is the exact
    // decimal ms / 1000, since below 2^43 s a double's spacing is finer than a millisecond.
    if (duration.isNumeric() && duration.timescale == timescale && duration.value > -1'000'000'000'000'000 &&
        duration.value < 1'000'000'000'000'000) {
        if (duration.value < 0) *cursor++ = '-';
        const std::int64_t magnitude = duration.value < 0 ? -duration.value : duration.value;
        writeInteger(cursor, magnitude / timescale);
        *cursor++ = '.';
        const std::int64_t fraction = magnitude % timescale;
        if (fraction == 0) {
            *cursor++ = '0';
            return;
        }
        cursor[0] = char('0' + fraction / 100);
        cursor[1] = char('0' + fraction / 10 % 10);
        cursor[2] = char('0' + fraction % 10);
        std::size_t digits = 3;
        while (cursor[digits - 1] == '0')
            --digits;
        cursor += digits;
        return;
    }
    const double seconds = duration.seconds();
    char* const begin = cursor;
    cursor = std::to_chars(cursor, cursor + 400, seconds, std::chars_format::fixed).ptr;
    if (std::isfinite(seconds) &&
        std::string_view(begin, std::size_t(cursor - begin)).find('.') == std::string_view::npos)
        write(cursor, ".0");
}

// `name=value` elements joined with ","; `uri`, when given, is written in place of URI's value.
void appendAttributes(std::string& out, const AttributeList& attributes,
                      std::optional<std::string_view> uri = {}) {
    bool first = true;
    for (const auto& [name, value] : attributes) {
        if (!first) out += ',';
        first = false;
        out += name;
        out += '=';
        out += uri && name == "URI" ? *uri : std::string_view(value);
    }
}

// An #EXTINF duration in whole milliseconds: the number before the first comma. A value that
// is not a finite decimal number or does not fit 64 bits in milliseconds counts as missing.
// `text` is everything after "#EXTINF:"; the value ends at the next colon, as any tag value.
bool durationMilliseconds(std::string_view text, std::int64_t& milliseconds) {
    std::size_t end = 0;
    while (end < text.size() && text[end] != ',' && text[end] != ':')
        ++end;
    return playlisttext::parseMilliseconds(text.substr(0, end), milliseconds);
}

// MediaTime::make(milliseconds, 1000), built where it is used so that it stays in registers.
platform::MediaTime millisecondTime(std::int64_t milliseconds) {
    platform::MediaTime time;
    time.value = milliseconds;
    time.timescale = timescale;
    time.flags = platform::MediaTime::valid;
    return time;
}

// `running` plus a duration in milliseconds. The common case, a millisecond time far from the
// 64-bit limits, is one addition; the rest takes the general sum with its overflow rules.
platform::MediaTime advance(const platform::MediaTime& running, std::int64_t milliseconds) {
    std::int64_t sum = 0;
    if (running.isNumeric() && running.timescale == timescale && running.epoch == 0 &&
        !__builtin_add_overflow(running.value, milliseconds, &sum)) {
        platform::MediaTime next = running;
        next.value = sum;
        return next;
    }
    return running + millisecondTime(milliseconds);
}

// One segment while the playlist is read: its #EXTINF, its byte range, its last URI line and
// how many URI lines listed it (each one lists the segment again).
struct Draft {
    std::optional<platform::MediaTime> start;
    std::optional<platform::MediaTime> duration;
    std::optional<std::int64_t> offset;
    std::optional<std::int64_t> length;
    std::string_view uri;
    std::size_t listings = 0;
};

// The fragments of one parse, built in place: a fragment kept elsewhere keeps its store alive,
// and no fragment is moved once made. Storage comes in chunks sized from the playlist's length,
// so a long playlist takes one or two allocations; slots are raw memory until a fragment is made
// in them, so an estimate that is too high costs address space, not pages (at most the rest of
// one huge page: a long playlist's chunks are filled through huge pages, and the pages ahead of
// the last slot are made present a run at a time, see platform::Pages). The store also holds
// the segment URIs as the playlist wrote them and the playlist's resolver, from which each
// fragment makes its URL when it is read.
class FragmentStore {
public:
    FragmentStore(std::size_t expected, const platform::Url& baseUrl)
        : chunkSize_(std::clamp<std::size_t>(expected, 16, 65536))
        , resolver_(baseUrl) {}
    FragmentStore(const FragmentStore&) = delete;
    FragmentStore& operator=(const FragmentStore&) = delete;
    ~FragmentStore() {
        for (Chunk& chunk : chunks_) {
            std::destroy_n(chunk.slots, chunk.used);
            std::allocator<Fragment>().deallocate(chunk.slots, chunk.capacity);
        }
    }

    const SubUrlResolver& resolver() const { return resolver_; }

    // Where the segments naming `uri` take their URL from; it lives as long as the store.
    const FragmentUrl::Source* keep(std::string_view uri) {
        if (texts_.empty() || textCapacity_ - textUsed_ < uri.size()) {
            textCapacity_ = std::max<std::size_t>(uri.size(), 64 * 1024);
            texts_.push_back(std::make_unique_for_overwrite<char[]>(textCapacity_));
            textUsed_ = 0;
        }
        char* copy = texts_.back().get() + textUsed_;
        std::memcpy(copy, uri.data(), uri.size());
        textUsed_ += uri.size();
        return &sources_.emplace_back(FragmentUrl::Source{&resolver_, {copy, uri.size()}});
    }

    Fragment& emplace(const Draft& draft, const FragmentUrl::Source* source) {
        if (chunks_.empty() || chunks_.back().used == chunks_.back().capacity) {
            chunks_.reserve(chunks_.size() + 1); // so that the push below cannot throw
            chunks_.push_back({std::allocator<Fragment>().allocate(chunkSize_), chunkSize_, 0});
            platform::Pages::preferHuge(chunks_.back().slots, chunkSize_ * sizeof(Fragment));
        }
        Chunk& chunk = chunks_.back();
        if (chunk.used == chunk.populated) {
            const std::size_t run = std::min(populateRun, chunk.capacity - chunk.used);
            platform::Pages::populate(chunk.slots + chunk.used, run * sizeof(Fragment));
            chunk.populated += run;
        }
        Fragment* fragment = std::construct_at(chunk.slots + chunk.used, draft.start, draft.duration, source,
                                               draft.offset, draft.length);
        ++chunk.used;
        return *fragment;
    }

private:
    struct Chunk {
        Fragment* slots;
        std::size_t capacity;
        std::size_t used;
        std::size_t populated = 0; // slots whose pages are present
    };
    static constexpr std::size_t populateRun = (std::size_t{256} << 10) / sizeof(Fragment);
    std::size_t chunkSize_;
    std::vector<Chunk> chunks_;
    SubUrlResolver resolver_;
    std::vector<std::unique_ptr<char[]>> texts_;
    std::deque<FragmentUrl::Source> sources_;
    std::size_t textCapacity_ = 0;
    std::size_t textUsed_ = 0;
};

} // namespace

bool MediaPlayList::parsePlayList(std::string_view playList, const platform::Url& baseUrl,
                                  Container& container) {
    using namespace playlisttext;
    if (!isValidUtf8(playList)) return false;
    auto* representation = dynamic_cast<Representation*>(&container);
    if (representation == nullptr) return false;
    // The whole text is copied into the message only when the line would be written.
    if (OVALogThreshold.load(std::memory_order_relaxed) <= OVALogLevel::debug) {
        std::string message(parseFunction);
        message += " : original\n";
        message += playList;
        OVALog(OVALogLevel::debug, message, parseFunction, fileName, 14);
    }
    if (!playList.starts_with(rawValue(Ext::ext))) return false;

    // Everything is gathered here and published in one step at the end, so that concurrent
    // segment requests see either the previous list or the new one. A segment is read into a
    // draft and made a fragment once it can no longer change: at the next #EXTINF or at the end.
    // A draft listed by two URI lines appears twice in the list, as one fragment pointing at the
    // last URI.
    const auto previousStart = representation->start.get();
    platform::MediaTime running = previousStart ? *previousStart : platform::MediaTime::make(0, timescale);
    // A segment takes at least 40 bytes of text or so ("#EXTINF:6.0,", a short name).
    const std::size_t expectedSegments = playList.size() / 40;
    auto store = std::make_shared<FragmentStore>(expectedSegments, baseUrl);
    const SubUrlResolver& resolve = store->resolver();
    std::vector<std::shared_ptr<Fragment>> fragments;
    fragments.reserve(expectedSegments);
    std::size_t populatedEntries = 0; // as for the store's slots
    constexpr std::size_t entriesPerRun = (std::size_t{256} << 10) / sizeof(fragments[0]);
    Draft draft; // the segment of the last #EXTINF, when `drafting`
    bool drafting = false;
    std::size_t listings = 0; // URI lines so far: the position of the next segment
    // Byte-range playlists name one file for many segments in a row: it is kept once.
    std::string_view keptUri;
    const FragmentUrl::Source* keptSource = nullptr;
    std::map<long, AttributeList> keyAttributes;
    AttributeList playlistAttributes;
    AttributeList mapAttributes;
    bool ended = false;
    // Set only by the tags that were present; an outer value holding an empty inner one means
    // the tag was there but unreadable.
    std::optional<std::optional<long>> targetDuration;
    std::optional<std::optional<std::int64_t>> sequence;
    std::optional<std::optional<platform::Url>> initialURL;

    const auto finishDraft = [&] {
        if (!drafting || draft.listings == 0) return;
        if (keptSource == nullptr || draft.uri != keptUri) {
            keptSource = store->keep(draft.uri);
            keptUri = keptSource->uri;
        }
        Fragment& fragment = store->emplace(draft, keptSource);
        for (std::size_t i = 0; i < draft.listings; ++i) {
            if (fragments.size() == populatedEntries && fragments.size() < fragments.capacity()) {
                const std::size_t run = std::min(entriesPerRun, fragments.capacity() - fragments.size());
                platform::Pages::populate(fragments.data() + fragments.size(), run * sizeof(fragments[0]));
                populatedEntries += run;
            }
            fragments.emplace_back(store, &fragment);
        }
    };
    // `value` is the text after "#EXTINF:".
    const auto readDuration = [&](std::string_view value) {
        finishDraft();
        drafting = true;
        // Field by field: the draft is rewritten for every segment.
        draft.offset.reset();
        draft.length.reset();
        draft.uri = {};
        draft.listings = 0;
        std::int64_t milliseconds = 0;
        if (durationMilliseconds(value, milliseconds)) {
            draft.duration = millisecondTime(milliseconds);
            draft.start = running;
            running = advance(running, milliseconds);
        } else {
            draft.duration.reset();
            draft.start.reset();
        }
    };
    // `value` is the text after "#EXT-X-BYTERANGE:": "<length>[@<offset>]", up to a colon.
    const auto readByteRange = [&](std::string_view value) {
        if (!drafting) return;
        constexpr auto npos = std::string_view::npos;
        std::size_t end = 0;
        std::size_t at = npos;
        std::size_t secondAt = npos;
        for (; end < value.size() && value[end] != ':'; ++end) {
            if (value[end] != '@') continue;
            if (at == npos) {
                at = end;
            } else if (secondAt == npos) {
                secondAt = end;
            }
        }
        // A number that does not read leaves the field empty.
        const auto read = [](std::string_view text, std::optional<std::int64_t>& field) {
            std::int64_t number = 0;
            field = parseInteger(text, number) ? std::optional(number) : std::nullopt;
        };
        read(value.substr(0, std::min(at, end)), draft.length);
        if (at != npos)
            read(value.substr(at + 1, (secondAt == npos ? end : secondAt) - at - 1), draft.offset);
    };

    forEachLine(playList, [&](std::string_view line) {
        if (line.starts_with(rawValue(Ext::end))) {
            ended = true;
            return;
        }
        if (!line.starts_with(rawValue(Ext::ext))) {
            // A URI line, or a comment read as one: it points the current segment and lists it.
            if (!drafting) return;
            draft.uri = line;
            ++draft.listings;
            ++listings;
            return;
        }
        // The two tags of every segment go straight to their readers.
        if (line.starts_with(infPrefix)) {
            readDuration(line.substr(infPrefix.size()));
            return;
        }
        if (line.starts_with(byteRangePrefix)) {
            readByteRange(line.substr(byteRangePrefix.size()));
            return;
        }
        const TagLine tag = splitTag(line);
        if (!tag.hasColon) return;
        const auto ext = makeExt(tag.name);
        if (!ext) return;
        switch (*ext) {
        case Ext::end:
            ended = true;
            break;
        case Ext::xTargetDuration:
            targetDuration = parseInteger<long>(tag.value());
            break;
        case Ext::xMediaSequence:
            sequence = parseInteger<std::int64_t>(tag.value());
            break;
        case Ext::xKey:
            keyAttributes[static_cast<long>(listings)] = parseAttribute(line);
            break;
        case Ext::xPlaylistType:
            playlistAttributes.set(std::string(tag.name), std::string(tag.value()));
            break;
        case Ext::xMap:
            mapAttributes = parseAttribute(line);
            if (const auto* uri = mapAttributes.find("URI")) initialURL = resolve(*uri);
            break;
        default:
            break;
        }
    });
    finishDraft();

    representation->reset();
    if (ended) representation->isLive.set(false);
    if (targetDuration) representation->targetDuration.set(*targetDuration);
    if (sequence) representation->sequence.set(*sequence);
    if (initialURL) representation->initialURL.set(std::move(*initialURL));
    representation->keyAttributes.set(std::move(keyAttributes));
    representation->playlistAttributes.set(std::move(playlistAttributes));
    representation->mapAttributes.set(std::move(mapAttributes));
    representation->fragments.set(std::move(fragments));
    representation->start.set(running);
    return true;
}

std::optional<platform::Data> MediaPlayList::generatePlayList(Container& container) {
    auto* representation = dynamic_cast<Representation*>(&container);
    if (representation == nullptr) return std::nullopt;
    std::string out;
    if (!writeTo(*representation, out, nullptr, 0)) return std::nullopt;
    OVALog(OVALogLevel::debug, out, generateFunction, fileName, 152);
    representation->playList.set(out);
    return std::optional<platform::Data>(std::move(out));
}

bool MediaPlayList::writePlayList(Container& container, const std::function<void(std::string_view)>& sink,
                                  std::size_t pieceSize) {
    auto* representation = dynamic_cast<Representation*>(&container);
    if (representation == nullptr) return false;
    std::string piece;
    piece.reserve(pieceSize + bufferSize);
    if (!writeTo(*representation, piece, &sink, pieceSize)) return false;
    if (!piece.empty()) sink(piece);
    return true;
}

bool MediaPlayList::writeTo(Representation& representation, std::string& out,
                            const std::function<void(std::string_view)>* sink, std::size_t pieceSize) {
    const auto bitrate = representation.bitrate.get();
    const auto streamIndex = representation.streamIndex.get();
    if (!bitrate || !streamIndex) return false;

    const auto targetDuration = representation.targetDuration.get();
    const auto sequence = representation.sequence.get();
    if (!targetDuration || !sequence) {
        OVALog(OVALogLevel::warning, "The EXT-X-TARGETDURATION and EXT-X-MEDIA-SEQUENCE tags are REQUIRED.",
               generateFunction, fileName, 101);
        return false;
    }

    const auto keyAttributes = representation.keyAttributes.get();
    const auto playlistAttributes = representation.playlistAttributes.get();
    const auto mapAttributes = representation.mapAttributes.get();
    const bool isLive = representation.isLive.get();

    // The list is read under its lock instead of copied: a copy of a long one costs more than
    // writing it. Only the fragments' own fields are locked inside (never the other way round).
    enum class Outcome { written, noRoomForIndexes, missingDuration };
    const Outcome outcome =
        representation.fragments.with([&](const std::vector<std::shared_ptr<Fragment>>& fragments) {
            // A playlist that cannot be written whole is not written at all, so a sink never receives a
            // part of one. The segments before the first that fails still get their indexes.
            std::size_t writable = 0;
            std::int64_t index = 0;
            for (; writable < fragments.size(); ++writable) {
                if (__builtin_add_overflow(*sequence, static_cast<std::int64_t>(writable), &index)) break;
                if (!fragments[writable]->duration()) break;
            }
            if (writable < fragments.size()) {
                for (std::size_t position = 0; position < writable; ++position)
                    fragments[position]->index.set(*sequence + static_cast<std::int64_t>(position));
                return __builtin_add_overflow(*sequence, static_cast<std::int64_t>(writable), &index)
                           ? Outcome::noRoomForIndexes
                           : Outcome::missingDuration;
            }

            // The start of every segment URI, which then only needs its index.
            const std::string directory = RewrittenUrl::segmentDirectory(*streamIndex, *bitrate);
            const std::string segmentLineStart = "\n" + directory;

            if (sink == nullptr) out.reserve(256 + fragments.size() * (directory.size() + 64));
            out += rawValue(Ext::start);
            out += '\n';
            out += rawValue(Ext::xVersion);
            out += '\n';
            out += rawValue(Ext::xTargetDuration);
            out += ':';
            appendInteger(out, *targetDuration);
            out += '\n';
            out += rawValue(Ext::xMediaSequence);
            out += ':';
            appendInteger(out, *sequence);
            for (const auto& [name, value] : playlistAttributes) {
                out += '\n';
                out += name;
                out += ':';
                out += value;
            }
            const std::string initialSectionUri =
                "\"" + RewrittenUrl::segment(*streamIndex, *bitrate, RewrittenUrl::initialSection) + "\"";
            if (!mapAttributes.empty()) {
                out += '\n';
                out += rawValue(Ext::xMap);
                out += ':';
                appendAttributes(out, mapAttributes, initialSectionUri);
            }

            auto key = keyAttributes.begin();
            for (std::size_t position = 0; position < fragments.size(); ++position) {
                auto& fragment = *fragments[position];
                while (key != keyAttributes.end() && key->first < static_cast<long>(position))
                    ++key;
                if (key != keyAttributes.end() && key->first == static_cast<long>(position)) {
                    out += '\n';
                    out += rawValue(Ext::xKey);
                    out += ':';
                    appendAttributes(out, key->second);
                }
                index = *sequence + static_cast<std::int64_t>(position); // cannot overflow, as checked above
                fragment.index.set(index);
                const auto length = fragment.length();
                std::optional<std::int64_t> offset;
                if (length) offset = fragment.offset();
                char buffer[bufferSize];
                char* cursor = buffer;
                write(cursor, "\n");
                write(cursor, rawValue(Ext::inf));
                write(cursor, ":");
                writeSeconds(cursor, *fragment.duration());
                if (length) {
                    write(cursor, "\n");
                    write(cursor, rawValue(Ext::xByteRange));
                    write(cursor, ":");
                    writeInteger(cursor, *length);
                    if (offset) {
                        *cursor++ = '@';
                        writeInteger(cursor, *offset);
                    }
                }
                write(cursor, segmentLineStart);
                cursor = RewrittenUrl::writeSegmentName(cursor, index);
                out.append(buffer, std::size_t(cursor - buffer));
                if (sink != nullptr && out.size() >= pieceSize) {
                    (*sink)(out);
                    out.clear();
                }
            }
            if (!isLive) {
                out += '\n';
                out += rawValue(Ext::end);
            }
            return Outcome::written;
        });
    if (outcome == Outcome::noRoomForIndexes) {
        OVALog(OVALogLevel::warning, "The EXT-X-MEDIA-SEQUENCE value leaves no room for the segment indexes.",
               generateFunction, fileName, __LINE__);
    } else if (outcome == Outcome::missingDuration) {
        OVALog(OVALogLevel::warning, "The fragment duration is REQUIRED.", generateFunction, fileName, 133);
    }
    return outcome == Outcome::written;
}

} // namespace ovalto
