#include "api/backup_start.h"

#include <cstdlib>

#include "api/json_value.h"

namespace orv {

namespace {

// Numbers reach us as their text: a quoted number reads the same as a bare one and
// text that is not a number reads 0.
int64_t NumberOf(const JsonValue& value) { return strtol(value.text().c_str(), nullptr, 10); }

ScriptRequest ParseScript(const JsonValue& entry) {
  if (!entry.isObject()) throw JsonError("a scriptsPrePost entry is not an object");
  ScriptRequest script;
  for (const JsonValue& member : entry.children()) {
    if (member.name() == "scriptname") {
      script.scriptname = member.text();
    } else if (member.name() == "timeout") {
      script.timeout = NumberOf(member);
    }
  }
  return script;
}

VolumeRequest ParseVolume(const JsonValue& entry) {
  if (!entry.isObject()) throw JsonError("a volumes entry is not an object");
  VolumeRequest volume;
  for (const JsonValue& member : entry.children()) {
    const std::string& name = member.name();
    if (name == "guid") {
      volume.guid = member.text();
    } else if (name == "qualifiedName") {
      volume.qualifiedName = member.text();
    } else if (name == "target") {
      volume.target = member.text();
    } else if (name == "username") {
      volume.username = member.text();
    } else if (name == "password") {
      volume.password = member.text();
    } else if (name == "offset") {
      volume.offset = NumberOf(member);
    } else if (name == "lun") {
      volume.lun = static_cast<int32_t>(NumberOf(member));
    } else if (name == "scriptsPrePost") {
      if (!member.isArray()) throw JsonError("scriptsPrePost is not an array");
      for (const JsonValue& script : member.children()) volume.scripts.push_back(ParseScript(script));
    }
  }
  return volume;
}

}  // namespace

void BackupStart::parse(const std::string& body) {
  JsonValue document = JsonValue::Parse(body);
  if (!document.isObject()) throw JsonError("the backup request is not an object");
  for (const JsonValue& member : document.children()) {
    if (member.name() == "volumes") {
      if (!member.isArray()) throw JsonError("volumes is not an array");
      for (const JsonValue& entry : member.children()) volumes.push_back(ParseVolume(entry));
    } else if (member.name() == "forceDiffMerge") {
      forceDiffMerge = member.getBool();
    } else if (member.name() == "forceCopyFull") {
      forceCopyFull = member.getBool();
    }
  }
}

}  // namespace orv
