#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace ovalto {

// Writes compact JSON text straight into a string, so that encoding a large report costs one
// pass and no intermediate document. Commas are placed by the writer; the caller only nests
// begin/end calls and puts a key before each member's value. A string that is not UTF-8 makes
// the whole document invalid (valid() turns false) instead of producing text a reader rejects.
class JSONWriter {
public:
    // `capacity`: the expected size of the text; growing a large string by doubling costs more
    // than writing it.
    explicit JSONWriter(std::size_t capacity = 0) { out_.reserve(capacity); }

    void beginObject();
    void endObject();
    void beginArray();
    void endArray();
    void key(std::string_view name);
    void value(std::int64_t number);
    void value(std::uint64_t number);
    void value(bool flag);
    void value(std::string_view text);
    void null();

    bool valid() const { return valid_; }
    const std::string& text() const { return out_; }
    std::string take() { return std::move(out_); }

private:
    void separate();
    void string(std::string_view text);

    std::string out_;
    bool needsComma_ = false;
    bool valid_ = true;
};

} // namespace ovalto
