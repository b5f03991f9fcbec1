#include "change_map.h"

#include <bit>
#include <cstring>
#include <stdexcept>

namespace orv::zelkosim {

ChangeMap::ChangeMap(uint64_t blocks) : blocks_(blocks), bits_((blocks + 63) / 64, 0) {}

void ChangeMap::mark(uint64_t block) {
  if (block >= blocks_) throw std::out_of_range("block " + std::to_string(block) + " is beyond the volume");
  bits_[block / 64] |= uint64_t{1} << (block % 64);
}

bool ChangeMap::marked(uint64_t block) const {
  return block < blocks_ && (bits_[block / 64] >> (block % 64)) & 1;
}

uint64_t ChangeMap::count() const {
  uint64_t total = 0;
  for (uint64_t word : bits_) total += static_cast<uint64_t>(std::popcount(word));
  return total;
}

void ChangeMap::merge(const ChangeMap& other) {
  if (other.blocks_ != blocks_) throw std::invalid_argument("change maps of different volumes");
  for (size_t i = 0; i < bits_.size(); ++i) bits_[i] |= other.bits_[i];
}

std::vector<uint64_t> ChangeMap::markedBlocks() const {
  std::vector<uint64_t> out;
  for (size_t i = 0; i < bits_.size(); ++i) {
    for (uint64_t word = bits_[i]; word != 0; word &= word - 1) {
      out.push_back(i * 64 + static_cast<uint64_t>(std::countr_zero(word)));
    }
  }
  return out;
}

std::string ChangeMap::encodeEntries() const {
  std::string out(blocks_ * sizeof(uint64_t), '\0');
  const uint64_t one = 1;
  for (uint64_t block : markedBlocks()) std::memcpy(&out[block * sizeof one], &one, sizeof one);
  return out;
}

ChangeMap ChangeMap::DecodeEntries(const std::string& entries, uint64_t blocks) {
  ChangeMap map(blocks);
  uint64_t present = std::min<uint64_t>(blocks, entries.size() / sizeof(uint64_t));
  for (uint64_t block = 0; block < present; ++block) {
    uint64_t entry;
    std::memcpy(&entry, &entries[block * sizeof entry], sizeof entry);
    if (entry != 0) map.mark(block);
  }
  return map;
}

}  // namespace orv::zelkosim
