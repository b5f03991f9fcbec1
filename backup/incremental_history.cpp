#include "backup/incremental_history.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "daemon/logger.h"
#include "daemon/unique_fd.h"
#include "store/history.h"
#include "transfer/mapped_buffer.h"

namespace orv {

namespace {

constexpr size_t kMergeWords = 1048576;  // 8 MiB per buffer

// Reads up to `bytes` at `offset`, retrying short reads; returns the bytes read or -1.
ssize_t ReadAt(int fd, void* buffer, size_t bytes, off_t offset) {
  size_t done = 0;
  while (done < bytes) {
    ssize_t n = pread(fd, static_cast<char*>(buffer) + done, bytes - done, offset + static_cast<off_t>(done));
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(done);
}

ssize_t WriteAt(int fd, const void* buffer, size_t bytes, off_t offset) {
  size_t done = 0;
  while (done < bytes) {
    ssize_t n = pwrite(fd, static_cast<const char*>(buffer) + done, bytes - done, offset + static_cast<off_t>(done));
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    done += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(done);
}

}  // namespace

IncrementalHistory::IncrementalHistory(const std::string& mountPoint, const std::string& deviceUuid,
                                       const std::string& backupId)
    : mountPoint_(mountPoint), deviceUuid_(deviceUuid), backupId_(backupId) {}

std::string IncrementalHistory::path() const { return mountPoint_ + "/" + kFileName; }

int IncrementalHistory::copyHeader(int cowFd, int historyFd, const std::string& cowPath) {
  char header[kHeaderBytes];
  if (ReadAt(cowFd, header, sizeof(header), 0) != static_cast<ssize_t>(sizeof(header))) {
    LogEvent(kError, backupId_, "existing incremental cow %s file missing header.", cowPath.c_str());
    return -1;
  }
  if (WriteAt(historyFd, header, sizeof(header), 0) != static_cast<ssize_t>(sizeof(header))) {
    int error = errno;
    LogEvent(kError, backupId_, "Unable to write header to incremental history %s error: %d", path().c_str(), error);
    return error;
  }
  return 0;
}

int IncrementalHistory::merge_incremental_history(const std::string& retiredCowPath) {
  LogEvent(kInfo, backupId_, "starting merge_incremental_history %s", retiredCowPath.c_str());
  UniqueFd cow(open(retiredCowPath.c_str(), O_RDONLY | O_CLOEXEC));
  if (cow.get() < 0) {
    int error = errno;
    LogEvent(kError, backupId_, "Unable to read existing incremental cow file %s error: %d", retiredCowPath.c_str(),
             error);
    return error;
  }
  UniqueFd history(open(path().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666));
  if (history.get() < 0) {
    int error = errno;
    LogEvent(kError, backupId_, "Unable to create/open incremental history file %s error: %d", path().c_str(), error);
    return error;
  }
  int result = copyHeader(cow.get(), history.get(), retiredCowPath);
  if (result != 0) return result;

  // Mapped, not taken from malloc: freeing two 8 MiB blocks would raise malloc's mmap
  // threshold above their size, so that every later backup thread's pair came from (and
  // stayed in) that thread's arena; with many connection threads the agent grew by 16 MiB
  // per arena.
  MappedBuffer cowBuffer(kMergeWords * 8);
  MappedBuffer historyBuffer(kMergeWords * 8);
  if (cowBuffer.data() == nullptr || historyBuffer.data() == nullptr) {
    int error = errno != 0 ? errno : ENOMEM;
    LogEvent(kError, backupId_, "Unable to write merge to incremental history file %s error: %d", path().c_str(), error);
    return error;
  }
  uint64_t* cowWords = reinterpret_cast<uint64_t*>(cowBuffer.data());
  uint64_t* historyWords = reinterpret_cast<uint64_t*>(historyBuffer.data());
  off_t offset = kHeaderBytes;
  for (;;) {
    ssize_t got = ReadAt(cow.get(), cowWords, kMergeWords * 8, offset);
    if (got < 0) {
      int error = errno;
      LogEvent(kError, backupId_, "Unable to read existing incremental cow file %s error: %d", retiredCowPath.c_str(),
               error);
      return error;
    }
    if (got == 0) break;
    size_t bytes = static_cast<size_t>(got);
    size_t words = (bytes + 7) / 8;
    // A partial last word reads as zero beyond the end of the COW file.
    if (bytes % 8 != 0) memset(reinterpret_cast<char*>(cowWords) + bytes, 0, words * 8 - bytes);
    memset(historyWords, 0, words * 8);
    ssize_t have = ReadAt(history.get(), historyWords, words * 8, offset);
    if (have < 0) have = 0;
    if (static_cast<size_t>(have) < words * 8) {
      LogEvent(kDebug, backupId_, "there were %ld bytes our of %ld requested read from the incremental history.",
               static_cast<long>(have), static_cast<long>(words * 8));
    }
    for (size_t i = 0; i < words; ++i) historyWords[i] |= cowWords[i];
    if (WriteAt(history.get(), historyWords, words * 8, offset) != static_cast<ssize_t>(words * 8)) {
      int error = errno;
      LogEvent(kError, backupId_, "Unable to write merge to incremental history file %s error: %d", path().c_str(),
               error);
      return error != 0 ? error : EIO;
    }
    offset += static_cast<off_t>(bytes);
  }
  if (fsync(history.get()) != 0) {
    int error = errno;
    LogEvent(kError, backupId_, "Unable to write merge to incremental history file %s error: %d", path().c_str(), error);
    return error;
  }
  History().write(backupId_, deviceUuid_, "incremental_history", -1, -1, "", "", "exists", "", 0);
  LogEvent(kInfo, backupId_, "finished merge_incremental_history %s", retiredCowPath.c_str());
  return 0;
}

int IncrementalHistory::remove_incremental_history() {
  LogEvent(kInfo, backupId_, "starting remove_incremental_history for %s", deviceUuid_.c_str());
  if (unlink(path().c_str()) != 0 && errno != ENOENT) return errno;
  History().write(backupId_, deviceUuid_, "incremental_history", -1, -1, "", "", "notexist", "", 0);
  return 0;
}

int IncrementalHistory::overlay(uint64_t* map, size_t bytes, off_t offset, int historyFd) {
  if (historyFd < 0) return 0;
  std::vector<uint64_t> history((bytes + 7) / 8, 0);
  return overlay(map, bytes, offset, historyFd, history.data());
}

int IncrementalHistory::overlay(uint64_t* map, size_t bytes, off_t offset, int historyFd, uint64_t* scratch) {
  if (historyFd < 0) return 0;
  size_t words = (bytes + 7) / 8;
  if (lseek(historyFd, offset, SEEK_SET) != offset) {
    int error = errno;
    LogEvent(kError, backupId_, "Unable to find data in incremental history to overlay. error: %d", error);
    return error;
  }
  ssize_t got = ReadAt(historyFd, scratch, words * 8, offset);
  if (got != static_cast<ssize_t>(words * 8)) {
    int error = got < 0 ? errno : EIO;
    LogEvent(kError, backupId_, "Unable to read from incremental history to overlay. error: %d", error);
    return error;
  }
  for (size_t i = 0; i < words; ++i) map[i] |= scratch[i];
  return 0;
}

int IncrementalHistory::overlayReaches(off_t end, int historyFd) {
  if (historyFd < 0) return 0;
  struct stat info;
  if (fstat(historyFd, &info) != 0) {
    int error = errno;
    LogEvent(kError, backupId_, "Unable to find data in incremental history to overlay. error: %d", error);
    return error;
  }
  if (info.st_size >= end) return 0;
  LogEvent(kError, backupId_, "Unable to read from incremental history to overlay. error: %d", EIO);
  return EIO;
}

bool IncrementalHistory::incrementalOk() {
  std::vector<HistoryRow> rows;
  bool ok = History().get_history(&rows, 1, "", deviceUuid_, "incremental_ok", "", 0, "") && !rows.empty() &&
            rows[0].result == "true";
  LogEvent(kInfo, backupId_, "%s",
           ok ? "History shows that the last backup was successful or an incremental."
              : "History shows that the last backup was not an incremental.");
  return ok;
}

bool IncrementalHistory::incrementalHistoryExists() {
  std::vector<HistoryRow> rows;
  bool exists = History().get_history(&rows, 1, "", deviceUuid_, "incremental_history", "", 0, "") &&
                !rows.empty() && rows[0].result == "exists";
  LogEvent(kInfo, backupId_, "%s",
           exists ? "History shows that incremental history exists."
                  : "History shows that incremental history does not exist.");
  return exists;
}

void IncrementalHistory::setIncrementalOk(bool ok) {
  History().write(backupId_, deviceUuid_, "incremental_ok", -1, -1, "", "", ok ? "true" : "false", "", 0);
}

}  // namespace orv
