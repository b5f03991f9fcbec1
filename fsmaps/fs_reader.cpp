#include "fsmaps/fs_reader.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace orv {

FsReader::~FsReader() = default;

bool FsReader::Read(uint64_t offset, void* buffer, size_t length, const char* what) {
  if (source_.ReadAt(offset, buffer, length) == BlockSource::Result::kOk) return true;
  int error = errno;
  ReportFsError(error, "Can't read %s at byte %llu: %s\n", what, static_cast<unsigned long long>(offset),
                strerror(error));
  return false;
}

void ReportFsError(int error, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vfprintf(stderr, format, args);
  va_end(args);
  errno = error;
}

void ReportOpenError(const std::string& path, int error) {
  char what[4200];
  snprintf(what, sizeof(what), "Error opening %s", path.c_str());
  errno = error;
  perror(what);
  errno = error;
}

}  // namespace orv
