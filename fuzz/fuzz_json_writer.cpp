// Report texts as the JSON writer escapes them: every text it accepts reads back the same with
// nlohmann-json, and a text it refuses is one that nlohmann-json refuses as well (not UTF-8).
#include "FuzzSupport.h"
#include "Utils/JSONWriter.h"

#include <nlohmann/json.hpp>

#include <cstdint>

using namespace ovalto;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    JSONWriter writer;
    writer.beginObject();
    writer.key("uri");
    writer.value(text);
    writer.key("size");
    writer.value(static_cast<std::int64_t>(size) - 1);
    writer.endObject();

    bool nlohmannAccepts = true;
    try {
        (void)nlohmann::json(text).dump();
    } catch (const nlohmann::json::exception&) {
        nlohmannAccepts = false;
    }
    fuzz::check(writer.valid() == nlohmannAccepts, "the writer and nlohmann-json disagree on UTF-8", text);
    if (!writer.valid()) return 0;
    const auto parsed = nlohmann::json::parse(writer.text(), nullptr, false);
    fuzz::check(!parsed.is_discarded(), "the writer wrote text that is not JSON", writer.text());
    fuzz::check(parsed["uri"] == text, "a text did not read back the same", writer.text());
    fuzz::check(parsed["size"] == static_cast<std::int64_t>(size) - 1, "a number did not read back",
                writer.text());
    return 0;
}
