#pragma once

#include <cstddef>

namespace ovalto::platform {

// Memory pages made present in bulk. A fresh page normally arrives with a fault on its first
// write, and a fault is a trap into the kernel per 4 KB: on virtual machines that costs tens of
// microseconds, more than the work that fills the page. Code about to fill a large block asks
// for its pages ahead, in one call per range.
class Pages {
public:
    // Makes the writable pages of [begin, begin + size) present, as writing to each would; they
    // must belong to one writable allocation. Only a hint: without kernel support, or for a range
    // of a few pages, it does nothing.
    static void populate(void* begin, std::size_t size);
    // Asks for huge pages (2 MB, one fault each) in the part of [begin, begin + size) that holds
    // whole ones: for a block that will be filled nearly to its end, since a huge page that is
    // touched is all resident.
    static void preferHuge(void* begin, std::size_t size);
};

} // namespace ovalto::platform
