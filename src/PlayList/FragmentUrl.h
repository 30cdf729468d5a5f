#pragma once

#include "Utils/Guarded.h"
#include "Utils/URLExtension.h"
#include "platform/Url.h"

#include <memory>
#include <optional>
#include <string_view>

namespace ovalto {

// The URL of one segment. A parsed playlist gives the URI as its text wrote it, with the resolver
// of that playlist, and the URL is made when it is read: a long VOD lists a hundred thousand
// segments, and only those the player asks for are ever read, so a fragment keeps a few words
// instead of a URL of its own. A URL that is set (a listener's replacement) takes its place.
class FragmentUrl {
public:
    explicit FragmentUrl(std::optional<platform::Url> url = std::nullopt) { set(std::move(url)); }
    // `resolver` and the text behind `uri` must outlive this (the parse's store holds both).
    FragmentUrl(const SubUrlResolver* resolver, std::string_view uri)
        : resolver_(resolver)
        , uri_(uri) {}

    std::optional<platform::Url> get() const {
        Replacement replacement;
        replacement_.with([&](const Replacement& current) { replacement = current; });
        if (replacement.isSet) return replacement.url ? std::optional(*replacement.url) : std::nullopt;
        if (resolver_ == nullptr) return std::nullopt;
        return (*resolver_)(uri_);
    }
    void set(std::optional<platform::Url> url) {
        auto shared = url ? std::make_shared<const platform::Url>(std::move(*url)) : nullptr;
        replacement_.set(Replacement{true, std::move(shared)});
    }

private:
    struct Replacement {
        bool isSet = false;
        std::shared_ptr<const platform::Url> url; // null: set to no URL
    };
    const SubUrlResolver* resolver_ = nullptr;
    std::string_view uri_;
    Guarded<Replacement> replacement_;
};

} // namespace ovalto
