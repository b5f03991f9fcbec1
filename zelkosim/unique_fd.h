#ifndef ORV_ZELKOSIM_UNIQUE_FD_H_
#define ORV_ZELKOSIM_UNIQUE_FD_H_

#include <string>

namespace orv::zelkosim {

// Owns one file descriptor and closes it when it goes.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept;
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  virtual ~UniqueFd();

  // Opens `path`; a failure throws SimError naming `what` and the path.
  static UniqueFd Open(const std::string& path, int flags, const std::string& what, int mode = 0);

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  int release();
  void reset();

 private:
  int fd_ = -1;
};

// Reads exactly `length` bytes at `offset` unless the file ends first; returns the bytes read.
// Errors throw SimError naming `what`.
size_t PreadFull(int fd, void* buffer, size_t length, off_t offset, const std::string& what);
// Writes all of `length` bytes at `offset`; errors (and short writes) throw SimError.
void PwriteFull(int fd, const void* buffer, size_t length, off_t offset, const std::string& what);

}  // namespace orv::zelkosim

#endif  // ORV_ZELKOSIM_UNIQUE_FD_H_
