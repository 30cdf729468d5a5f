#pragma once

#include "TimedText/TimedText.h"

namespace ovalto {

// SAMI documents are accepted but not read: both tables stay empty.
class SAMI : public TimedText {
public:
    void parse(const platform::Url&, const Headers& = {}) override {}
};

} // namespace ovalto
