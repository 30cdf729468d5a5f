#include "Utils/JSONWriter.h"

#include <charconv>

namespace ovalto {

namespace {

// Length of the UTF-8 sequence at `at`, or 0 when it is malformed (overlong forms, surrogates
// and code points above U+10FFFF included).
std::size_t utf8Length(std::string_view text, std::size_t at) {
    auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(at);
    std::size_t length = 0;
    std::uint32_t codePoint = 0;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        codePoint = lead & 0x1Fu;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        codePoint = lead & 0x0Fu;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        codePoint = lead & 0x07u;
    } else {
        return 0;
    }
    if (at + length > text.size()) return 0;
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(at + i) & 0xC0u) != 0x80u) return 0;
        codePoint = (codePoint << 6) | (byte(at + i) & 0x3Fu);
    }
    static constexpr std::uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (codePoint < smallest[length] || codePoint > 0x10FFFF || (codePoint >= 0xD800 && codePoint <= 0xDFFF))
        return 0;
    return length;
}

} // namespace

void JSONWriter::separate() {
    if (needsComma_) out_ += ',';
}

void JSONWriter::beginObject() {
    separate();
    out_ += '{';
    needsComma_ = false;
}

void JSONWriter::endObject() {
    out_ += '}';
    needsComma_ = true;
}

void JSONWriter::beginArray() {
    separate();
    out_ += '[';
    needsComma_ = false;
}

void JSONWriter::endArray() {
    out_ += ']';
    needsComma_ = true;
}

void JSONWriter::key(std::string_view name) {
    separate();
    string(name);
    out_ += ':';
    needsComma_ = false;
}

void JSONWriter::value(std::int64_t number) {
    separate();
    char digits[24];
    auto [end, error] = std::to_chars(digits, digits + sizeof digits, number);
    out_.append(digits, end);
    needsComma_ = true;
}

void JSONWriter::value(std::uint64_t number) {
    separate();
    char digits[24];
    auto [end, error] = std::to_chars(digits, digits + sizeof digits, number);
    out_.append(digits, end);
    needsComma_ = true;
}

void JSONWriter::value(bool flag) {
    separate();
    out_ += flag ? "true" : "false";
    needsComma_ = true;
}

void JSONWriter::value(std::string_view text) {
    separate();
    string(text);
    needsComma_ = true;
}

void JSONWriter::null() {
    separate();
    out_ += "null";
    needsComma_ = true;
}

void JSONWriter::string(std::string_view text) {
    static constexpr char hex[] = "0123456789abcdef";
    out_ += '"';
    std::size_t plain = 0; // start of the run not yet copied
    for (std::size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c >= 0x80) {
            const auto length = utf8Length(text, i);
            if (length == 0) {
                valid_ = false;
                return;
            }
            i += length;
            continue;
        }
        if (c >= 0x20 && c != '"' && c != '\\') {
            ++i;
            continue;
        }
        out_.append(text.substr(plain, i - plain));
        switch (c) {
        case '"':
            out_ += "\\\"";
            break;
        case '\\':
            out_ += "\\\\";
            break;
        case '\n':
            out_ += "\\n";
            break;
        case '\r':
            out_ += "\\r";
            break;
        case '\t':
            out_ += "\\t";
            break;
        default:
            out_ += "\\u00";
            out_ += hex[c >> 4];
            out_ += hex[c & 0x0F];
        }
        plain = ++i;
    }
    out_.append(text.substr(plain));
    out_ += '"';
}

} // namespace ovalto
