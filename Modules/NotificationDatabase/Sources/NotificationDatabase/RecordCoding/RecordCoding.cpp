#include "NotificationDatabase/RecordCoding/RecordCoding.hpp"

namespace notificationdb {

RecordDecodingError::RecordDecodingError(std::string_view table, std::string_view column, std::string_view reason)
    : std::runtime_error("could not read column \"" + std::string(column) + "\" of \"" + std::string(table) +
                         "\": " + std::string(reason)),
      column_(column) {}

RecordEncodingError::RecordEncodingError(std::string_view table, std::string_view column, std::string_view reason)
    : std::runtime_error("could not store column \"" + std::string(column) + "\" of \"" + std::string(table) +
                         "\": " + std::string(reason)) {}

}  // namespace notificationdb
