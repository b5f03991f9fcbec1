#ifndef ORV_FSMAPS_PIECE_BITMAP_H_
#define ORV_FSMAPS_PIECE_BITMAP_H_

#include <cstdint>

namespace orv {

// The caller's bitmap buffer seen as one piece of a volume: bit k (bit k % 8 of byte
// k / 8, least significant first) stands for block first() + k, 1 = in use. The piece
// covers [first(), end()), at most bufferBytes * 8 blocks and never past the file
// system's last block. Every setter takes volume block numbers and clips them to the
// piece, so a reader hands over whatever it finds and never writes outside the buffer.
class PieceBitmap {
 public:
  PieceBitmap(uint8_t* buffer, uint64_t bufferBytes, uint64_t startBlock, uint64_t blockCount);
  virtual ~PieceBitmap();

  uint64_t first() const { return first_; }
  uint64_t end() const { return end_; }
  uint64_t covered() const { return end_ - first_; }
  // True when some block of [firstBlock, firstBlock + count) lies in the piece.
  bool Overlaps(uint64_t firstBlock, uint64_t count) const;

  void Clear();
  void MarkUsed(uint64_t firstBlock, uint64_t count);
  void MarkFree(uint64_t firstBlock, uint64_t count);
  // Takes `count` bits of an on-disk bitmap in which bit `sourceBit` describes block
  // `firstBlock`. LSB-first is the bit order of ext and NTFS bitmaps, MSB-first that of
  // the HFS+ allocation file.
  void CopyLsbFirst(const uint8_t* bits, uint64_t sourceBit, uint64_t firstBlock, uint64_t count);
  void CopyMsbFirst(const uint8_t* bits, uint64_t sourceBit, uint64_t firstBlock, uint64_t count);

  bool IsUsed(uint64_t block) const;

 private:
  // Clips [firstBlock, firstBlock + count) to the piece; false when nothing is left.
  bool Clip(uint64_t* firstBlock, uint64_t* count, uint64_t* skipped) const;
  void Fill(uint64_t firstBlock, uint64_t count, bool used);

  uint8_t* buffer_;
  uint64_t bufferBytes_;
  uint64_t first_;
  uint64_t end_;
};

}  // namespace orv

#endif  // ORV_FSMAPS_PIECE_BITMAP_H_
