#ifndef ORV_FSMAPS_BYTE_ORDER_H_
#define ORV_FSMAPS_BYTE_ORDER_H_

#include <cstdint>

namespace orv {

// On-disk integers are read byte by byte so that no reader depends on the host's
// byte order or on the alignment of the buffer it parses.
inline uint16_t Le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
inline uint32_t Le32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) | (static_cast<uint32_t>(p[2]) << 16) |
         (static_cast<uint32_t>(p[3]) << 24);
}
inline uint64_t Le64(const uint8_t* p) { return Le32(p) | (static_cast<uint64_t>(Le32(p + 4)) << 32); }

inline uint16_t Be16(const uint8_t* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }
inline uint32_t Be32(const uint8_t* p) {
  return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
         (static_cast<uint32_t>(p[2]) << 8) | static_cast<uint32_t>(p[3]);
}
inline uint64_t Be64(const uint8_t* p) { return (static_cast<uint64_t>(Be32(p)) << 32) | Be32(p + 4); }

inline bool IsPowerOfTwo(uint64_t value) { return value != 0 && (value & (value - 1)) == 0; }

}  // namespace orv

#endif  // ORV_FSMAPS_BYTE_ORDER_H_
