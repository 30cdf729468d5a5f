#pragma once

#include "TimedText/SubRip.h"

namespace ovalto {

// WebVTT documents follow the SubRip line rules: the header and anything before the first timing
// line only leave a clear mark at key 0, and cue settings land unparsed in the cue's setting.
class WebVTT : public SubRip {};

} // namespace ovalto
