#pragma once

#include <NotificationDatabase/Export.hpp>

#include <stdexcept>
#include <string>

namespace notificationdb {

// Base of errors that come from a storage engine with numeric result codes. `LogSanitizer`
// renders these as code, code name and the engine's own message; nothing else of them.
class NOTIFICATIONDB_API EngineError : public std::runtime_error {
public:
    // `what` is the full text of `what()`; the other arguments are kept as they are.
    EngineError(int resultCode, int extendedResultCode, std::string codeName, std::string engineMessage,
                const std::string& what)
        : std::runtime_error(what),
          resultCode_(resultCode),
          extendedResultCode_(extendedResultCode),
          codeName_(std::move(codeName)),
          engineMessage_(std::move(engineMessage)) {}

    int resultCode() const noexcept { return resultCode_; }                  // e.g. 19, SQLITE_CONSTRAINT
    int extendedResultCode() const noexcept { return extendedResultCode_; }  // e.g. 787, its FOREIGNKEY case
    // Symbolic name of the extended code, e.g. "SQLITE_CONSTRAINT_FOREIGNKEY".
    const std::string& codeName() const noexcept { return codeName_; }
    // The engine's description of the failure, without bound values.
    const std::string& engineMessage() const noexcept { return engineMessage_; }

private:
    int resultCode_;
    int extendedResultCode_;
    std::string codeName_;
    std::string engineMessage_;
};

}  // namespace notificationdb
