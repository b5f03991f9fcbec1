// The body of "POST /pair". parse() answers with a boolean and must never throw.
#include <cstddef>
#include <cstdint>
#include <string>

#include "api/json_value.h"
#include "api/pair.h"
#include "tests/fuzz/fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string body(reinterpret_cast<const char*>(data), size);
  orv::Pair request;
  if (!request.parse(body)) {
    orv::FuzzCheck(request.deviceId() == 0, "a refused body sets no device id");
    return 0;
  }
  orv::FuzzCheck(orv::JsonValue::Parse(orv::JsonValue::Strip(body)).isObject(), "an accepted body is an object");
  return 0;
}
