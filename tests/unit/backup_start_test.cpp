#include "api/backup_start.h"

#include <gtest/gtest.h>

#include "api/json_value.h"

namespace orv {
namespace {

TEST(BackupStartTest, ReadsEveryMemberInAnyOrder) {
  BackupStart start;
  start.parse(R"({"forceCopyFull": true, "forceDiffMerge": true, "unknown": [1,2],
    "volumes": [{"guid": "u-1", "offset": "1048576", "qualifiedName": "iqn.x", "target": "127.0.0.1:3260",
                 "lun": 1, "username": "u", "password": "p", "extra": {},
                 "scriptsPrePost": [{"scriptname": "db.sh", "timeout": "30"}, {"scriptname": "b"}]},
                {"lun": "x", "offset": 512}]})");
  EXPECT_TRUE(start.forceCopyFull);
  EXPECT_TRUE(start.forceDiffMerge);
  ASSERT_EQ(start.volumes.size(), 2u);
  const VolumeRequest& v = start.volumes[0];
  EXPECT_EQ(v.guid, "u-1");
  EXPECT_EQ(v.offset, 1048576);
  EXPECT_EQ(v.qualifiedName, "iqn.x");
  EXPECT_EQ(v.target, "127.0.0.1:3260");
  EXPECT_EQ(v.lun, 1);
  EXPECT_EQ(v.username, "u");
  EXPECT_EQ(v.password, "p");
  ASSERT_EQ(v.scripts.size(), 2u);
  EXPECT_EQ(v.scripts[0].scriptname, "db.sh");
  EXPECT_EQ(v.scripts[0].timeout, 30);
  EXPECT_EQ(v.scripts[1].timeout, 0);
  EXPECT_EQ(start.volumes[1].lun, 0);  // not a number
  EXPECT_EQ(start.volumes[1].offset, 512);
  EXPECT_TRUE(start.volumes[1].guid.empty());
  BackupStart defaults;
  defaults.parse(R"({"volumes": []})");
  EXPECT_FALSE(defaults.forceCopyFull || defaults.forceDiffMerge);
  EXPECT_TRUE(defaults.volumes.empty());
}

TEST(BackupStartTest, WrongShapesThrow) {
  for (const char* body : {R"([])", R"({"volumes": {}})", R"({"volumes": [1]})",
                           R"({"volumes": [{"scriptsPrePost": 3}]})", R"({"volumes": [{"scriptsPrePost": [7]}]})",
                           R"({"volumes": [)", ""}) {
    BackupStart start;
    EXPECT_THROW(start.parse(body), std::runtime_error) << body;
  }
}

}  // namespace
}  // namespace orv
