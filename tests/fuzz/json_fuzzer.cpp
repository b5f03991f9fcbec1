// The JSON text form of every request body and of the driver's status document:
// Validate, Parse, Strip and both writers.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "api/json_value.h"
#include "tests/fuzz/fuzz_check.h"

namespace orv {
namespace {

bool Same(const JsonValue& a, const JsonValue& b) {
  if (a.type() != b.type() || a.name() != b.name() || a.text() != b.text() || a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (!Same(a.children()[i], b.children()[i])) return false;
  }
  return true;
}

std::optional<JsonValue> TryParse(const std::string& text) {
  try {
    return JsonValue::Parse(text);
  } catch (const JsonError&) {
    return std::nullopt;
  }
}

// The getters the handlers call on whatever a body holds.
void ReadAll(const JsonValue& value) {
  (void)value.getInt();
  (void)value.getDouble();
  (void)value.getBool();
  (void)value.find(value.name());
  for (const JsonValue& child : value.children()) ReadAll(child);
}

}  // namespace
}  // namespace orv

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using orv::FuzzCheck;
  using orv::JsonValue;
  const std::string text(reinterpret_cast<const char*>(data), size);
  const bool valid = JsonValue::Validate(text);
  const std::optional<JsonValue> parsed = orv::TryParse(text);
  FuzzCheck(valid == parsed.has_value(), "Validate accepts exactly what Parse accepts");
  const std::string stripped = JsonValue::Strip(text);
  if (!parsed) {
    (void)orv::TryParse(stripped);
    return 0;
  }
  orv::ReadAll(*parsed);

  // White space outside strings carries no meaning.
  std::optional<JsonValue> fromStripped = orv::TryParse(stripped);
  FuzzCheck(fromStripped && orv::Same(*fromStripped, *parsed), "Strip keeps the document");

  // What the agent writes, it reads back as the same document.
  const std::string compact = parsed->WriteCompact();
  const std::string formatted = parsed->WriteFormatted();
  std::optional<JsonValue> fromCompact = orv::TryParse(compact);
  std::optional<JsonValue> fromFormatted = orv::TryParse(formatted);
  FuzzCheck(fromCompact && orv::Same(*fromCompact, *parsed), "the compact form reads back the same");
  FuzzCheck(fromFormatted && orv::Same(*fromFormatted, *parsed), "the formatted form reads back the same");
  FuzzCheck(fromCompact->WriteCompact() == compact, "the compact form is stable");
  FuzzCheck(JsonValue::Strip(formatted) == compact, "the two forms differ only in white space");
  FuzzCheck(JsonValue::Validate(compact) && JsonValue::Validate(formatted), "written forms validate");
  return 0;
}
