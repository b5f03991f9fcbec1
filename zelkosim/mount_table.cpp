#include "mount_table.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace orv::zelkosim {

namespace {

// mountinfo writes space, tab, newline and backslash as octal escapes (\040).
std::string Unescape(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size()) {
      const std::string digits = text.substr(i + 1, 3);
      if (digits.find_first_not_of("01234567") == std::string::npos) {
        out += static_cast<char>(std::strtol(digits.c_str(), nullptr, 8));
        i += 3;
        continue;
      }
    }
    out += text[i];
  }
  return out;
}

bool HasOption(const std::string& options, const std::string& option) {
  std::istringstream in(options);
  std::string item;
  while (std::getline(in, item, ',')) {
    if (item == option) return true;
  }
  return false;
}

}  // namespace

bool MountEntry::readWrite() const { return HasOption(options, "rw") && !HasOption(super_options, "ro"); }

MountTable MountTable::Read() {
  std::ifstream in("/proc/self/mountinfo");
  std::stringstream text;
  text << in.rdbuf();
  return Parse(text.str());
}

MountTable MountTable::Parse(const std::string& text) {
  std::vector<MountEntry> entries;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream words(line);
    std::vector<std::string> fields;
    for (std::string word; words >> word;) fields.push_back(word);
    // id parent major:minor root mount-point options [optional...] - type source super-options
    size_t dash = 6;
    while (dash < fields.size() && fields[dash] != "-") ++dash;
    if (fields.size() < 6 || dash + 2 >= fields.size()) continue;
    unsigned maj = 0, min = 0;
    if (std::sscanf(fields[2].c_str(), "%u:%u", &maj, &min) != 2) continue;
    MountEntry entry;
    entry.dev = makedev(maj, min);
    entry.root = Unescape(fields[3]);
    entry.mount_point = Unescape(fields[4]);
    entry.options = fields[5];
    entry.fs_type = fields[dash + 1];
    entry.source = Unescape(fields[dash + 2]);
    entry.super_options = dash + 3 < fields.size() ? fields[dash + 3] : "";
    entries.push_back(std::move(entry));
  }
  return MountTable(std::move(entries));
}

const MountEntry* MountTable::findDevice(dev_t rdev, dev_t (*sourceDev)(const std::string&)) const {
  const MountEntry* best = nullptr;
  int bestScore = -1;
  for (const MountEntry& e : entries_) {
    bool match = e.dev == rdev || (!e.source.empty() && e.source[0] == '/' && sourceDev && sourceDev(e.source) == rdev);
    if (!match) continue;
    int score = (e.readWrite() ? 2 : 0) + (e.root == "/" ? 1 : 0);
    if (score > bestScore) {
      best = &e;
      bestScore = score;
    }
  }
  return best;
}

dev_t MountTable::BlockDeviceOf(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0 || !S_ISBLK(st.st_mode)) return 0;
  return st.st_rdev;
}

}  // namespace orv::zelkosim
