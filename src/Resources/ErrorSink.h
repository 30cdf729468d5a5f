#pragma once

#include "platform/Error.h"

namespace ovalto {

// Where the resource loader reports errors for the application. The engine implements it; the
// loader holds it weakly because the engine owns the loader.
class ErrorSink {
public:
    virtual ~ErrorSink() = default;

    // Called from any thread, once per failed or refused loading request.
    virtual void notify(const platform::Error& error) = 0;
};

} // namespace ovalto
