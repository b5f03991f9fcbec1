#include "transfer/image_checksum.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdio>
#include <string>
#include <vector>

#include "api/all_backup_status.h"
#include "tests/unit/iscsi_test_support.h"

namespace orv {
namespace {

constexpr const char* kBackupId = "c4b1e2aa-backup";

// zlib's CRC32 of the same bytes. libgcrypt hands the digest out most significant byte
// first, so its hex text reads like the number.
std::string ZlibCrc32Text(const unsigned char* data, size_t length) {
  uLong crc = crc32(0L, Z_NULL, 0);
  crc = crc32(crc, data, static_cast<uInt>(length));
  char text[9];
  snprintf(text, sizeof(text), "%08lx", crc);
  return text;
}

class ImageChecksumTest : public IscsiTargetTest {
 protected:
  ImageChecksumTest() : IscsiTargetTest(24ull << 20) {}

  VolumeImage Volume(int64_t offset) {
    VolumeImage volume;
    volume.target = IscsiTarget{kIqn, tgtd_.Portal(), 1, "", ""};
    volume.imageOffset = offset;
    volume.backupId = kBackupId;
    volume.status = &status_;
    return volume;
  }

  AllBackupStatus status_{kBackupId};
};

TEST_F(ImageChecksumTest, IsTheCrc32OfTheFirstTenMebibytesOfTheImage) {
  const int64_t offset = 2 << 20;
  std::vector<unsigned char> image = Pattern(12 << 20, 9);
  ASSERT_TRUE(WriteBacking(lunPath_, offset, image));

  std::string checksum;
  ASSERT_TRUE(GetImageChecksum(Volume(offset), checksum));
  EXPECT_EQ(checksum, ZlibCrc32Text(image.data(), kImageChecksumBytes));
  EXPECT_EQ(LoggedMessages("starting getImageChecksum").size(), 1u);

  // What follows the first 10 MiB does not count; a byte inside does.
  image[kImageChecksumBytes] ^= 0xff;
  ASSERT_TRUE(WriteBacking(lunPath_, offset, image));
  std::string again;
  ASSERT_TRUE(GetImageChecksum(Volume(offset), again));
  EXPECT_EQ(again, checksum);
  image[kImageChecksumBytes - 1] ^= 0xff;
  ASSERT_TRUE(WriteBacking(lunPath_, offset, image));
  ASSERT_TRUE(GetImageChecksum(Volume(offset), again));
  EXPECT_NE(again, checksum);
  EXPECT_EQ(again, ZlibCrc32Text(image.data(), kImageChecksumBytes));
  EXPECT_EQ(status_.errorCode(), 0);
  EXPECT_EQ(status_.errorMessage(), "");
}

TEST_F(ImageChecksumTest, OnlyImagesThatStartInsideTheLunAreSummed) {
  std::string checksum;
  ASSERT_TRUE(GetImageChecksum(Volume(static_cast<int64_t>(lunBytes_) - (1 << 20)), checksum));
  // A short read: the sum still covers the whole 10 MiB buffer, whose tail nothing cleared.
  EXPECT_EQ(checksum.size(), 8u);
  EXPECT_EQ(checksum.find_first_not_of("0123456789abcdef"), std::string::npos) << checksum;
  checksum = "unchanged";
  EXPECT_FALSE(GetImageChecksum(Volume(static_cast<int64_t>(lunBytes_) + 512), checksum));
  EXPECT_EQ(checksum, "unchanged");
  EXPECT_EQ(status_.errorMessage(), "Could not seek on target device.");
  EXPECT_EQ(LoggedMessages("Iscsi seek failed: 22").size(), 1u);
  // At the very end there is nothing to read.
  EXPECT_FALSE(GetImageChecksum(Volume(static_cast<int64_t>(lunBytes_)), checksum));
  EXPECT_EQ(status_.errorMessage(), "Could not read from target device.");
  EXPECT_EQ(LoggedMessages("Read from iscsi target failed: ").size(), 1u);
}

TEST_F(ImageChecksumTest, ReachabilityIsALoginToTheVolumesLun) {
  EXPECT_TRUE(IsTargetReachable(Volume(0), 1));
  EXPECT_FALSE(IsTargetReachable(Volume(0), 5));
  EXPECT_TRUE(CheckTargetReachable(Volume(0)));
  EXPECT_EQ(LoggedMessages("Results of checking if target is reachable for lun: 5, 0").size(), 1u);
  EXPECT_EQ(LoggedMessages("Results of checking if target is reachable for lun: 1, 1").size(), 2u);
  EXPECT_EQ(status_.errorMessage(), "");
  // An unreachable target gives one error naming its address.
  ASSERT_TRUE(tgtd_.Stop());
  EXPECT_FALSE(CheckTargetReachable(Volume(0)));
  EXPECT_EQ(status_.errorMessage(),
            "Could not connect to ISCSI target storage, check firewall settings to allow access to " + tgtd_.Portal());
  EXPECT_EQ(LoggedMessages("Error to taloq: ").size(), 1u);
  EXPECT_EQ(LoggedMessages("Backup target unreachable.").size(), 1u);
  std::string checksum;
  EXPECT_FALSE(GetImageChecksum(Volume(0), checksum));
  EXPECT_EQ(checksum, "");
}

}  // namespace
}  // namespace orv
