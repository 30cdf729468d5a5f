#pragma once

namespace ovalto {

// Marker base of the presentation tree, so that one parameter can carry a Presentation or a
// Representation to a playlist parser or generator.
class Container {
public:
    virtual ~Container() = default;
};

} // namespace ovalto
