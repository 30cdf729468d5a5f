#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace ovalto::tool {

// `ovalto subtitles SOURCE --mime MIME [--json]`: parses a side-car document as the library does
// and prints its tables in time order. Exit status 0, 1 when the document could not be read or
// parsed (after what was read), 2 for bad usage.
int subtitlesCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

} // namespace ovalto::tool
