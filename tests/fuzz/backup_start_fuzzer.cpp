// The body of "POST /backup".
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "api/backup_start.h"
#include "api/json_value.h"
#include "tests/fuzz/fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string body(reinterpret_cast<const char*>(data), size);
  orv::BackupStart request;
  try {
    request.parse(body);
  } catch (const std::runtime_error&) {
    // JsonError and the shape errors; the handler answers 400 with the text.
    return 0;
  }
  orv::FuzzCheck(orv::JsonValue::Validate(body), "an accepted body is JSON");
  for (const orv::VolumeRequest& volume : request.volumes) {
    for (const orv::ScriptRequest& script : volume.scripts) (void)script.scriptname.size();
  }
  return 0;
}
