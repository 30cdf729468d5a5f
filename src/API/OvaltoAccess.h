#pragma once

#include "Internal/OvaltoInternal.h"
#include "ovalto/Ovalto.h"

#include <memory>

namespace ovalto {

// The engine behind a facade, for the library's own tools and tests: what an application never
// needs (the rewritten master, the configuration the engine runs with) but a debugger does.
struct OvaltoAccess {
    static std::shared_ptr<OvaltoInternal> engine(Ovalto& facade) { return facade.impl(); }
};

} // namespace ovalto
