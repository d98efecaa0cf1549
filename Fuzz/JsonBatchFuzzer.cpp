// Fuzzes the notificationdb tool's reading of JSON batches. Any input must give a batch or a
// `JsonInputError`; a batch must hold what the JSON says, keep every record invariant, and come
// back unchanged when written as JSON and read again. The base64 coding of byte fields is
// checked on the raw input as well.

#include "FuzzCheck.hpp"
#include "JsonCoding.hpp"

#include <NotificationDatabase/DatabaseError.hpp>
#include <NotificationDatabase/NotificationModel/DateText.hpp>

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace {

using namespace notificationdb;
using tool::JsonInputError;

std::int64_t caseCount(std::string_view field) {
    if (field == "status") return 3;
    if (field == "notificationKind") return 5;
    if (field == "actionKind") return 7;
    return 0;
}

// Whether `text` is RFC 3339 with a zone for `date`: its wall-clock second, read as UTC, less
// the zone's offset, is the second that holds `date`.
bool isZonedForm(const std::string& text, Timestamp date) {
    if (text.size() < 20) return false;
    std::string wallClock = text.substr(0, 19);
    wallClock[10] = 'T';
    const auto second = parseDateText(wallClock);
    const auto zoneStart = text.find_first_of("Zz+-", 19);
    if (!second || zoneStart == std::string::npos) return false;
    const std::string zone = text.substr(zoneStart);
    std::chrono::minutes offset{0};
    if (zone != "Z" && zone != "z") {
        if (zone.size() != 6) return false;
        offset = std::chrono::minutes(std::stoi(zone.substr(1, 2)) * 60 + std::stoi(zone.substr(4, 2)));
        if (zone[0] == '-') offset = -offset;
    }
    const auto sinceSecond = date - (*second - offset);
    return sinceSecond >= std::chrono::milliseconds(0) && sinceSecond < std::chrono::seconds(1);
}

template <class Record>
std::string fieldPath(std::size_t entry, std::size_t field) {
    return "entry " + std::to_string(entry) + ": " + std::string(RecordCoding<Record>::tableName) + "." +
           std::string(RecordCoding<Record>::fields[field].name);
}

// Checks a decoded record against its JSON object, for the values whose meaning is plain: null
// or a missing key is absent, and strings, integers and booleans in the fields of those kinds
// are taken as they are.
template <class Record>
void checkRecord(const Record& record, const nlohmann::json& object, std::size_t entry) {
    using Coding = RecordCoding<Record>;
    FUZZ_CHECK(object.is_object(), "entry " + std::to_string(entry) + ": a record was read from a non-object");
    const RecordValues<Record> values = encodeRecord(record);
    for (std::size_t i = 0; i < values.size(); ++i) {
        const FieldDescriptor& field = Coding::fields[i];
        const FieldValue& value = values[i];
        const auto found = object.find(std::string(field.name));
        if (found == object.end() || found->is_null()) {
            FUZZ_CHECK(field.optional, fieldPath<Record>(entry, i) + ": a required field was missing");
            FUZZ_CHECK(std::holds_alternative<std::monostate>(value), fieldPath<Record>(entry, i) + " must be absent");
            continue;
        }
        FUZZ_CHECK(!std::holds_alternative<std::monostate>(value), fieldPath<Record>(entry, i) + " was dropped");
        switch (field.type) {
            case FieldType::text:
                FUZZ_CHECK(found->is_string() && std::get<std::string>(value) == found->get<std::string>(),
                           fieldPath<Record>(entry, i) + " differs from the JSON");
                break;
            case FieldType::integer:
                FUZZ_CHECK(found->is_number_integer() && found->get<std::int64_t>() == std::get<std::int64_t>(value) &&
                               !(found->is_number_unsigned() && found->get<std::uint64_t>() > INT64_MAX),
                           fieldPath<Record>(entry, i) + " differs from the JSON");
                break;
            case FieldType::boolean:
                FUZZ_CHECK(found->is_boolean() && found->get<bool>() == std::get<bool>(value),
                           fieldPath<Record>(entry, i) + " differs from the JSON");
                break;
            case FieldType::enumeration: {
                const std::int64_t raw = std::get<std::int64_t>(value);
                FUZZ_CHECK(raw >= 0 && raw < caseCount(field.name), fieldPath<Record>(entry, i) + " is no case");
                if (found->is_number_integer()) {
                    FUZZ_CHECK(found->get<std::int64_t>() == raw,
                               fieldPath<Record>(entry, i) + " differs from the JSON");
                } else {
                    FUZZ_CHECK(found->is_string(),
                               fieldPath<Record>(entry, i) + " was read from neither number nor name");
                }
                break;
            }
            case FieldType::date: {
                const auto text = formatDateText(std::get<Timestamp>(value));
                FUZZ_CHECK(text && parseDateText(*text) == std::get<Timestamp>(value),
                           fieldPath<Record>(entry, i) + " cannot be written back");
                if (found->is_string()) {
                    const auto text = found->get<std::string>();
                    FUZZ_CHECK(parseDateText(text) == std::get<Timestamp>(value) ||
                                   isZonedForm(text, std::get<Timestamp>(value)),
                               fieldPath<Record>(entry, i) + " differs from the JSON");
                } else {
                    FUZZ_CHECK(found->is_number() &&
                                   dateFromSecondsSince1970(found->get<double>()) == std::get<Timestamp>(value),
                               fieldPath<Record>(entry, i) + " differs from the JSON");
                }
                break;
            }
            case FieldType::bytes:
                FUZZ_CHECK(
                    found->is_string() && tool::decodeBase64(found->get<std::string>()) == std::get<Bytes>(value),
                    fieldPath<Record>(entry, i) + " differs from the JSON");
                break;
        }
    }
    // The keyed coding gives back the same record.
    RecordValues<Record> copy = values;
    FUZZ_CHECK(encodeRecord(Coding::decode(copy)) == values,
               "entry " + std::to_string(entry) + ": keyed coding changed the record");
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
        FUZZ_CHECK(entry.is_object() && entry.contains("notification"), "an entry without notification was accepted");
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
