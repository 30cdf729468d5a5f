#include "Resources/RedirectResource.h"

#include "PlayList/Presentation.h"
#include "PlayList/RewrittenUrl.h"
#include "Resources/ModelLock.h"
#include "ovalto/OVALog.h"
#include "ovalto/OvaltoError.h"
#include "platform/LoadingRequest.h"

#include <algorithm>

namespace ovalto {

namespace {

constexpr const char* loadFunction = "load(loadingRequest:presentation:completion:)";

Result failure(std::string message, int code) {
    return Result::failure(OvaltoError::inputParam(std::move(message), code).toError());
}

std::string mediaTypeName(MediaType type) {
    switch (type) {
    case MediaType::audio:
        return "audio";
    case MediaType::text:
        return "text";
    default:
        return "video";
    }
}

std::string removingAll(std::string text, std::string_view what) {
    if (what.empty()) return text;
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at))
        text.erase(at, what.size());
    return text;
}

// The 302 that answers a segment request; the header map travels on the response only.
void redirect(platform::LoadingRequest& loadingRequest, const platform::Url& target, int timeout,
              platform::HeaderFields headers = {}) {
    loadingRequest.setRedirect(
        platform::UrlRequest(target, platform::CachePolicy::reloadIgnoringLocalCacheData, timeout));
    platform::UrlResponse response{.url = target,
                                   .isHttp = true,
                                   .statusCode = 302,
                                   .headers = std::move(headers),
                                   .mimeType = std::nullopt,
                                   .expectedContentLength = -1};
    loadingRequest.setResponse(std::move(response));
}

// `target` as a reference relative to the directory `base` when both are on the same server but
// the target lies outside that directory: "../" for each directory of `base` it does not share.
// No value for a target on another server.
std::optional<std::string> climbingReference(std::string_view target, std::string_view base) {
    const auto authority = base.find("://");
    if (authority == std::string_view::npos) return std::nullopt;
    const auto root = base.find('/', authority + 3); // the first "/" of the path
    if (root == std::string_view::npos || target.substr(0, root + 1) != base.substr(0, root + 1))
        return std::nullopt;
    std::size_t shared = root + 1; // where the first directory not in common begins
    for (auto slash = base.find('/', shared); slash != std::string_view::npos;
         slash = base.find('/', shared)) {
        if (target.substr(shared, slash + 1 - shared) != base.substr(shared, slash + 1 - shared)) break;
        shared = slash + 1;
    }
    std::string reference;
    for (auto at = base.find('/', shared); at != std::string_view::npos; at = base.find('/', at + 1))
        reference += "../";
    reference += target.substr(shared);
    return reference;
}

// The target moved onto the edge server with the smallest priority (the earliest among equals):
// its path below the master playlist's directory is appended to the edge URL. A target that
// climbs out of that directory ("../", or elsewhere on the same server) is resolved against the
// edge's directory instead, so that it lands where the edge mirrors it rather than in a path
// that names the origin.
std::optional<platform::Url> onEdge(const platform::Url& target, const Presentation& presentation) {
    const auto master = presentation.url.get();
    if (!master) return std::nullopt;
    // Only the chosen entry is copied out of the list.
    const auto edge = presentation.edgeList.with([](const auto& edgeList) -> std::optional<std::string> {
        const auto best =
            std::min_element(edgeList.begin(), edgeList.end(),
                             [](const auto& a, const auto& b) { return a.priority < b.priority; });
        if (best == edgeList.end()) return std::nullopt;
        return best->url;
    });
    if (!edge) return std::nullopt;
    const auto edgeUrl = platform::Url::parse(*edge);
    if (!edgeUrl) return std::nullopt;
    const std::string base = master->deletingLastPathComponent().absoluteString();
    const std::string& text = target.absoluteString();
    std::optional<std::string> relative = removingAll(text, base);
    if (*relative == text) relative = climbingReference(text, base);
    if (!relative) return edgeUrl->appendingPathComponent(text);
    if (relative->starts_with("../") && edgeUrl->scheme() && !edgeUrl->query() && !edgeUrl->fragment()) {
        std::string directory = edgeUrl->absoluteString();
        if (!directory.ends_with('/')) directory += '/';
        if (auto directoryUrl = platform::Url::parse(directory)) {
            if (auto resolved = platform::Url::parse(*relative, *directoryUrl)) return resolved;
        }
    }
    return edgeUrl->appendingPathComponent(*relative);
}

// Sets `value` under `name`, replacing a field of that name (compared without case) in place.
void replace(platform::HeaderFields& headers, const std::string& name, const std::string& value) {
    // An empty value is a value too; setValue would drop the field instead.
    if (value.empty()) {
        headers.setValue({}, name);
        headers.addValue({}, name);
    } else {
        headers.setValue(value, name);
    }
}

} // namespace

