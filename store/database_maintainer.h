#ifndef ORV_STORE_DATABASE_MAINTAINER_H_
#define ORV_STORE_DATABASE_MAINTAINER_H_

#include <sqlite3.h>

#include <string>
#include <vector>

namespace orv {

// A schema version: major.minor.patch with an optional -build.
struct SchemaVersion {
  int major = 0;
  int minor = 0;
  int patch = 0;
  int build = 0;

  static SchemaVersion Parse(const std::string& text);
  std::string ToString() const;  // "1.0.0-0"
  bool operator<(const SchemaVersion& other) const;
  bool operator<=(const SchemaVersion& other) const { return !(other < *this); }
};

// Brings the database's schema to the program's version at start, on its own
// connection, before anything else touches the file.
class DatabaseMaintainer {
 public:
  static constexpr const char* kProgramVersion = "1.0.0";

  struct UpgradeStep {
    SchemaVersion version;
    std::vector<std::string> commands;
  };

  DatabaseMaintainer();
  virtual ~DatabaseMaintainer();
  DatabaseMaintainer(const DatabaseMaintainer&) = delete;
  DatabaseMaintainer& operator=(const DatabaseMaintainer&) = delete;

  bool initialise();
  void close();

  const SchemaVersion& databaseVersion() const { return databaseVersion_; }

 private:
  bool readDatabaseVersion(std::string* text);
  void buildSteps();
  bool applySteps();
  bool runCommands(const std::vector<std::string>& commands);

  sqlite3* handle_ = nullptr;
  SchemaVersion databaseVersion_;
  SchemaVersion programVersion_;
  std::vector<UpgradeStep> steps_;
};

}  // namespace orv

#endif  // ORV_STORE_DATABASE_MAINTAINER_H_
