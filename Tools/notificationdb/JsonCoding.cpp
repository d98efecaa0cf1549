#include "JsonCoding.hpp"

#include "Enumerations.hpp"

#include <NotificationDatabase/Database/DatabaseError.hpp>

#include <array>
#include <cstdint>
#include <limits>
#include <utility>
#include <variant>

namespace notificationdb::tool {

namespace {

// How one enumeration type reads from JSON. The field list says only that a field is an
// enumeration; which one is the record's business (see `EnumerationFields`).
struct EnumerationCoding {
    std::string_view typeName;
    bool (*isRawValue)(std::int64_t raw);
    std::optional<std::int64_t> (*rawValueOfName)(std::string_view name);
    std::string (*validValues)();
};

template <class Enumeration>
constexpr EnumerationCoding enumerationCoding(std::string_view typeName) {
    return {
        typeName,
        [](std::int64_t raw) { return fromRawValue<Enumeration>(raw).has_value(); },
        [](std::string_view name) -> std::optional<std::int64_t> {
            auto value = fromCaseName<Enumeration>(name);
            if (!value) return std::nullopt;
            return rawValue(*value);
        },
        validValues<Enumeration>,
    };
}

struct EnumerationField {
    std::string_view fieldName;
    EnumerationCoding coding;
};

template <class Record>
struct EnumerationFields;

template <>
struct EnumerationFields<NotificationModel> {
    static constexpr std::array<EnumerationField, 2> entries{{
        {"status", enumerationCoding<NotificationStatus>("NotificationStatus")},
        {"notificationKind", enumerationCoding<NotificationKind>("NotificationKind")},
    }};
};

template <>
struct EnumerationFields<NotificationButton> {
    static constexpr std::array<EnumerationField, 1> entries{{
        {"actionKind", enumerationCoding<UserActionKind>("UserActionKind")},
    }};
};

template <class Record>
const EnumerationCoding& enumerationOf(std::string_view fieldName) {
    for (const auto& entry : EnumerationFields<Record>::entries) {
        if (entry.fieldName == fieldName) return entry.coding;
    }
    // Only reachable when a record gains an enumeration field without an entry above.
    throw std::logic_error("no enumeration coding for field " + std::string(fieldName));
}

[[noreturn]] void fail(std::string_view path, const std::string& reason) {
    throw JsonInputError("field \"" + std::string(path) + "\": " + reason);
}

std::string describeValue(const Json& value) {
    if (value.is_string()) {
        auto text = value.get<std::string>();
        if (text.size() > 40) text = text.substr(0, 40) + "...";
        return Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
    }
    if (value.is_primitive()) return value.dump();
    return std::string("a JSON ") + value.type_name();
}

Json fieldToJson(const FieldValue& value) {
    return std::visit(
        [](const auto& held) -> Json {
            using Held = std::decay_t<decltype(held)>;
            if constexpr (std::is_same_v<Held, std::monostate>) {
                return nullptr;
            } else if constexpr (std::is_same_v<Held, Timestamp>) {
                auto text = formatDateText(held);
                if (!text) return nullptr;  // outside years 0000...9999; never read from a store
                return *text;
            } else if constexpr (std::is_same_v<Held, Bytes>) {
                return encodeBase64(held);
            } else {
                return held;
            }
        },
        value);
}

std::int64_t integerFromJson(std::string_view path, const Json& value) {
    if (value.is_number_unsigned()) {
        auto unsignedValue = value.get<std::uint64_t>();
        if (unsignedValue > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            fail(path, value.dump() + " is out of the range of a signed 64-bit integer");
        }
        return static_cast<std::int64_t>(unsignedValue);
    }
    if (value.is_number_integer()) return value.get<std::int64_t>();
    fail(path, "expected an integer, got " + describeValue(value));
}

template <class Record>
FieldValue fieldFromJson(const FieldDescriptor& field, std::string_view path, const Json& value) {
    if (value.is_null()) return std::monostate{};
    switch (field.type) {
        case FieldType::integer:
            return integerFromJson(path, value);
        case FieldType::text:
            if (!value.is_string()) fail(path, "expected a string, got " + describeValue(value));
            return value.get<std::string>();
        case FieldType::boolean:
            if (!value.is_boolean()) fail(path, "expected true or false, got " + describeValue(value));
            return value.get<bool>();
        case FieldType::date:
            if (value.is_string()) {
                const auto text = value.get<std::string>();
                if (auto date = parseDateText(text)) return *date;
                if (auto date = parseZonedDate(text)) return *date;
                fail(path, describeValue(value) +
                               " is not a date (\"YYYY-MM-DD HH:MM:SS.SSS\" in UTC or shorter, or RFC 3339 with a zone "
                               "such as \"2026-11-01T12:00:00+02:00\")");
            }
            if (value.is_number()) {
                if (auto date = dateFromSecondsSince1970(value.get<double>())) return *date;
                fail(path, value.dump() + " seconds since 1970 is out of the range of dates");
            }
            fail(path, "expected a date text or seconds since 1970, got " + describeValue(value));
        case FieldType::enumeration: {
            const auto& coding = enumerationOf<Record>(field.name);
            if (value.is_string()) {
                if (auto raw = coding.rawValueOfName(value.get<std::string>())) return *raw;
            } else if (value.is_number_integer()) {
                auto raw = integerFromJson(path, value);
                if (coding.isRawValue(raw)) return raw;
            }
            fail(path, describeValue(value) + " is not a " + std::string(coding.typeName) + " (" +
                           coding.validValues() + ")");
        }
        case FieldType::bytes:
            if (value.is_string()) {
                if (auto bytes = decodeBase64(value.get<std::string>())) return std::move(*bytes);
            }
            fail(path, describeValue(value) + " is not base64");
    }
    fail(path, "unsupported field type");
}

template <class Record>
Json recordToJson(const Record& record) {
    const RecordValues<Record> values = encodeRecord(record);
    Json object = Json::object();
    for (std::size_t i = 0; i < values.size(); ++i) {
        object[std::string(fieldDescriptors<Record>[i].name)] = fieldToJson(values[i]);
    }
    return object;
}

template <class Record>
Record recordFromJson(const Json& object, std::string_view path) {
    if (!object.is_object()) fail(path, "expected an object, got " + describeValue(object));

    for (const auto& [key, value] : object.items()) {
        bool known = false;
        for (const auto& field : fieldDescriptors<Record>) known = known || field.name == key;
        if (!known) fail(std::string(path) + "." + key, "unknown field");
    }

    RecordValues<Record> values;
    for (std::size_t i = 0; i < values.size(); ++i) {
        const auto& field = fieldDescriptors<Record>[i];
        const std::string fieldPath = std::string(path) + "." + std::string(field.name);
        auto found = object.find(std::string(field.name));
        values[i] = found == object.end() ? FieldValue{} : fieldFromJson<Record>(field, fieldPath, *found);
        if (!field.optional && std::holds_alternative<std::monostate>(values[i])) fail(fieldPath, "is required");
    }
    try {
        return decodeRecord<Record>(values);
    } catch (const RecordDecodingError& error) {
        fail(std::string(path) + "." + error.column(), error.what());
    }
}

// The two-digit number at `at`, or -1.
int twoDigits(std::string_view text, std::size_t at) noexcept {
    const auto digit = [&](std::size_t i) { return text[i] >= '0' && text[i] <= '9' ? text[i] - '0' : -100; };
    const int value = digit(at) * 10 + digit(at + 1);
    return value < 0 ? -1 : value;
}

int base64Value(char character) noexcept {
    if (character >= 'A' && character <= 'Z') return character - 'A';
    if (character >= 'a' && character <= 'z') return character - 'a' + 26;
    if (character >= '0' && character <= '9') return character - '0' + 52;
    if (character == '+') return 62;
    if (character == '/') return 63;
    return -1;
}

}  // namespace

Json toJson(const NotificationModelInfo& info) {
    Json entry = Json::object();
    entry[std::string(NotificationModelInfo::notificationKey)] = recordToJson(info.notification);
    entry[std::string(NotificationModelInfo::actionButtonKey)] =
        info.actionButton ? recordToJson(*info.actionButton) : Json(nullptr);
    return entry;
}

Json toJson(const std::vector<NotificationModelInfo>& infos) {
    Json array = Json::array();
    for (const auto& info : infos) array.push_back(toJson(info));
    return array;
}

NotificationModelInfo notificationInfoFromJson(const Json& entry) {
    const std::string notificationKey(NotificationModelInfo::notificationKey);
    const std::string buttonKey(NotificationModelInfo::actionButtonKey);
    if (!entry.is_object()) {
        throw JsonInputError("expected an object with \"" + notificationKey + "\" and \"" + buttonKey + "\", got " +
                             describeValue(entry));
    }
    for (const auto& [key, value] : entry.items()) {
        if (key != notificationKey && key != buttonKey) fail(key, "unknown field");
    }
    auto notification = entry.find(notificationKey);
    if (notification == entry.end() || notification->is_null()) fail(notificationKey, "is required");

    NotificationModelInfo info(recordFromJson<NotificationModel>(*notification, notificationKey));
    auto button = entry.find(buttonKey);
    if (button != entry.end() && !button->is_null()) {
        info.actionButton = recordFromJson<NotificationButton>(*button, buttonKey);
    }
    return info;
}

std::vector<NotificationModelInfo> batchFromJson(const Json& batch) {
    if (!batch.is_array()) throw JsonInputError("expected a JSON array of notifications, got " + describeValue(batch));
    std::vector<NotificationModelInfo> infos;
    infos.reserve(batch.size());
    for (std::size_t index = 0; index < batch.size(); ++index) {
        try {
            infos.push_back(notificationInfoFromJson(batch[index]));
        } catch (const JsonInputError& error) {
            throw JsonInputError("entry " + std::to_string(index) + ": " + error.what());
        }
    }
    return infos;
}

std::vector<NotificationModelInfo> parseBatch(std::string_view text) {
    constexpr int maximumDepth = 64;
    if (text.size() > maximumInputSize) {
        throw JsonInputError("input is larger than " + std::to_string(maximumInputSize / (1024 * 1024)) + " MiB");
    }
    // Refusing deep nesting while parsing keeps hostile input from exhausting the stack later.
    const Json::parser_callback_t limitDepth = [](int depth, Json::parse_event_t, Json&) {
        if (depth > maximumDepth) throw JsonInputError("input nests deeper than 64 levels");
        return true;
    };
    Json batch;
    try {
        batch = Json::parse(text.begin(), text.end(), limitDepth);
    } catch (const Json::exception& error) {
        // Not only parse_error: a number too large for a double throws out_of_range (406).
        throw JsonInputError(std::string("input is not valid JSON: ") + error.what());
    }
    return batchFromJson(batch);
}

std::optional<Timestamp> parseZonedDate(std::string_view text) {
    using namespace std::chrono;
    // "YYYY-MM-DDTHH:MM:SS" first, then the fraction, then the zone.
    if (text.size() < 20 || text[4] != '-' || text[7] != '-' ||
        (text[10] != 'T' && text[10] != 't' && text[10] != ' ') || text[13] != ':' || text[16] != ':') {
        return std::nullopt;
    }
    const int century = twoDigits(text, 0);
    const int yearOfCentury = twoDigits(text, 2);
    const int hour = twoDigits(text, 11);
    const int minute = twoDigits(text, 14);
    const int second = twoDigits(text, 17);
    const year_month_day date{year(century * 100 + yearOfCentury), month(static_cast<unsigned>(twoDigits(text, 5))),
                              day(static_cast<unsigned>(twoDigits(text, 8)))};
    if (century < 0 || yearOfCentury < 0 || !date.ok() || hour < 0 || hour > 23 || minute < 0 || minute > 59 ||
        second < 0 || second > 59) {
        return std::nullopt;
    }
    std::size_t at = 19;
    milliseconds fraction{0};
    if (text[at] == '.') {
        // Any number of digits, floored to the millisecond like every other date.
        const std::size_t first = ++at;
        for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
            if (at - first < 3) fraction = fraction * 10 + milliseconds(text[at] - '0');
        }
        if (at == first) return std::nullopt;
        for (std::size_t digits = at - first; digits < 3; ++digits) fraction *= 10;
    }
    const std::string_view zone = text.substr(at);
    minutes offset{0};
    if (zone != "Z" && zone != "z") {
        if (zone.size() != 6 || (zone[0] != '+' && zone[0] != '-') || zone[3] != ':') return std::nullopt;
        const int offsetHours = twoDigits(zone, 1);
        const int offsetMinutes = twoDigits(zone, 4);
        if (offsetHours < 0 || offsetHours > 23 || offsetMinutes < 0 || offsetMinutes > 59) return std::nullopt;
        offset = minutes(offsetHours * 60 + offsetMinutes) * (zone[0] == '-' ? -1 : 1);
    }
    const Timestamp instant = sys_days(date) + hours(hour) + minutes(minute) + seconds(second) + fraction - offset;
    // A zone can move a date across the ends of years 0000...9999, which have no stored form.
    if (!formatDateText(instant)) return std::nullopt;
    return instant;
}

