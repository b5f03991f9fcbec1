#include "status_document.h"

#include <cstdio>

namespace orv::zelkosim {

std::string StatusDocument::Quote(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
          out += escaped;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

std::string StatusDocument::Render(const SimState& state) {
  std::string out = "{\n  \"version\": " + Quote(state.version) + ",\n  \"devices\": [";
  bool first = true;
  for (const auto& [number, d] : state.devices) {
    out += first ? "\n" : ",\n";
    first = false;
    out += "    {\"minor\": " + std::to_string(d.minor) + ", \"state\": " + std::to_string(d.state) +
           ", \"cow_file\": " + Quote(d.cow_file) + ", \"block_device\": " + Quote(d.block_device) +
           ", \"error\": " + std::to_string(d.error) + "}";
  }
  out += first ? "]\n}\n" : "\n  ]\n}\n";
  return out;
}

}  // namespace orv::zelkosim
