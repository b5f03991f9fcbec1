#ifndef ORV_IDENTITY_REPLACEMENT_FILE_H_
#define ORV_IDENTITY_REPLACEMENT_FILE_H_

#include <sys/types.h>

#include <string>

namespace orv {

// Writes one file of the agent's identity so that it appears complete or not at all.
// The text goes to a temporary file beside the final one, which is synced and renamed
// over the final name only when everything was written. Start-up accepts the identity
// when its files exist and are not empty, so a crash or a failed write must never
// leave a truncated key or certificate under the final name.
class ReplacementFile {
 public:
  // `mode` is the creation mode of the temporary file (the umask applies).
  ReplacementFile(const std::string& path, mode_t mode);
  // Removes the temporary file unless it was committed.
  virtual ~ReplacementFile();
  ReplacementFile(const ReplacementFile&) = delete;
  ReplacementFile& operator=(const ReplacementFile&) = delete;

  // Creates the temporary file; 0 or an errno value.
  int open();
  // The temporary file's descriptor while it is open, else -1.
  int descriptor() const { return fd_; }
  // Appends all of `text`; 0 or an errno value.
  int write(const std::string& text);
  // Syncs and closes the temporary file and renames it over the final path; 0 or an
  // errno value (the final path is untouched on failure).
  int commit();

  // The whole sequence for one text: 0 or an errno value.
  static int Replace(const std::string& path, const std::string& text, mode_t mode);

 private:
  void discard();

  std::string path_;
  std::string temporary_;
  mode_t mode_;
  int fd_ = -1;
  bool created_ = false;
};

}  // namespace orv

#endif  // ORV_IDENTITY_REPLACEMENT_FILE_H_
