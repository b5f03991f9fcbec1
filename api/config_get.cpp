#include "api/config_get.h"

#include <cstdlib>
#include <stdexcept>
#include <string>

#include "store/configs.h"

namespace orv {

namespace {

bool LoadInt(Configs& configs, const char* name, int32_t* value) {
  std::string text;
  if (!configs.get(name, text)) return false;
  *value = static_cast<int32_t>(strtol(text.c_str(), nullptr, 10));
  return true;
}

}  // namespace

void ConfigGet::load() {
  Configs configs;
  if (!LoadInt(configs, "rest_port", &restPort_) || !LoadInt(configs, "log_days_to_keep", &logDaysToKeep_) ||
      !LoadInt(configs, "log_level", &logLevel_)) {
    throw std::runtime_error("Could not retrieve configurations.");
  }
}

JsonValue ConfigGet::render() const {
  JsonValue document = JsonValue::Object();
  document.add("rest_port", JsonValue::Number(restPort_));
  document.add("log_days_to_keep", JsonValue::Number(logDaysToKeep_));
  document.add("log_level", JsonValue::Number(logLevel_));
  return document;
}

}  // namespace orv
