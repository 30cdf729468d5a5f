#pragma once

#include <memory>

namespace ovalto::platform {

// An owning pointer to an object of a C library (libcurl, libcrypto, SQLite), freed with that
// library's own call: CHandle<CURL, curl_easy_cleanup>.
template <auto release> struct ReleasedWith {
    template <class T> void operator()(T* object) const { release(object); }
};
template <class T, auto release> using CHandle = std::unique_ptr<T, ReleasedWith<release>>;

} // namespace ovalto::platform
