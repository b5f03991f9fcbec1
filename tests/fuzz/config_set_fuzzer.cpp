// The body of "POST /config". parse() answers with a boolean and must never throw.
#include <cstddef>
#include <cstdint>
#include <string>

#include "api/config_set.h"
#include "api/json_value.h"
#include "tests/fuzz/fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string body(reinterpret_cast<const char*>(data), size);
  orv::ConfigSet request;
  if (!request.parse(body)) {
    orv::FuzzCheck(request.restPort() == 0 && request.logDaysToKeep() == 0 && request.logLevel() == 0,
                   "a refused body sets nothing");
    return 0;
  }
  orv::FuzzCheck(orv::JsonValue::Parse(orv::JsonValue::Strip(body)).isObject(), "an accepted body is an object");
  return 0;
}
