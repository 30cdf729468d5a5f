#pragma once

#include "TimedText/TimedText.h"

namespace ovalto {

// SubStation Alpha documents are accepted but not read: both tables stay empty.
class SubStationAlpha : public TimedText {
public:
    void parse(const platform::Url&, const Headers& = {}) override {}
};

} // namespace ovalto
