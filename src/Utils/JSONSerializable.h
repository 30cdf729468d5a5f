#pragma once

#include "Utils/JSONWriter.h"

#include <concepts>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <vector>

namespace ovalto {

// One stored field of a record: its JSON key and where it lives.
template <class Record, class Member> struct JSONField {
    std::string_view name;
    Member Record::*member;
};

template <class Record, class Member>
constexpr JSONField<Record, Member> jsonField(std::string_view name, Member Record::*member) {
    return {name, member};
}

// A record that lists its stored fields once, in declaration order:
//     static constexpr auto jsonFields() { return std::tuple{jsonField("id", &Track::id), …}; }
// The one encoder below walks that list: a field's key is its name; an absent optional is
// null; an empty array leaves its key out; a nested record becomes a nested object.
template <class T>
concept JSONSerializable = requires {
    T::jsonFields();
};

namespace json_detail {

template <class T> struct IsOptional : std::false_type {};
template <class T> struct IsOptional<std::optional<T>> : std::true_type {};
template <class T> struct IsVector : std::false_type {};
template <class T, class A> struct IsVector<std::vector<T, A>> : std::true_type {};

template <class V> void write(JSONWriter& writer, const V& value);

template <JSONSerializable Record> void writeRecord(JSONWriter& writer, const Record& record) {
    writer.beginObject();
    std::apply(
        [&](const auto&... fields) {
            (
                [&] {
                    const auto& value = record.*(fields.member);
                    if constexpr (IsVector<std::remove_cvref_t<decltype(value)>>::value) {
                        if (value.empty()) return;
                    }
                    writer.key(fields.name);
                    write(writer, value);
                }(),
                ...);
        },
        Record::jsonFields());
    writer.endObject();
}

template <class V> void write(JSONWriter& writer, const V& value) {
    if constexpr (JSONSerializable<V>) {
        writeRecord(writer, value);
    } else if constexpr (IsOptional<V>::value) {
        if (value)
            write(writer, *value);
        else
            writer.null();
    } else if constexpr (IsVector<V>::value) {
        writer.beginArray();
        for (const auto& element : value)
            write(writer, element);
        writer.endArray();
    } else if constexpr (std::same_as<V, bool>) {
        writer.value(value);
    } else if constexpr (std::signed_integral<V>) {
        writer.value(static_cast<std::int64_t>(value));
    } else if constexpr (std::unsigned_integral<V>) {
        writer.value(static_cast<std::uint64_t>(value));
    } else if constexpr (std::convertible_to<const V&, std::string_view>) {
        writer.value(std::string_view(value));
    } else {
        static_assert(sizeof(V) == 0, "no JSON form for this field type");
    }
}

} // namespace json_detail

// The record as compact JSON text; no value when a string in it is not UTF-8. `capacity` is the
// expected size of the text.
template <JSONSerializable Record>
std::optional<std::string> toJSON(const Record& record, std::size_t capacity = 0) {
    JSONWriter writer(capacity);
    json_detail::writeRecord(writer, record);
    if (!writer.valid()) return std::nullopt;
    return writer.take();
}

} // namespace ovalto
