#pragma once

#include "Timeline.h"
#include "ovalto/Ovalto.h"

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace ovalto::tool {

// What runs after `ovalto play`'s preparation in place of the headless player: the prepared
// facade, the timeline the library's events go to, and the flag an interrupt sets. Returns the
// exit status.
using AfterPreparation = std::function<int(const std::shared_ptr<Ovalto>& facade, Timeline& timeline,
                                           const std::atomic<bool>& interrupted)>;

// `ovalto play ARGS` (its options, its built-in sample origin, its preparation and timeline) with
// `after` instead of playing. `usage` is printed for --help.
int prepareThen(const std::vector<std::string>& args, const std::string& usage, AfterPreparation after);

} // namespace ovalto::tool
