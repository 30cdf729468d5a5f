#pragma once

#include "Origin.h"

#include <stdexcept>
#include <string>

namespace ovalto::test {

// The shared origin on 127.0.0.1, started at once, for tests that script faults per path; bodies
// are playlists unless told otherwise.
class TestOrigin : public tool::Origin {
public:
    TestOrigin()
        : Origin(Options{}) {
        if (!start()) throw std::runtime_error("cannot bind a loopback port");
    }

    void serve(const std::string& path, std::string body,
               std::string contentType = "application/vnd.apple.mpegurl") {
        Origin::serve(path, std::move(body), std::move(contentType));
    }
};

} // namespace ovalto::test
