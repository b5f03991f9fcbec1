#ifndef ORV_STORE_HISTORY_H_
#define ORV_STORE_HISTORY_H_

#include <memory>
#include <string>
#include <vector>

#include "store/history_table.h"

namespace orv {

// What backups did to each device, and what later backups ask about it. Every write is
// followed by a prune by age; failures are logged and read as empty results.
class History {
 public:
  History() = default;
  virtual ~History() = default;

  void write(const std::string& backupId, const std::string& device, const std::string& command, int deviceMinor,
             int deviceState, const std::string& cowFile, const std::string& imageChksum, const std::string& result,
             const std::string& resultDetail, int error);
  bool get_history(std::vector<HistoryRow>* rows, int limit, const std::string& backupId, const std::string& device,
                   const std::string& command, const std::string& result, int error, const std::string& after);
  // The newest successful row of the device that carries a checksum.
  std::unique_ptr<HistoryRow> last_image_checksum(const std::string& device);
  // The newest row of the command.
  std::unique_ptr<HistoryRow> last_command(const std::string& command);
  void prune();
};

}  // namespace orv

#endif  // ORV_STORE_HISTORY_H_
