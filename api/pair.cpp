#include "api/pair.h"

#include <cstdlib>
#include <stdexcept>

#include "api/json_value.h"
#include "daemon/logger.h"
#include "store/config_table.h"

namespace orv {

bool Pair::parse(const std::string& body) {
  JsonValue document;
  try {
    document = JsonValue::Parse(JsonValue::Strip(body));
  } catch (const JsonError&) {
    return false;
  }
  if (!document.isObject()) return false;
  const JsonValue* member = document.find("deviceID");
  deviceId_ = member == nullptr ? 0 : static_cast<int32_t>(strtol(member->text().c_str(), nullptr, 10));
  return true;
}

void Pair::save() const {
  if (deviceId_ < 1) throw std::runtime_error("Invalid device id.");
  LogEvent(kInfo, "", "Pair request. Device id: %d", deviceId_);
  if (!set_device_id(deviceId_)) throw std::runtime_error("Could not update device id.");
}

}  // namespace orv
