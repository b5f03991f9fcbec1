#ifndef ORV_API_BACKUP_CANCEL_H_
#define ORV_API_BACKUP_CANCEL_H_

#include "api/json_value.h"

namespace orv {

// The answer to a cancel request: whether it worked, and why not when it did not.
class BackupCancel {
 public:
  explicit BackupCancel(bool success) : success_(success) {}
  virtual ~BackupCancel() = default;

  JsonValue render() const {
    JsonValue document = JsonValue::Object();
    document.add("success", JsonValue::Boolean(success_));
    if (!success_) document.add("errorString", JsonValue::String("Cancel backup request failed or timed out."));
    return document;
  }

 private:
  bool success_;
};

}  // namespace orv

#endif  // ORV_API_BACKUP_CANCEL_H_