std::string encodeBase64(const Bytes& bytes) {
    static constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t remaining = bytes.size() - i;
        std::uint32_t group = static_cast<std::uint32_t>(bytes[i]) << 16;
        if (remaining > 1) group |= static_cast<std::uint32_t>(bytes[i + 1]) << 8;
        if (remaining > 2) group |= bytes[i + 2];
        text += alphabet[(group >> 18) & 63];
        text += alphabet[(group >> 12) & 63];
        text += remaining > 1 ? alphabet[(group >> 6) & 63] : '=';
        text += remaining > 2 ? alphabet[group & 63] : '=';
    }
    return text;
}

std::optional<Bytes> decodeBase64(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    Bytes bytes;
    bytes.reserve(text.size() / 4 * 3);
    for (std::size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        const std::size_t padding = last ? (text[i + 3] == '=' ? (text[i + 2] == '=' ? 2 : 1) : 0) : 0;
        std::uint32_t group = 0;
        for (std::size_t j = 0; j < 4 - padding; ++j) {
            const int value = base64Value(text[i + j]);
            if (value < 0) return std::nullopt;
            group |= static_cast<std::uint32_t>(value) << (18 - 6 * j);
        }
        // Bits that the padding leaves over must be zero, so each byte string has one text.
        if ((padding == 1 && (group & 0xFF) != 0) || (padding == 2 && (group & 0xFFFF) != 0)) return std::nullopt;
        bytes.push_back(static_cast<std::uint8_t>(group >> 16));
        if (padding < 2) bytes.push_back(static_cast<std::uint8_t>(group >> 8));
        if (padding < 1) bytes.push_back(static_cast<std::uint8_t>(group));
    }
    return bytes;
}

}  // namespace notificationdb::tool
