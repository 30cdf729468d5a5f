#include "SubtitleSource.h"

#include "Command.h"
#include "ovalto/MediaType.h"

namespace ovalto::tool {

const char* SubtitleSource::knownMimeTypes() {
    return "application/x-subrip, text/vtt, application/nttml+xml, application/xml+nttml, "
           "application/smil+xml, application/x-ass";
}

std::optional<SubtitleSource> SubtitleSource::resolve(const std::string& source,
                                                      const std::optional<std::string>& mimeType,
                                                      std::string& error) {
    static const struct {
        const char* name;
        const char* file;
        const char* mimeType;
    } samples[] = {{"sample:srt", "subtitles.srt", "application/x-subrip"},
                   {"sample:vtt", "subtitles.vtt", "text/vtt"},
                   {"sample:ttml", "subtitles.ttml", "application/nttml+xml"}};
    std::optional<platform::Url> url;
    std::optional<std::string> mime = mimeType;
    if (source.starts_with("sample:")) {
        for (const auto& sample : samples) {
            if (source != sample.name) continue;
            url = platform::Url::fileUrl(builtInSampleDirectory() + "/sidecar/" + sample.file);
            if (!mime) mime = sample.mimeType;
        }
        if (!url) {
            error = "unknown sample side-car '" + source + "' (sample:srt, sample:vtt or sample:ttml)";
            return std::nullopt;
        }
    } else if (auto parsed = platform::Url::parse(source);
               parsed &&
               (parsed->scheme() == "http" || parsed->scheme() == "https" || parsed->scheme() == "file")) {
        url = std::move(parsed);
    } else {
        url = platform::Url::fileUrl(source);
    }
    if (!mime) {
        error = "--mime MIME is needed; known types: " + std::string(knownMimeTypes());
        return std::nullopt;
    }
    if (!MimeType::fromString(*mime)) {
        error = "unknown MIME type '" + *mime + "'; known types: " + knownMimeTypes();
        return std::nullopt;
    }
    return SubtitleSource{std::move(*url), std::move(*mime)};
}

} // namespace ovalto::tool
