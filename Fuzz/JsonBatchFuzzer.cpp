// Fuzzes the notificationdb tool's reading of JSON batches. Any input must give a batch or a
// `JsonInputError`; a batch must hold what the JSON says, keep every record invariant, and come
// back unchanged when written as JSON and read again. The base64 coding of byte fields is
// checked on the raw input as well.

#include "FuzzCheck.hpp"
#include "JsonCoding.hpp"

#include <NotificationDatabase/DatabaseError.hpp>
#include <NotificationDatabase/NotificationModel/DateText.hpp>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace {

using namespace notificationdb;
using tool::JsonInputError;

// The value a JSON value gives a field where its meaning is plain: null or a missing key is
// absent; texts, integers and booleans stand for themselves; an enumeration is its raw value or
// its case name in any letter case; bytes are base64; a date is the stored text or a number of
// seconds. Nullopt where it is not plain (other date forms, which the round trip checks).
template <class T>
std::optional<FieldValue> lift(const std::optional<T>& value) {
    if (!value) return std::nullopt;
    if constexpr (std::is_enum_v<T>) {
        return FieldValue{rawValue(*value)};
    } else {
        return FieldValue{*value};
    }
}

std::optional<FieldValue> plainValue(const FieldDescriptor& field, const nlohmann::json* json) {
    if (json == nullptr || json->is_null()) return FieldValue{};
    const auto caseOf = [&](const std::string& name) {
        if (field.name == "status") return lift(fromCaseName<NotificationStatus>(name));
        if (field.name == "actionKind") return lift(fromCaseName<UserActionKind>(name));
        return lift(fromCaseName<NotificationKind>(name));
    };
    switch (field.type) {
        case FieldType::text:
            return json->is_string() ? FieldValue{json->get<std::string>()} : FieldValue{};
        case FieldType::integer:
            return json->is_number_integer() ? FieldValue{json->get<std::int64_t>()} : FieldValue{};
        case FieldType::boolean:
            return json->is_boolean() ? FieldValue{json->get<bool>()} : FieldValue{};
        case FieldType::enumeration:
            if (json->is_string()) return caseOf(json->get<std::string>());
            return json->is_number_integer() ? FieldValue{json->get<std::int64_t>()} : FieldValue{};
        case FieldType::bytes:
            return json->is_string() ? lift(tool::decodeBase64(json->get<std::string>())) : FieldValue{};
        case FieldType::date:
            if (json->is_number()) return lift(dateFromSecondsSince1970(json->get<double>()));
            if (json->is_string()) {
                if (auto date = parseDateText(json->get<std::string>())) return FieldValue{*date};
            }
            return std::nullopt;
    }
    return std::nullopt;
}

// A decoded record holds what its JSON object says, and the keyed coding gives it back unchanged.
template <class Record>
void checkRecord(const Record& record, const nlohmann::json& object, std::size_t entry) {
    using Coding = RecordCoding<Record>;
    FUZZ_CHECK(object.is_object(), "entry " + std::to_string(entry) + ": a record was read from a non-object");
    const RecordValues<Record> values = encodeRecord(record);
    for (std::size_t i = 0; i < values.size(); ++i) {
        const auto found = object.find(std::string(Coding::fields[i].name));
        const auto expected = plainValue(Coding::fields[i], found == object.end() ? nullptr : &*found);
        const std::string where = "entry " + std::to_string(entry) + ": " + std::string(Coding::fields[i].name);
        FUZZ_CHECK(!expected || *expected == values[i], where + " differs from the JSON");
        FUZZ_CHECK(Coding::fields[i].optional || !std::holds_alternative<std::monostate>(values[i]),
                   where + " is required but absent");
    }
    for (const auto& item : object.items()) {
        const std::string key = item.key();
        FUZZ_CHECK(std::ranges::any_of(Coding::fields, [&key](const auto& field) { return field.name == key; }),
                   "entry " + std::to_string(entry) + ": the unknown key \"" + key + "\" was accepted");
    }
    RecordValues<Record> copy = values;
    FUZZ_CHECK(encodeRecord(Coding::decode(copy)) == values,
               "entry " + std::to_string(entry) + ": keyed coding changed it");
}