void RedirectResource::load(const std::shared_ptr<platform::LoadingRequest>& loadingRequest,
                            const std::shared_ptr<Presentation>& presentation, Completion completion) {
    if (!loadingRequest || !presentation) {
        OVALog(OVALogLevel::error, "Input params for redirect request is not valid.", loadFunction, __FILE__,
               __LINE__);
        completion(failure("Redirect request is not valid", 0x8300));
        return;
    }
    const platform::Url& requestUrl = loadingRequest->request().url;
    OVALog(OVALogLevel::debug, requestUrl.absoluteString(), loadFunction, __FILE__, __LINE__);

    const auto address = RewrittenUrl::readSegment(requestUrl);
    if (!address) {
        OVALog(OVALogLevel::error, requestUrl.path() + " is not valid.", loadFunction, __FILE__, __LINE__);
        completion(failure("Resource URl is not valid.", 0x8301));
        return;
    }

    const auto stream = presentation->stream(address->stream);
    const auto representation = stream ? stream->representation(address->bitrate) : nullptr;
    std::optional<std::int64_t> sequence;
    std::optional<platform::Url> initialURL;
    std::shared_ptr<Fragment> fragment;
    if (representation) {
        // One consistent picture of the segment list, never one that a reload is half-way through.
        std::lock_guard lock(modelLock(*representation));
        sequence = representation->sequence.get();
        std::int64_t index = 0;
        if (sequence && address->isInitialSection()) {
            initialURL = representation->initialURL.get();
        } else if (sequence && !__builtin_sub_overflow(address->index, *sequence, &index) && index >= 0) {
            // Only the one fragment is taken: a long live window has thousands.
            fragment =
                representation->fragments.with([index](const auto& fragments) -> std::shared_ptr<Fragment> {
                    if (static_cast<std::uint64_t>(index) >= fragments.size()) return nullptr;
                    return fragments[static_cast<std::size_t>(index)];
                });
        }
    }
    if (!sequence) {
        OVALog(OVALogLevel::error, "stream or representation is not created.", loadFunction, __FILE__,
               __LINE__);
        completion(failure("Stream or Representation is not created.", 0x8501));
        return;
    }

    if (address->isInitialSection()) {
        // The initialisation section goes straight to its source: no listener, edge or callback.
        if (!initialURL) {
            OVALog(OVALogLevel::error, "initial url is not created.", loadFunction, __FILE__, __LINE__);
            completion(failure("Initial url is not created.", 0x8500));
            return;
        }
        redirect(*loadingRequest, *initialURL, defaultTimeout);
        completion(Result::success());
        return;
    }

    std::optional<platform::Url> target = fragment ? fragment->url.get() : std::nullopt;
    if (!target) {
        OVALog(OVALogLevel::error, "fragment is not created.", loadFunction, __FILE__, __LINE__);
        completion(failure("Fragment is not created.", 0x8500));
        return;
    }

    const MediaType mediaType = stream->mediaType.get();
    RequestInfo requestInfo;
    requestInfo.timeout = defaultTimeout;
    if (auto listener = pluginListener.lock()) {
        OVALog(OVALogLevel::debug, "onFragmentRequest", loadFunction, __FILE__, __LINE__);
        requestInfo.uri = target->absoluteString();
        requestInfo.type = mediaTypeName(mediaType);
        listener->onFragmentRequest(requestInfo);
        // A URI the listener left as it was is the target already: no parse, nothing to store.
        const bool unchanged = requestInfo.uri == target->absoluteString();
        if (auto replaced =
                requestInfo.uri && !unchanged ? platform::Url::parse(*requestInfo.uri) : std::nullopt) {
            target = std::move(replaced);
            // Later requests for this fragment start from the listener's URL.
            fragment->url.set(target);
        }
    }

    if (auto moved = onEdge(*target, *presentation)) target = std::move(moved);
    OVALog(OVALogLevel::debug, target->absoluteString(), loadFunction, __FILE__, __LINE__);

    const Configurations noConfigurations;
    const Configurations& settings = configurations ? *configurations : noConfigurations;
    if (auto function = configurationValue<FragmentFunction>(settings, ConfigurationKey::function);
        function && *function) {
        fragment->attributes.with([&](auto& attributes) {
            attributes["StreamIndex"] = std::to_string(address->stream);
            attributes["MediaType"] = mediaTypeName(mediaType);
            attributes["FragmentIndex"] = std::to_string(address->index);
            attributes["Bitrate"] = std::to_string(address->bitrate);
        });
        (*function)(std::any(fragment));
    }

    // The listener's pairs first (a repeated name keeps its last value), then the configured
    // headers, which win over the listener's.
    platform::HeaderFields headers;
    for (const auto& [name, value] : requestInfo.headers)
        replace(headers, name, value);
    if (auto configured = configurationValue<Headers>(settings, ConfigurationKey::httpHeaders)) {
        for (const auto& [name, value] : *configured)
            replace(headers, name, value);
    }
    const int timeout = requestInfo.timeout.value_or(0) > 0 ? *requestInfo.timeout : defaultTimeout;
    redirect(*loadingRequest, *target, timeout, std::move(headers));
    completion(Result::success());
}

} // namespace ovalto
