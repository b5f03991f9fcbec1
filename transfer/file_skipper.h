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
//
// On ext2/3/4 the blocks come from FIEMAP, one call for many extents instead of one
// FIBMAP call per block (a COW file of a large volume has millions of blocks), but
// only for the extents whose answer is known to be FIBMAP's: plain mapped extents
// below 2^31 blocks, and unwritten ones, which FIBMAP answers with 0. Every other
// extent (inline, delayed, encrypted, unknown flags) and every other file system is
// asked block by block as before, so the list and its counts are the same.
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
  // The extents IsCowFileBlock answers from, built (and logged) on the first call of
  // either; null when skipping is disabled. For copies that take out whole extents.
  const std::vector<Extent>* CowExtents(uint64_t blockSize);
  // Fills the extents from every file; a file that cannot be mapped is logged and
  // left out.
  void BuildBlockList(uint64_t blockSize);
  // Adds one file's blocks; returns an error text, empty on success. Nothing is added
  // when the file system's block size differs from `deviceBlockSize`.
  std::string LoadFileBlocks(const std::string& path, uint64_t deviceBlockSize);
  // Physical block 0 is a hole and is ignored; any other counts and extends or opens
  // an extent.
  void AddBlock(uint64_t physicalBlock, uint64_t& count);
  // The same as AddBlock for each of `blocks` consecutive physical blocks from
  // `firstPhysical` on, in one step.
  void AddBlocks(uint64_t firstPhysical, uint64_t blocks, uint64_t& count);

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
  // FIBMAP for each logical block in [from, to); adds the mapped ones.
  void MapBlocks(int fd, uint64_t from, uint64_t to, uint64_t& mapped);
  // FIEMAP over logical blocks [0, blocks) of a file on ext2/3/4, falling back to
  // MapBlocks for every extent (or the rest of the file) FIEMAP cannot vouch for.
  void MapExtents(int fd, uint64_t blockSize, uint64_t blocks, uint64_t& mapped);

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
