#pragma once

#include <mutex>

namespace ovalto {

class Container;

// The lock that serialises whole updates of one model object (a Presentation or Representation):
// a playlist parse and the generation that follows it, against another reload of the same
// playlist, and against a segment lookup that must not see a half-replaced segment list.
// The model's own fields are only guarded one at a time. Locks are striped by address, so an
// unrelated object may share one; nothing holds two at once, so that cannot deadlock.
std::mutex& modelLock(const Container& container);

} // namespace ovalto
