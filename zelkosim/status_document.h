#ifndef ORV_ZELKOSIM_STATUS_DOCUMENT_H_
#define ORV_ZELKOSIM_STATUS_DOCUMENT_H_

#include <string>

#include "sim_state.h"

namespace orv::zelkosim {

// The driver's status document: its version and one entry per device, as JSON.
class StatusDocument {
 public:
  virtual ~StatusDocument() = default;

  static std::string Render(const SimState& state);
  // JSON string literal for `text`, quotes included.
  static std::string Quote(const std::string& text);
};

}  // namespace orv::zelkosim

#endif  // ORV_ZELKOSIM_STATUS_DOCUMENT_H_
