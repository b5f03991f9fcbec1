#ifndef ORV_TRANSFER_FILE_SKIPPER_H_
#define ORV_TRANSFER_FILE_SKIPPER_H_

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace orv {

// Tells the used-block copies which blocks of the volume belong to the snapshot
// driver's COW files, so that the image does not receive the snapshot's own
// copy-on-write data. The physical blocks of the files are learnt once, on the first
// question, through FIGETBSZ and FIBMAP, and kept as inclusive extents in the order
// found; a block extends the last extent only when it directly follows the block
// before it in file order. No failure here fails a backup: it is logged and fewer
// blocks are skipped.
class FileSkipper {
 public:
  // Inclusive (first, last) physical block numbers.
  using Extent = std::pair<uint64_t, uint64_t>;

  // `files`: the volume's COW file paths. `disabled`: the disable_cowskip setting;
  // when set no block is ever skipped and nothing is built.
  FileSkipper(std::vector<std::string> files, std::string backupId, bool disabled);
  virtual ~FileSkipper();

  // True when `block` (in units of `blockSize` bytes, the copy's block size) lies in
  // one of the COW files. The first call builds the list.
  bool IsCowFileBlock(uint64_t block, uint64_t blockSize);
  // Fills the extents from every file; a file that cannot be mapped is logged and
  // left out.
  void BuildBlockList(uint64_t blockSize);
  // Adds one file's blocks; returns an error text, empty on success. Nothing is added
  // when the file system's block size differs from `deviceBlockSize`.
  std::string LoadFileBlocks(const std::string& path, uint64_t deviceBlockSize);
  // Physical block 0 is a hole and is ignored; any other counts and extends or opens
  // an extent.
  void AddBlock(uint64_t physicalBlock, uint64_t& count);

  const std::vector<Extent>& extents() const { return extents_; }
  uint64_t extentCount() const { return extentCount_; }
  bool built() const { return built_; }

 private:
  // False in the "file block identification not supported" case, told by trying
  // FIBMAP on block 0 of the first COW file that opens. A file system without block mapping (tmpfs,
  // btrfs: EINVAL), a kernel without the call (ENOTTY, EOPNOTSUPP) and a caller
  // without CAP_SYS_RAWIO (EPERM) all mean no; when no file opens the answer is yes,
  // so that each file's own failure gets logged.
  bool BlockIdentificationSupported() const;

  std::vector<Extent> extents_;
  uint64_t extentCount_ = 0;
  uint32_t lastBlock_ = UINT32_MAX;
  bool built_ = false;
  std::vector<std::string> files_;
  std::string backupId_;
  bool disabled_;
};

}  // namespace orv

#endif  // ORV_TRANSFER_FILE_SKIPPER_H_
