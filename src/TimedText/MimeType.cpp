#include "TimedText/NHKTTML.h"
#include "TimedText/SAMI.h"
#include "TimedText/SubRip.h"
#include "TimedText/SubStationAlpha.h"
#include "TimedText/WebVTT.h"
#include "ovalto/MediaType.h"

namespace ovalto {

std::shared_ptr<TimedText> MimeType::timedText() const {
    switch (value_) {
    case smi:
        return std::make_shared<SAMI>();
    case srt:
        return std::make_shared<SubRip>();
    case ass:
        return std::make_shared<SubStationAlpha>();
    case vtt:
        return std::make_shared<WebVTT>();
    case nhkttml:
        return std::make_shared<NHKTTML>();
    }
    return std::make_shared<SAMI>();
}

} // namespace ovalto
