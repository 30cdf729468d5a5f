#include "support/TestOrigin.h"

#include <stdexcept>

namespace ovalto::test {

TestOrigin::TestOrigin()
    : Origin(Options{}) {
    if (!start()) throw std::runtime_error("cannot bind a loopback port");
}

} // namespace ovalto::test
