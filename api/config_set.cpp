#include "api/config_set.h"

#include <cstdlib>
#include <stdexcept>

#include "api/json_value.h"
#include "store/configs.h"

namespace orv {

namespace {

int32_t MemberInt(const JsonValue& document, const char* name) {
  const JsonValue* member = document.find(name);
  if (member == nullptr) return 0;
  return static_cast<int32_t>(strtol(member->text().c_str(), nullptr, 10));
}

}  // namespace

bool ConfigSet::parse(const std::string& body) {
  JsonValue document;
  try {
    document = JsonValue::Parse(JsonValue::Strip(body));
  } catch (const JsonError&) {
    return false;
  }
  if (!document.isObject()) return false;
  restPort_ = MemberInt(document, "rest_port");
  logDaysToKeep_ = MemberInt(document, "log_days_to_keep");
  logLevel_ = MemberInt(document, "log_level");
  return true;
}

void ConfigSet::save() const {
  Configs configs;
  if (!configs.set("rest_port", std::to_string(restPort_))) throw std::runtime_error("Could not set restful api port.");
  if (!configs.set("log_days_to_keep", std::to_string(logDaysToKeep_))) {
    throw std::runtime_error("Could not set log days to keep.");
  }
  if (!configs.set("log_level", std::to_string(logLevel_))) throw std::runtime_error("Could not set log level.");
}

}  // namespace orv
