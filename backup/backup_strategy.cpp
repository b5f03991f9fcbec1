#include "backup/backup_strategy.h"

#include "daemon/logger.h"

namespace orv {

StrategyDecision DecideStrategy(const StrategyInputs& inputs, const std::function<bool()>& priorImageValid,
                                const std::function<bool()>& incrementalOk) {
  StrategyDecision decision;
  if (inputs.forceCopyFull) {
    decision.path = CopyPath::kCreateAndCopyFull;
    decision.diffMerge = false;
    decision.logLevel = kInfo;
    decision.message = "Forcing copy full.";
    return decision;
  }
  // A full copy over an image that an earlier backup left on the target is merged
  // into it rather than written blind.
  bool mergeWhenPrior = inputs.priorBackup ? true : inputs.forceDiffMerge;
  if (inputs.priorMinor < 0) {
    if (inputs.priorState >= 0) return decision;  // a state without a device
    decision.path = CopyPath::kCreateAndCopyFull;
    decision.diffMerge = mergeWhenPrior;
    return decision;
  }
  switch (inputs.priorState) {
    case 0:
    case 1:
    case 3:
    case 4:
    case 5:
      decision.path = CopyPath::kDestroyCreateAndCopyFull;
      decision.diffMerge = mergeWhenPrior;
      return decision;
    case 2:
      break;
    default:
      return decision;
  }
  decision.logLevel = kDebug;
  if (!priorImageValid()) {
    decision.path = CopyPath::kFromIncrementalCopyFull;
    decision.diffMerge = true;
    decision.message = "Invalid prior backup image, Forcing a differential merge.";
    return decision;
  }
  decision.path = CopyPath::kFromIncrementalIncremental;
  if (inputs.forceDiffMerge) {
    decision.diffMerge = true;
    decision.message = "Valid prior backup image. forcediffmerge set.";
  } else if (incrementalOk()) {
    decision.diffMerge = false;
    decision.message = "Valid prior backup image. Performing incremental backup.";
  } else {
    decision.diffMerge = true;
    decision.message = "Valid prior backup image. Last backup was not incremental, performing diffmerge.";
  }
  return decision;
}

const char* CopyPathName(CopyPath path) {
  switch (path) {
    case CopyPath::kFail:
      return "fail";
    case CopyPath::kCreateAndCopyFull:
      return "PostCreateSnapshot_AndCopyFull";
    case CopyPath::kDestroyCreateAndCopyFull:
      return "PostDestroyCreateSnapshotAndCopyFull";
    case CopyPath::kFromIncrementalCopyFull:
      return "PostCreateSnapFromIncremental_AndCopyFull";
    case CopyPath::kFromIncrementalIncremental:
      return "PostCreateSnapFromIncremental_AndCopyIncremental";
  }
  return "unknown";
}

}  // namespace orv
