#pragma once

#include "Utils/GuardedBox.h"
#include "Utils/URLExtension.h"
#include "platform/Url.h"

#include <optional>
#include <string_view>

namespace ovalto {

// The URL of one segment. A parsed playlist gives the URI as its text wrote it, with the resolver
// of that playlist, and the URL is made when it is read: a long VOD lists a hundred thousand
// segments, and only those the player asks for are ever read, so a fragment keeps two words
// instead of a URL of its own. A URL that is set (a listener's replacement) takes its place.
class FragmentUrl {
public:
    // Where a parsed segment's URL comes from; segments that name the same file share one.
    struct Source {
        const SubUrlResolver* resolver;
        std::string_view uri;
    };

    FragmentUrl() = default;
    // `source`, its resolver and the text behind its URI must outlive this (the parse's store
    // holds them all).
    explicit FragmentUrl(const Source* source)
        : source_(source) {}

    std::optional<platform::Url> get() const {
        auto replacement =
            replacement_.with([](const Replacement& current) -> std::optional<std::optional<platform::Url>> {
                if (!current.isSet) return std::nullopt;
                return current.url;
            });
        if (replacement) return std::move(*replacement);
        if (source_ == nullptr) return std::nullopt;
        return (*source_->resolver)(source_->uri);
    }
    void set(std::optional<platform::Url> url) { replacement_.set(Replacement{true, std::move(url)}); }

private:
    struct Replacement {
        bool isSet = false;
        std::optional<platform::Url> url; // empty: set to no URL
    };
    const Source* source_ = nullptr;
    GuardedBox<Replacement> replacement_;
};

} // namespace ovalto
