#pragma once

// JSON form of notifications for the notificationdb tool. Every record is coded through its
// keyed coding (`fieldDescriptors<Record>`, `encodeRecord`, `decodeRecord`), so a field added to a record
// shows up here without further code.
//
// One entry is {"notification": {...}, "notificationButton": {...} | null}, each record an object
// keyed by field name:
//   absent field      null (on input a missing key is absent too)
//   integer           JSON integer
//   text              JSON string
//   date              on output the 23-character UTC storage text "2024-03-05 17:04:09.250";
//                     on input every text form the store reads, RFC 3339 with a zone
//                     ("2026-11-01T12:00:00.25+02:00", "...Z"), or a number of seconds since 1970
//   boolean           true / false
//   enumeration       on output the raw integer; on input the raw integer or the case name in
//                     any letter case ("newApp", "READ", "openlink")
//   bytes             base64, standard alphabet with padding

#include <NotificationDatabase/NotificationModel/NotificationModelInfo.hpp>

#include <nlohmann/json.hpp>

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace notificationdb::tool {

// Field order is kept, so output reads in column order.
using Json = nlohmann::ordered_json;

// Input that cannot be taken; the text names where, e.g.
// `entry 3: field "notification.status": 7 is not a NotificationStatus`.
class JsonInputError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Inputs above this size are refused before parsing.
inline constexpr std::size_t maximumInputSize = std::size_t{64} * 1024 * 1024;

Json toJson(const NotificationModelInfo& info);
// An array with one entry per element, in order.
Json toJson(const std::vector<NotificationModelInfo>& infos);

// One entry; throws `JsonInputError` naming the field ("notification.status") on bad input.
NotificationModelInfo notificationInfoFromJson(const Json& entry);

// A whole batch: a JSON array of entries. Every entry is checked before anything is returned;
// the first bad one throws `JsonInputError` naming its index (from 0) and field.
std::vector<NotificationModelInfo> batchFromJson(const Json& batch);

// Parses `text` (at most `maximumInputSize` bytes, nesting at most 64 deep) and decodes the
// batch; throws `JsonInputError` for text that is not JSON or not a valid batch.
std::vector<NotificationModelInfo> parseBatch(std::string_view text);

// An RFC 3339 date-time with its zone ("Z" or an offset such as "+02:00") and any number of
// fraction digits, converted to UTC and floored to the millisecond; nullopt for any other text
// and for instants outside years 0000...9999.
std::optional<Timestamp> parseZonedDate(std::string_view text);

// Base64 with the standard alphabet and padding.
std::string encodeBase64(const Bytes& bytes);
// Nullopt for anything but canonical padded base64 (no whitespace, no stray bits).
std::optional<Bytes> decodeBase64(std::string_view text);

}  // namespace notificationdb::tool
