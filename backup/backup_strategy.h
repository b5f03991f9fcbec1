#ifndef ORV_BACKUP_BACKUP_STRATEGY_H_
#define ORV_BACKUP_BACKUP_STRATEGY_H_

#include <functional>
#include <string>

namespace orv {

// The copy path a volume takes after its snapshot was made.
enum class CopyPath {
  kFail,                       // inconsistent or unmanageable driver record
  kCreateAndCopyFull,          // no driver device before: a fresh snapshot was made
  kDestroyCreateAndCopyFull,   // an old snapshot was destroyed and made again
  kFromIncrementalCopyFull,    // tracked incrementally, but the prior image can't be trusted
  kFromIncrementalIncremental, // tracked incrementally with a valid prior image
};

struct StrategyInputs {
  bool forceCopyFull = false;
  bool forceDiffMerge = false;
  bool priorBackup = false;  // the history holds a "backup_run" record
  int priorMinor = -1;       // the volume's driver minor before the snapshot, -1 for none
  int priorState = -1;       // its driver state before the snapshot, -1 for none
};

struct StrategyDecision {
  CopyPath path = CopyPath::kFail;
  bool diffMerge = false;
  int logLevel = 0;     // 0 when the decision logs nothing
  std::string message;  // the line explaining the choice
};

// Picks the copy path for one volume. The two questions that cost something (a login
// to the target to checksum the prior image, a history read) are asked only on the
// path that needs them.
StrategyDecision DecideStrategy(const StrategyInputs& inputs, const std::function<bool()>& priorImageValid,
                                const std::function<bool()>& incrementalOk);

const char* CopyPathName(CopyPath path);

}  // namespace orv

#endif  // ORV_BACKUP_BACKUP_STRATEGY_H_
