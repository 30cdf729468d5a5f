#pragma once

#include <iosfwd>
#include <string>

namespace ovalto::tool {

// `ovalto rewrite --through-loader URL`: plays the player's part against the library's resource
// loader with URL as the configured content URL. Asks for the master playlist, then each
// representation's media playlist, then the redirects of each representation's initialisation
// section and first three segments, and prints every request with its answer (the data, the
// redirect with the 302's header fields, or the error with its code and message).
// Returns 1 when the master playlist fails, 2 when URL is not an absolute URL, else 0.
// `verbose` also prints the library's log.
int throughLoader(const std::string& url, bool verbose, std::ostream& out, std::ostream& err);

} // namespace ovalto::tool
