#include "Utils/Base64.h"

#include <gtest/gtest.h>

using ovalto::Base64;

namespace {

TEST(Base64, LicenceAnswersAreReadLeniently) {
    const std::string bytes("\xfb\xff\x00\x01ok", 6);
    const std::string text = Base64::encode(bytes);
    EXPECT_EQ(text, "+/8AAW9r");
    struct Row {
        const char* what;
        std::string text;
        std::optional<std::string> bytes;
    } rows[] = {
        {"as encoded", text, bytes},
        {"line breaks and spaces", "+/8A\r\nAW 9r\n", bytes},
        {"padding kept", Base64::encode("ab"), "ab"},
        {"padding missing", "YWI", "ab"},
        {"too much padding", "YWI==", std::nullopt},
        {"digits after padding", "YQ==YQ==", std::nullopt},
        {"one digit too many", "YWJjZ", std::nullopt},
        {"nothing but noise", "%%% <> %%%", std::nullopt},
        {"empty", "", std::nullopt},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Base64::decodeIgnoringUnknownCharacters(row.text), row.bytes) << row.what;
}

} // namespace
