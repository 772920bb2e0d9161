// JSON coding for every record: keys are the field names in declaration order (ordered_json), an
// absent optional is a missing key, dates are ISO 8601 UTC with milliseconds, enumerations are their
// case names; strings keep their exact bytes through the reversible escape of JsonBytes.h. Records
// declare their coding with VANTLE_RECORD_JSON and enumerations with VANTLE_ENUM_NAMES beside their
// definition. Decoding never throws across the interface: decodeJson
// turns a malformed text into an error value. Every JSON text read from disk goes through readJson,
// which refuses nesting deeper than jsonDepthLimit without ever building or recursing into it.
#pragma once
#include "VantleSpec/JsonBytes.h"
#include "VantleSpec/Time.h"

#include <nlohmann/json.hpp>

#include <array>
#include <concepts>
#include <expected>
#include <limits>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>

namespace vantle {

using Json = nlohmann::ordered_json;

// An enumeration with names: `constexpr auto enumNames(E)` found by lookup returns its case names in
// declaration order, and the cases are 0..N-1.
template <class E>
concept NamedEnum = std::is_enum_v<E> && requires(E e) {
    enumNames(e);
};

template <NamedEnum E> constexpr std::string_view nameOf(E e) {
    auto names = enumNames(E{});
    auto i = static_cast<size_t>(e);
    return i < names.size() ? names[i] : std::string_view{};
}

template <NamedEnum E> constexpr std::optional<E> enumFromName(std::string_view name) {
    auto names = enumNames(E{});
    for (size_t i = 0; i < names.size(); ++i)
        if (names[i] == name) return static_cast<E>(i);
    return std::nullopt;
}

template <NamedEnum E> constexpr auto allCases() {
    constexpr auto n = enumNames(E{}).size();
    std::array<E, n> out{};
    for (size_t i = 0; i < n; ++i)
        out[i] = static_cast<E>(i);
    return out;
}

// Deeper than any record this program writes, far shallower than what would exhaust the stack when
// a value is copied, dumped or destroyed.
inline constexpr int jsonDepthLimit = 64;

// Parses JSON text with a depth limit: a malformed text, or any array or object nested deeper than
// `depthLimit`, is an error sentence. The parse itself is iterative, and too-deep values are dropped
// as they are met, so a hostile text costs time in its length only.
std::expected<Json, std::string> readJson(std::string_view text, int depthLimit = jsonDepthLimit);

namespace json_detail {
// An integer field takes only an integer that fits it: nlohmann's own conversion would wrap
// 99999999999 into an int, or truncate 2.5, and show nonsense as if it were read.
template <class T> T fitted(const Json& j) {
    if constexpr (std::is_integral_v<T> && !std::is_same_v<T, bool>) {
        if (j.is_number_unsigned()) {
            auto v = j.get<std::uint64_t>();
            if (v > static_cast<std::uint64_t>(std::numeric_limits<T>::max()))
                throw std::out_of_range("number out of range: " + j.dump());
            return static_cast<T>(v);
        }
        if (j.is_number_integer()) {
            auto v = j.get<std::int64_t>();
            if constexpr (std::is_unsigned_v<T>) {
                if (v < 0) throw std::out_of_range("number out of range: " + j.dump());
                if (static_cast<std::uint64_t>(v) > std::numeric_limits<T>::max())
                    throw std::out_of_range("number out of range: " + j.dump());
            } else if (v < std::numeric_limits<T>::min() || v > std::numeric_limits<T>::max()) {
                throw std::out_of_range("number out of range: " + j.dump());
            }
            return static_cast<T>(v);
        }
        throw std::invalid_argument("not a whole number: " + j.dump());
    } else if constexpr (std::is_same_v<T, Json>) {
        return j; // a free-form value, kept as it is
    } else {
        // Straight to the serializer rather than through get<T>(): clang settles get<T>()'s
        // "has from_json" test once, at a point where a nested record's from_json may not be
        // declared yet, and then refuses it.
        T out{};
        nlohmann::adl_serializer<T>::from_json(j, out);
        return out;
    }
}

template <class T> struct IsOptional : std::false_type {};
template <class T> struct IsOptional<std::optional<T>> : std::true_type {};

template <class T> void put(Json& j, const char* key, const T& value) {
    if constexpr (IsOptional<T>::value) {
        if (value) j[key] = *value;
    } else {
        j[key] = value;
    }
}

template <class T> void get(const Json& j, const char* key, T& value) {
    if constexpr (IsOptional<T>::value) {
        auto it = j.find(key);
        if (it == j.end() || it->is_null())
            value.reset();
        else
            value = fitted<typename T::value_type>(*it);
    } else {
        value = fitted<T>(j.at(key));
    }
}
} // namespace json_detail

#define VANTLE_JSON_PUT_FIELD(field) ::vantle::json_detail::put(j, #field, v.field);
#define VANTLE_JSON_GET_FIELD(field) ::vantle::json_detail::get(j, #field, v.field);

// Defines to_json/from_json for a record; list every field, in declaration order. Use in the
// record's namespace (vantle), after the record. They are templates so that a source file which
// includes a record but never codes it does not pay for its JSON: as plain inline functions every
// record's coder was instantiated in every file, which was half of what a page of the app cost to
// compile.
#define VANTLE_RECORD_JSON(Type, ...)                                                                        \
    template <std::same_as<::vantle::Json> J> void to_json(J& j, const Type& v) {                            \
        j = J::object();                                                                                     \
        NLOHMANN_JSON_EXPAND(NLOHMANN_JSON_PASTE(VANTLE_JSON_PUT_FIELD, __VA_ARGS__))                        \
    }                                                                                                        \
    template <std::same_as<::vantle::Json> J> void from_json(const J& j, Type& v) {                          \
        NLOHMANN_JSON_EXPAND(NLOHMANN_JSON_PASTE(VANTLE_JSON_GET_FIELD, __VA_ARGS__))                        \
    }

// Names an enumeration's cases, in declaration order; the names are also its JSON form.
#define VANTLE_ENUM_NAMES(Type, ...)                                                                         \
    constexpr auto enumNames(Type) {                                                                         \
        return std::to_array<std::string_view>({__VA_ARGS__});                                               \
    }

// Encodes a record as compact JSON text (one line), or pretty with `indent` >= 0.
template <class T> std::string encodeJson(const T& value, int indent = -1) {
    Json j = value;
    return dumpEscaped(j, indent);
}

// Decodes JSON text into a record; a malformed or too deeply nested text, a wrong type, a number
// that does not fit its field or a missing field is an error sentence, never an exception.
template <class T> std::expected<T, std::string> decodeJson(std::string_view text) {
    auto json = readJson(text);
    if (!json) return std::unexpected(std::move(json.error()));
    if (mayHoldEscapes(text)) unescapeStrings(*json);
    try {
        return json->template get<T>();
    } catch (const std::exception& e) {
        return std::unexpected(std::string(e.what()));
    }
}

template <class T> std::expected<T, std::string> decodeJsonValue(const Json& j) {
    try {
        return j.template get<T>();
    } catch (const std::exception& e) {
        return std::unexpected(std::string(e.what()));
    }
}

} // namespace vantle

namespace nlohmann {

template <> struct adl_serializer<vantle::TimePoint> {
    static void to_json(vantle::Json& j, const vantle::TimePoint& at) { j = vantle::isoDate(at); }
    template <class BasicJson> static void from_json(const BasicJson& j, vantle::TimePoint& at) {
        const auto& text = j.template get_ref<const typename BasicJson::string_t&>();
        auto parsed = vantle::parseIsoDate(text);
        if (!parsed) throw std::invalid_argument("not a date: " + text);
        at = *parsed;
    }
};

template <vantle::NamedEnum E> struct adl_serializer<E> {
    template <class BasicJson> static void to_json(BasicJson& j, E e) { j = std::string(vantle::nameOf(e)); }
    template <class BasicJson> static void from_json(const BasicJson& j, E& e) {
        const auto& text = j.template get_ref<const typename BasicJson::string_t&>();
        auto parsed = vantle::enumFromName<E>(text);
        if (!parsed) throw std::invalid_argument("not a known value: " + text);
        e = *parsed;
    }
};

} // namespace nlohmann