bool sameBatch(const std::vector<NotificationModelInfo>& lhs, const std::vector<NotificationModelInfo>& rhs) {
    if (lhs.size() != rhs.size()) return false;
    for (std::size_t i = 0; i < lhs.size(); ++i) {
        if (encodeRecord(lhs[i].notification) != encodeRecord(rhs[i].notification)) return false;
        if (lhs[i].actionButton.has_value() != rhs[i].actionButton.has_value()) return false;
        if (lhs[i].actionButton && encodeRecord(*lhs[i].actionButton) != encodeRecord(*rhs[i].actionButton)) {
            return false;
        }
    }
    return true;
}

void checkBase64(std::string_view text) {
    // Decoding accepts canonical text only, so whatever it accepts is written back unchanged.
    if (const auto bytes = tool::decodeBase64(text)) {
        FUZZ_CHECK(tool::encodeBase64(*bytes) == text, "base64 text was accepted but is not canonical");
    }
    const Bytes bytes(text.begin(), text.end());
    const std::string encoded = tool::encodeBase64(bytes);
    FUZZ_CHECK(encoded.size() == (bytes.size() + 2) / 3 * 4, "base64 text has the wrong length");
    FUZZ_CHECK(tool::decodeBase64(encoded) == bytes, "base64 does not decode to what was encoded");
}

void checkBatch(std::string_view text) {
    std::optional<std::vector<NotificationModelInfo>> batch;
    try {
        batch = tool::parseBatch(text);
    } catch (const JsonInputError&) {
        return;
    }

    // An accepted input is JSON: an array with one object per entry.
    nlohmann::json json;
    try {
        json = nlohmann::json::parse(text.begin(), text.end());
    } catch (const nlohmann::json::exception& error) {
        FUZZ_CHECK(false, std::string("text that is not JSON was accepted: ") + error.what());
    }
    FUZZ_CHECK(json.is_array() && json.size() == batch->size(), "the batch has another number of entries");
    for (std::size_t i = 0; i < batch->size(); ++i) {
        const auto& entry = json[i];
        const NotificationModelInfo& info = (*batch)[i];
        FUZZ_CHECK(entry.is_object() && entry.contains("notification") &&
                       entry.size() == (entry.contains("notificationButton") ? 2U : 1U),
                   "an entry without notification, or with unknown keys, was accepted");
        checkRecord(info.notification, entry["notification"], i);
        const auto button = entry.find("notificationButton");
        const bool hasButton = button != entry.end() && !button->is_null();
        FUZZ_CHECK(info.actionButton.has_value() == hasButton, "entry " + std::to_string(i) + ": button mismatch");
        if (hasButton) checkRecord(*info.actionButton, *button, i);
    }

    // Written as JSON and read again, the batch is the same; so is its JSON.
    const std::string written = tool::toJson(*batch).dump();
    std::vector<NotificationModelInfo> again;
    try {
        again = tool::parseBatch(written);
    } catch (const JsonInputError& error) {
        FUZZ_CHECK(false, std::string("the tool's own JSON was refused: ") + error.what());
    }
    FUZZ_CHECK(sameBatch(*batch, again), "the batch changed on its way through JSON");
    FUZZ_CHECK(tool::toJson(again).dump() == written, "the JSON of the batch changed on a second pass");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    try {
        checkBatch(text);
        checkBase64(text);
    } catch (const std::exception& error) {
        notificationdb::fuzz::failUnexpected("the JSON coding", &error);
    } catch (...) {
        notificationdb::fuzz::failUnexpected("the JSON coding", nullptr);
    }
    return 0;
}
