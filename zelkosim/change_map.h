#ifndef ORV_ZELKOSIM_CHANGE_MAP_H_
#define ORV_ZELKOSIM_CHANGE_MAP_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace orv::zelkosim {

// A set of 4096-byte blocks of a volume: the blocks an incremental tracker marks as
// changed, or the blocks the simulator must leave out of a comparison.
class ChangeMap {
 public:
  explicit ChangeMap(uint64_t blocks = 0);
  virtual ~ChangeMap() = default;

  uint64_t blocks() const { return blocks_; }
  void mark(uint64_t block);
  bool marked(uint64_t block) const;
  uint64_t count() const;
  // Marks every block that `other` marks (bitwise OR); both must cover the same volume.
  void merge(const ChangeMap& other);
  std::vector<uint64_t> markedBlocks() const;

  // The COW file's map: one unsigned 64-bit entry per block in host byte order, 1 for a
  // changed block and 0 for an unchanged one.
  std::string encodeEntries() const;
  // Reads entries as the agent does: any non-zero entry marks its block. Missing entries
  // (a short map) count as unchanged.
  static ChangeMap DecodeEntries(const std::string& entries, uint64_t blocks);

 private:
  uint64_t blocks_;
  std::vector<uint64_t> bits_;
};

}  // namespace orv::zelkosim

#endif  // ORV_ZELKOSIM_CHANGE_MAP_H_
