#include "backup/backup_strategy.h"

#include <gtest/gtest.h>

namespace orv {
namespace {

struct Expected {
  CopyPath path;
  bool diffMerge;
};

// The decision written out independently, rule by rule, for every combination.
Expected Reference(bool forceFull, bool forceMerge, bool prior, int minor, int state, bool valid, bool incOk) {
  if (forceFull) return {CopyPath::kCreateAndCopyFull, false};
  if (minor < 0) {
    if (state >= 0) return {CopyPath::kFail, false};
    return {CopyPath::kCreateAndCopyFull, prior || forceMerge};
  }
  if (state == 0 || state == 1 || state == 3 || state == 4 || state == 5) {
    return {CopyPath::kDestroyCreateAndCopyFull, prior || forceMerge};
  }
  if (state != 2) return {CopyPath::kFail, false};
  if (!valid) return {CopyPath::kFromIncrementalCopyFull, true};
  if (forceMerge) return {CopyPath::kFromIncrementalIncremental, true};
  return {CopyPath::kFromIncrementalIncremental, !incOk};
}

TEST(BackupStrategyTest, EveryInputCombination) {
  int checked = 0;
  for (int bits = 0; bits < 32; ++bits) {
    bool forceFull = bits & 1, forceMerge = bits & 2, prior = bits & 4, valid = bits & 8, incOk = bits & 16;
    for (int minor : {-1, 0, 7}) {
      for (int state = -1; state <= 7; ++state) {
        StrategyInputs inputs{forceFull, forceMerge, prior, minor, state};
        int validAsked = 0, incAsked = 0;
        StrategyDecision d = DecideStrategy(
            inputs, [&] { ++validAsked; return valid; }, [&] { ++incAsked; return incOk; });
        Expected e = Reference(forceFull, forceMerge, prior, minor, state, valid, incOk);
        SCOPED_TRACE(testing::Message() << "bits=" << bits << " minor=" << minor << " state=" << state);
        EXPECT_EQ(d.path, e.path);
        if (e.path != CopyPath::kFail) {
          EXPECT_EQ(d.diffMerge, e.diffMerge);
        }
        // The target is only checked for an incremental tracker, the history only
        // when the image is valid and no merge was forced.
        bool tracker = !forceFull && minor >= 0 && state == 2;
        EXPECT_EQ(validAsked, tracker ? 1 : 0);
        EXPECT_EQ(incAsked, tracker && valid && !forceMerge ? 1 : 0);
        ++checked;
      }
    }
  }
  EXPECT_EQ(checked, 32 * 3 * 9);
}

// "Forcing copy full.", the invalid image's and the forced merge's messages are pinned by
// the incremental system tests.
TEST(BackupStrategyTest, MessagesOfAValidImage) {
  auto yes = [] { return true; };
  auto no = [] { return false; };
  EXPECT_EQ(DecideStrategy({false, false, false, 1, 2}, yes, yes).message,
            "Valid prior backup image. Performing incremental backup.");
  EXPECT_EQ(DecideStrategy({false, false, false, 1, 2}, yes, no).message,
            "Valid prior backup image. Last backup was not incremental, performing diffmerge.");
}

}  // namespace
}  // namespace orv
