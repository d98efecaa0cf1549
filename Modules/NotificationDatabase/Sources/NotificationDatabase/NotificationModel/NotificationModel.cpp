#include "NotificationDatabase/NotificationModel/NotificationModel.hpp"

#include "NotificationDatabase/DatabaseError.hpp"
#include "NotificationDatabase/Database/RecordPersistence.hpp"

#include <array>
#include <utility>

namespace notificationdb {

NotificationModel::NotificationModel(std::optional<std::int64_t> id, std::optional<std::string> customerId,
                                     Timestamp createdDate, std::string version, std::string analyticsTag,
                                     std::optional<std::string> title, std::optional<std::string> body,
                                     std::optional<std::string> bannerUrl, bool isMarketing,
                                     std::optional<std::int64_t> appId, NotificationStatus status,
                                     NotificationKind notificationKind)
    : createdDate(createdDate),
      version(std::move(version)),
      analyticsTag(std::move(analyticsTag)),
      title(std::move(title)),
      body(std::move(body)),
      bannerUrl(std::move(bannerUrl)),
      isMarketing(isMarketing),
      appId(appId),
      status(status),
      notificationKind(notificationKind),
      id_(id),
      customerId_(std::move(customerId)) {}

FieldValue RecordCoding<NotificationModel>::encode(const NotificationModel& record, std::size_t fieldIndex) {
    const auto optionalValue = [](const auto& value) -> FieldValue {
        if (!value) return std::monostate{};
        return *value;
    };
    switch (fieldIndex) {
        case 0:
            return optionalValue(record.id_);
        case 1:
            return optionalValue(record.customerId_);
        case 2:
            return record.createdDate;
        case 3:
            return record.version;
        case 4:
            return record.analyticsTag;
        case 5:
            return optionalValue(record.title);
        case 6:
            return optionalValue(record.body);
        case 7:
            return optionalValue(record.bannerUrl);
        case 8:
            return record.isMarketing;
        case 9:
            return optionalValue(record.appId);
        case 10:
            return rawValue(record.status);
        case 11:
            return rawValue(record.notificationKind);
        default:
            return std::monostate{};
    }
}

template <FieldSource Source>
NotificationModel RecordCoding<NotificationModel>::decode(Source& source) {
    const auto status = fromRawValue<NotificationStatus>(source.template required<std::int64_t>(10));
    if (!status) throw RecordDecodingError(tableName, "status", "integer is no NotificationStatus");
    const auto kind = fromRawValue<NotificationKind>(source.template required<std::int64_t>(11));
    if (!kind) throw RecordDecodingError(tableName, "notificationKind", "integer is no NotificationKind");
    return {source.template optional<std::int64_t>(0),
            source.template optional<std::string>(1),
            source.template required<Timestamp>(2),
            source.template required<std::string>(3),
            source.template required<std::string>(4),
            source.template optional<std::string>(5),
            source.template optional<std::string>(6),
            source.template optional<std::string>(7),
            source.template required<bool>(8),
            source.template optional<std::int64_t>(9),
            *status,
            *kind};
}

template NotificationModel RecordCoding<NotificationModel>::decode(FieldValues<12>&);
// Rows belong to the private database layer: this instance stays inside the library.
template NOTIFICATIONDB_HIDDEN NotificationModel RecordCoding<NotificationModel>::decode(RowFields&);

}  // namespace notificationdb
