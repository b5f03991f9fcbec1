#ifndef ORV_API_PAIR_H_
#define ORV_API_PAIR_H_

#include <cstdint>
#include <string>

namespace orv {

// The body of "POST /pair": the device id that the appliance assigns itself. Saving it
// replaces the agent's one pairing.
class Pair {
 public:
  Pair() = default;
  virtual ~Pair() = default;

  // False when the text is not a JSON object. "deviceID" is read with strtol of its
  // text (a number or a numeric string); missing or not numeric, it reads as 0.
  bool parse(const std::string& body);
  // Throws "Invalid device id." for ids below 1 and "Could not update device id." when
  // the device table can't be rewritten.
  void save() const;

  int32_t deviceId() const { return deviceId_; }

 private:
  int32_t deviceId_ = 0;
};

}  // namespace orv

#endif  // ORV_API_PAIR_H_
