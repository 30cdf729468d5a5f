#include "Utils/JSONSerializable.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <optional>
#include <tuple>
#include <vector>

namespace ovalto {
namespace {

TEST(JSONWriter, TextsReadBackAsWrittenAndNonUtf8IsRefused) {
    struct Case {
        const char* what;
        std::string text;
        bool valid;
    };
    const Case cases[] = {
        {"plain", "http://origin.test/a.ts?x=1&y=2", true},
        {"quotes and backslashes", R"(say "hi" \ bye)", true},
        {"control characters", std::string("a\nb\tc\rd\x01\x1f", 9), true},
        {"a zero byte", std::string("a\0b", 3), true},
        {"two, three and four bytes", "é 通信 😀", true},
        {"the last code point", "\xf4\x8f\xbf\xbf", true},
        {"a lone continuation byte", "a\x80", false},
        {"a cut sequence at the end", "\xe3\x81", false},
        {"an overlong slash", "\xc0\xaf", false},
        {"an overlong three-byte form", "\xe0\x80\xaf", false},
        {"a surrogate", "\xed\xa0\x80", false},
        {"beyond the last code point", "\xf4\x90\x80\x80", false},
        {"Latin-1", "caf\xe9", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        JSONWriter writer;
        writer.beginArray();
        writer.value(c.text);
        writer.value(std::int64_t{-7});
        writer.endArray();
        EXPECT_EQ(writer.valid(), c.valid);
        if (!c.valid) continue;
        const auto parsed = nlohmann::json::parse(writer.text());
        EXPECT_EQ(parsed, nlohmann::json::array({c.text, -7}));
    }
}

struct Inner {
    std::optional<std::string> label;
    std::vector<std::int32_t> values;
    static constexpr auto jsonFields() {
        return std::tuple{jsonField("label", &Inner::label), jsonField("values", &Inner::values)};
    }
};

struct Outer {
    std::uint64_t big = 0;
    bool flag = false;
    std::vector<Inner> inners;
    Inner single;
    static constexpr auto jsonFields() {
        return std::tuple{jsonField("big", &Outer::big), jsonField("flag", &Outer::flag),
                          jsonField("inners", &Outer::inners), jsonField("single", &Outer::single)};
    }
};

TEST(JSONSerializable, FieldsInOrderNullsKeptEmptyArraysLeftOut) {
    Outer outer{UINT64_MAX, true, {{"a", {1, -2}}, {std::nullopt, {}}}, {}};
    EXPECT_EQ(toJSON(outer),
              R"({"big":18446744073709551615,"flag":true,"inners":[{"label":"a","values":[1,-2]},)"
              R"({"label":null}],"single":{"label":null}})");
    outer.inners.clear();
    EXPECT_EQ(toJSON(outer), R"({"big":18446744073709551615,"flag":true,"single":{"label":null}})");
    outer.single.label = "\xff";
    EXPECT_EQ(toJSON(outer), std::nullopt);
}

} // namespace
} // namespace ovalto
