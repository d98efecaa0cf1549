// The tool's reading of JSON batches: any input gives a batch or a `JsonInputError`; a batch holds
// what the JSON says and comes back unchanged through JSON; base64 is checked on the raw input. A seed
// named "refused-*" must be refused ("refused-<table>.<field>.json" naming that field), others taken.

#include "FuzzCheck.hpp"
#include "JsonCoding.hpp"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace {

using namespace notificationdb;

// The value a JSON value plainly gives a field: null or missing is absent, an enumeration is its raw
// value or case name in any letter case, bytes are base64, a date is date text or seconds; nullopt
// for what is not plain (other date forms, which the round trip checks).
std::optional<FieldValue> plainValue(const FieldDescriptor& field, const nlohmann::json& json) {
    using Value = std::optional<FieldValue>;  // from an optional value too
    const auto raw = [](auto value) {
        FUZZ_CHECK(value.has_value(), "a name that is no case of the enumeration was accepted");
        return Value(rawValue(*value));
    };
    if (json.is_null()) return FieldValue{};
    const std::string text = json.is_string() ? json.get<std::string>() : "";
    if (field.type == FieldType::text) return json.is_string() ? FieldValue{text} : FieldValue{};
    if (field.type == FieldType::boolean) return json.is_boolean() ? FieldValue{json.get<bool>()} : FieldValue{};
    if (field.type == FieldType::bytes) return json.is_string() ? Value(tool::decodeBase64(text)) : FieldValue{};
    if (field.type == FieldType::enumeration && json.is_string()) {
        if (field.name == "status") return raw(fromCaseName<NotificationStatus>(text));
        if (field.name == "actionKind") return raw(fromCaseName<UserActionKind>(text));
        return raw(fromCaseName<NotificationKind>(text));
    }
    if (field.type != FieldType::date)
        return json.is_number_integer() ? FieldValue{json.get<std::int64_t>()} : FieldValue{};
    if (json.is_number()) return Value(dateFromSecondsSince1970(json.get<double>()));
    return json.is_string() ? Value(parseDateText(text)) : std::nullopt;
}

// A decoded record holds what its JSON says, and the tool's JSON (`again`) and keyed coding keep it.
template <class Record>
void checkRecord(const Record& record, const Record& again, const nlohmann::json& object, std::size_t entry) {
    const std::string where = "entry " + std::to_string(entry) + ": ";
    FUZZ_CHECK(object.is_object(), where + "a record was read from a non-object");
    const RecordValues<Record> values = encodeRecord(record);
    std::size_t known = 0;  // keys of the object that name a field
    for (std::size_t i = 0; i < values.size(); ++i) {
        const std::string name(fieldDescriptors<Record>[i].name);
        known += object.contains(name) ? 1 : 0;
        const auto expected = plainValue(fieldDescriptors<Record>[i], object.value(name, nlohmann::json()));
        FUZZ_CHECK(!expected || *expected == values[i], where + name + " differs from the JSON");
        FUZZ_CHECK(fieldDescriptors<Record>[i].optional || values[i].index() != 0,
                   where + name + " is required but absent");
    }
    FUZZ_CHECK(known == object.size(), where + "an unknown key was accepted");
    FUZZ_CHECK(encodeRecord(again) == values, where + "changed on its way through JSON");
    RecordValues<Record> copy = values;
    FUZZ_CHECK(encodeRecord(decodeRecord<Record>(copy)) == values, where + "keyed coding changed it");
}

void checkBase64(std::string_view text) {
    // Decoding accepts canonical text only, so whatever it accepts is written back unchanged.
    const auto decoded = tool::decodeBase64(text);
    FUZZ_CHECK(!decoded || tool::encodeBase64(*decoded) == text, "base64 text was accepted but is not canonical");
    const Bytes bytes(text.begin(), text.end());
    const std::string encoded = tool::encodeBase64(bytes);
    FUZZ_CHECK(encoded.size() == (bytes.size() + 2) / 3 * 4, "base64 text has the wrong length");
    FUZZ_CHECK(tool::decodeBase64(encoded) == bytes, "base64 does not decode to what was encoded");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    checkBase64(text);
    std::vector<NotificationModelInfo> batch;
    const std::string& name = fuzz::replayedName;
    const bool refuse = name.starts_with("refused-");
    try {
        batch = tool::parseBatch(text);
    } catch (const tool::JsonInputError& error) {
        if (!fuzz::replaying) return 0;
        // "refused-<table>.<field>.json" must be refused naming that field.
        const auto field = refuse ? name.substr(8, name.size() - 13) : std::string();
        FUZZ_CHECK(refuse && (field.find('.') == std::string::npos ||
                              std::string(error.what()).find('"' + field + '"') != std::string::npos),
                   name + " was refused: " + error.what());
        return 0;
    }
    FUZZ_CHECK(!fuzz::replaying || !refuse, name + " was taken");
    // Written as JSON and read again (a refusal escapes, a crash), the batch gives the same JSON.
    const std::string written = tool::toJson(batch).dump();
    const auto again = tool::parseBatch(written);
    FUZZ_CHECK(tool::toJson(again).dump() == written, "the JSON of the batch changed on a second pass");
    // An accepted input is JSON (else `parse` throws, a crash): an array with one object per entry.
    const auto json = nlohmann::json::parse(text.begin(), text.end());
    FUZZ_CHECK(json.is_array() && json.size() == batch.size() && again.size() == batch.size(),
               "the batch has another number of entries");
    for (std::size_t i = 0; i < batch.size(); ++i) {
        const auto& entry = json[i];
        FUZZ_CHECK(entry.is_object() && entry.contains("notification") &&
                       entry.size() == (entry.contains("notificationButton") ? 2U : 1U),
                   "an entry without notification, or with unknown keys, was accepted");
        checkRecord(batch[i].notification, again[i].notification, entry["notification"], i);
        const auto button = entry.value("notificationButton", nlohmann::json());
        FUZZ_CHECK(batch[i].actionButton.has_value() == !button.is_null() &&
                       again[i].actionButton.has_value() == !button.is_null(),
                   "a button dropped or made up");
        if (batch[i].actionButton) checkRecord(*batch[i].actionButton, *again[i].actionButton, button, i);
    }
    return 0;
}
