#include "TimedText/NHKTTML.h"

#include "TimedText/DocumentReader.h"
#include "TimedText/TextDecoder.h"
#include "TimedText/TimeKey.h"
#include "ovalto/OVALog.h"
#include "platform/CHandle.h"

// Debian's expat is built with DTD support; the header declares the entity-expansion limits only
// when told so.
#ifndef XML_DTD
#define XML_DTD 1
#endif
#include <expat.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <climits>
#include <memory>

namespace ovalto {

namespace {

constexpr const char* parseFunction = "parse(with:)";

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

// The encoding named by the XML declaration at the very start, if any.
std::optional<std::string> declaredEncoding(std::string_view document) {
    if (!document.starts_with("<?xml")) return std::nullopt;
    const auto close = document.find("?>");
    const auto declaration = document.substr(0, close);
    const auto at = declaration.find("encoding");
    if (at == std::string_view::npos) return std::nullopt;
    auto rest = declaration.substr(at + 8);
    while (!rest.empty() && (rest.front() == ' ' || rest.front() == '='))
        rest.remove_prefix(1);
    if (rest.empty() || (rest.front() != '"' && rest.front() != '\'')) return std::nullopt;
    const char quote = rest.front();
    const auto end = rest.find(quote, 1);
    if (end == std::string_view::npos) return std::nullopt;
    return std::string(rest.substr(1, end - 1));
}

// Expat reads UTF-8, UTF-16 (with or without a mark), Latin-1 and ASCII by itself. Anything else
// (a Shift_JIS declaration, or undeclared bytes that are not UTF-8) is converted to UTF-8 first;
// the returned text then replaces the document and the parser is told it is UTF-8.
std::optional<std::string> convertedForExpat(std::string_view document) {
    if (document.starts_with("\xEF\xBB\xBF") || document.starts_with("\xFF\xFE") ||
        document.starts_with("\xFE\xFF"))
        return std::nullopt;
    if (auto declared = declaredEncoding(document)) {
        for (const char* known : {"UTF-8", "UTF-16", "ISO-8859-1", "US-ASCII"})
            if (equalsIgnoringCase(*declared, known)) return std::nullopt;
        return TextDecoder::convert(document, declared->c_str());
    }
    if (TextDecoder::isValidUtf8(document)) return std::nullopt;
    return TextDecoder::decode(document);
}

// The expat parser of one parse, freed however the parse ends.
using Parser = platform::CHandle<XML_ParserStruct, XML_ParserFree>;

// What the expat callbacks need: the receiving object, the parser to stop, and a CDATA section
// being collected (expat delivers its text through the character handler).
struct Context {
    NHKTTML* self = nullptr;
    XML_Parser parser = nullptr;
    bool inCdata = false;
    bool cdataTooLarge = false;
    std::string cdata;
    NHKTTML::Attributes attributes; // reused for every element
};

Context& context(void* data) {
    return *static_cast<Context*>(data);
}

void stopWhenExhausted(Context& c) {
    if (c.self->exhausted()) XML_StopParser(c.parser, XML_FALSE);
}

extern "C" void onStartElement(void* data, const XML_Char* name, const XML_Char** attributes) {
    auto& c = context(data);
    c.attributes.clear();
    for (const XML_Char** a = attributes; a && *a; a += 2)
        c.attributes.emplace_back(a[0], a[1]);
    c.self->didStartElement(name, c.attributes);
    stopWhenExhausted(c);
}

extern "C" void onEndElement(void* data, const XML_Char* name) {
    auto& c = context(data);
    c.self->didEndElement(name);
    stopWhenExhausted(c);
}

extern "C" void onCharacters(void* data, const XML_Char* text, int length) {
    auto& c = context(data);
    const std::string_view chunk(text, static_cast<std::size_t>(length));
    if (c.inCdata) {
        // Held back until the section ends, so bound it here too.
        if (c.cdata.size() + chunk.size() > NHKTTML::collectedLimit) {
            c.cdataTooLarge = true;
            XML_StopParser(c.parser, XML_FALSE);
            return;
        }
        c.cdata += chunk;
        return;
    }
    c.self->foundCharacters(chunk);
    stopWhenExhausted(c);
}

extern "C" void onStartCdata(void* data) {
    auto& c = context(data);
    c.inCdata = true;
    c.cdata.clear();
}

extern "C" void onEndCdata(void* data) {
    auto& c = context(data);
    c.inCdata = false;
    c.self->foundCDATA(c.cdata);
    c.cdata.clear();
    stopWhenExhausted(c);
}

} // namespace

void NHKTTML::Cuepoint::append(std::string_view elementName, const Attributes& attributes, bool isEnd) {
    string += '<';
    if (isEnd) string += '/';
    string += elementName;
    if (!isEnd && !attributes.empty()) {
        for (const auto& [name, value] : attributes) {
            string += ' ';
            string += name;
            string += "=\"";
            string += value;
            string += '"';
        }
    }
    string += '>';
}

void NHKTTML::parse(const platform::Url& url, const Headers& headers) {
    auto document = DocumentReader::read(url, headers);
    if (!document.bytes) {
        OVALog(OVALogLevel::warning, url.absoluteString() + " is not valid.", parseFunction, __FILE__,
               __LINE__);
        return;
    }
    parse(*document.bytes);
}

bool NHKTTML::parse(std::string_view document) {
    const auto converted = convertedForExpat(document);
    if (converted) document = *converted;
    // Namespace processing stays off: element names are compared as written.
    Parser parser(XML_ParserCreate(converted ? "UTF-8" : nullptr));
    if (!parser) {
        OVALog(OVALogLevel::warning, describeOptional("out of memory"), parseFunction, __FILE__, __LINE__);
        return false;
    }
    Context c;
    c.self = this;
    c.parser = parser.get();
    XML_SetUserData(parser.get(), &c);
    XML_SetElementHandler(parser.get(), onStartElement, onEndElement);
    XML_SetCharacterDataHandler(parser.get(), onCharacters);
    XML_SetCdataSectionHandler(parser.get(), onStartCdata, onEndCdata);
    // Expat already refuses runaway entity expansion; a tighter factor keeps even large documents
    // from growing a hundredfold before it steps in.
    XML_SetBillionLaughsAttackProtectionMaximumAmplification(parser.get(), 20.0f);

    collected_ = 0;
    constexpr std::size_t chunk = 1u << 20;
    bool ok = true;
    for (std::size_t offset = 0;;) {
        const std::size_t size = std::min(chunk, document.size() - offset);
        const bool last = offset + size == document.size();
        if (XML_Parse(parser.get(), document.data() + offset, static_cast<int>(size), last) !=
            XML_STATUS_OK) {
            ok = false;
            break;
        }
        offset += size;
        if (last) break;
    }
    if (ok) return true;
    std::string reason;
    if (exhausted() || c.cdataTooLarge) {
        reason = "The document expands beyond " + std::to_string(collectedLimit >> 20) + " MB.";
    } else {
        reason = std::string(XML_ErrorString(XML_GetErrorCode(parser.get()))) + " at line " +
                 std::to_string(XML_GetCurrentLineNumber(parser.get())) + ", column " +
                 std::to_string(XML_GetCurrentColumnNumber(parser.get()));
    }
    OVALog(OVALogLevel::warning, describeOptional(reason), parseFunction, __FILE__, __LINE__);
    cuepoint.reset();
    return false;
}

bool NHKTTML::exhausted() const {
    return collected_ > collectedLimit;
}

void NHKTTML::didStartElement(std::string_view elementName, const Attributes& attributes) {
    if (elementName == "cuepoints") {
        cuepoints.emplace();
        cuepoints->append(elementName, attributes, false);
        collected_ += cuepoints->string.size();
        return;
    }
    if (elementName == "cuepoint") {
        cuepoint.emplace();
        // Before any `cuepoints` element there is no start tag to copy.
        if (cuepoints) cuepoint->string = cuepoints->string;
        for (const auto& [name, value] : attributes) {
            if (name != "time") continue;
            if (auto seconds = parseDouble(value))
                if (auto key = timeKey(*seconds)) cuepoint->time = *key;
            break;
        }
        const auto before = cuepoint->string.size();
        cuepoint->append(elementName, attributes, false);
        collected_ += cuepoint->string.size() - before + (cuepoints ? cuepoints->string.size() : 0);
        return;
    }
    if (cuepoint) {
        const auto before = cuepoint->string.size();
        cuepoint->append(elementName, attributes, false);
        collected_ += cuepoint->string.size() - before;
    }
}

void NHKTTML::didEndElement(std::string_view elementName) {
    if (elementName == "cuepoints") return;
    if (!cuepoint) return;
    cuepoint->append(elementName, {}, true);
    if (elementName == "cuepoint") {
        cuepoint->append("cuepoints", {}, true);
        texts[cuepoint->time] = std::move(cuepoint->string);
        cuepoint.reset();
    }
    collected_ += elementName.size() + 3;
}

void NHKTTML::foundCharacters(std::string_view string) {
    if (!cuepoint) return;
    cuepoint->string += string;
    collected_ += string.size();
}

void NHKTTML::foundCDATA(std::string_view bytes) {
    if (!TextDecoder::isValidUtf8(bytes) || !cuepoint) return;
    cuepoint->string += "<![CDATA[";
    cuepoint->string += bytes;
    cuepoint->string += "]]>";
    collected_ += bytes.size() + 12;
}

} // namespace ovalto
