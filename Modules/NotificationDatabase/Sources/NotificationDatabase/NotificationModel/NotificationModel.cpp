#include "NotificationDatabase/NotificationModel/NotificationModel.hpp"

#include "NotificationDatabase/Database/RecordPersistence.hpp"
#include "NotificationDatabase/DatabaseError.hpp"

#include <array>
#include <type_traits>
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

FieldView RecordCoding<NotificationModel>::view(const NotificationModel& record, std::size_t fieldIndex) {
    const auto optionalView = []<class T>(const std::optional<T>& value) -> FieldView {
        if (!value) return std::monostate{};
        if constexpr (std::is_same_v<T, std::string>) {
            return &*value;
        } else {
            return *value;
        }
    };
    switch (fieldIndex) {
        case 0:
            return optionalView(record.id_);
        case 1:
            return optionalView(record.customerId_);
        case 2:
            return record.createdDate;
        case 3:
            return &record.version;
        case 4:
            return &record.analyticsTag;
        case 5:
            return optionalView(record.title);
        case 6:
            return optionalView(record.body);
        case 7:
            return optionalView(record.bannerUrl);
        case 8:
            return record.isMarketing;
        case 9:
            return optionalView(record.appId);
        case 10:
            return rawValue(record.status);
        case 11:
            return rawValue(record.notificationKind);
        default:
            return std::monostate{};
    }
}

FieldValue RecordCoding<NotificationModel>::encode(const NotificationModel& record, std::size_t fieldIndex) {
    return toFieldValue(view(record, fieldIndex));
}

// The enumerations first, then the fields in column order: with several faults in a row, the
// first of them in this order is the one reported.
template <FieldSource Source>
void RecordCoding<NotificationModel>::decode(Source& source, NotificationModel& record) {
    const auto status = fromRawValue<NotificationStatus>(source.template required<std::int64_t>(10));
    if (!status) throw RecordDecodingError(tableName, "status", "integer is no NotificationStatus");
    const auto kind = fromRawValue<NotificationKind>(source.template required<std::int64_t>(11));
    if (!kind) throw RecordDecodingError(tableName, "notificationKind", "integer is no NotificationKind");
    record.status = *status;
    record.notificationKind = *kind;
    record.id_ = source.template optional<std::int64_t>(0);
    source.optional(1, record.customerId_);
    record.createdDate = source.template required<Timestamp>(2);
    source.required(3, record.version);
    source.required(4, record.analyticsTag);
    source.optional(5, record.title);
    source.optional(6, record.body);
    source.optional(7, record.bannerUrl);
    record.isMarketing = source.template required<bool>(8);
    record.appId = source.template optional<std::int64_t>(9);
}

template void RecordCoding<NotificationModel>::decode(FieldValues<12>&, NotificationModel&);
// Rows belong to the private database layer: this instance stays inside the library.
template NOTIFICATIONDB_HIDDEN void RecordCoding<NotificationModel>::decode(RowFields&, NotificationModel&);

}  // namespace notificationdb
