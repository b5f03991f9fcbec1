#include "sim_state.h"

#include <sys/sysmacros.h>

#include <cerrno>
#include <charconv>
#include <set>
#include <sstream>

#include "sim_error.h"

namespace orv::zelkosim {

namespace {

constexpr const char* kMagic = "zelkosim-state 1";
const std::set<std::string> kCalls = {"setup_snapshot", "transition_incremental", "transition_snapshot", "destroy"};

[[noreturn]] void Malformed(size_t line, const std::string& why) {
  throw SimError(EUCLEAN, "state file is malformed at line " + std::to_string(line) + ": " + why);
}

template <typename T>
T Number(const std::string& text, size_t line, const std::string& key) {
  T value{};
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size()) {
    Malformed(line, "'" + key + "' needs a number, found '" + text + "'");
  }
  return value;
}

}  // namespace

std::string EscapeValue(const std::string& value) {
  std::string out;
  for (char c : value) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\n') {
      out += "\\n";
    } else {
      out += c;
    }
  }
  return out;
}

bool UnescapeValue(const std::string& text, std::string& value) {
  value.clear();
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      value += text[i];
      continue;
    }
    if (++i == text.size()) return false;
    if (text[i] == '\\') {
      value += '\\';
    } else if (text[i] == 'n') {
      value += '\n';
    } else {
      return false;
    }
  }
  return true;
}

SimState SimState::Parse(const std::string& text) {
  SimState state;
  std::istringstream in(text);
  std::string line;
  size_t number = 0;
  SimDevice* device = nullptr;
  std::set<std::string> seen;  // device fields given for the current device
  auto finishDevice = [&](size_t at) {
    if (device && !seen.count("state")) Malformed(at, "device " + std::to_string(device->minor) + " has no state");
  };
  while (std::getline(in, line)) {
    ++number;
    if (number == 1) {
      if (line != kMagic) Malformed(1, "expected '" + std::string(kMagic) + "'");
      continue;
    }
    if (line.empty()) continue;
    bool field = line.rfind("  ", 0) == 0;
    std::string body = field ? line.substr(2) : line;
    size_t space = body.find(' ');
    std::string key = body.substr(0, space);
    std::string raw = space == std::string::npos ? "" : body.substr(space + 1);
    std::string value;
    if (!UnescapeValue(raw, value)) Malformed(number, "bad escape in '" + raw + "'");
    if (field) {
      if (!device) Malformed(number, "field '" + key + "' outside a device");
      if (!seen.insert(key).second) Malformed(number, "field '" + key + "' given twice");
      if (key == "state") {
        device->state = Number<int>(value, number, key);
        if (device->state < 0 || device->state > 7) Malformed(number, "state " + value + " is not a state code");
      } else if (key == "error") {
        device->error = Number<int>(value, number, key);
      } else if (key == "block_device") {
        device->block_device = value;
      } else if (key == "rdev") {
        size_t colon = value.find(':');
        if (colon == std::string::npos) Malformed(number, "rdev needs major:minor");
        device->rdev = makedev(Number<unsigned>(value.substr(0, colon), number, key),
                               Number<unsigned>(value.substr(colon + 1), number, key));
      } else if (key == "cow_file") {
        device->cow_file = value;
      } else if (key == "cow_mib") {
        device->cow_mib = Number<uint64_t>(value, number, key);
      } else if (key == "cache_mib") {
        device->cache_mib = Number<uint64_t>(value, number, key);
      } else if (key == "volume_bytes") {
        device->volume_bytes = Number<uint64_t>(value, number, key);
      } else {
        Malformed(number, "unknown device field '" + key + "'");
      }
      continue;
    }
    if (key == "version") {
      state.version = value;
    } else if (key == "loaded") {
      if (value != "0" && value != "1") Malformed(number, "loaded must be 0 or 1");
      state.loaded = value == "1";
    } else if (key == "fault") {
      std::istringstream words(value);
      std::string call, err, count, extra;
      words >> call >> err >> count;
      if (count.empty() || (words >> extra)) Malformed(number, "fault needs a call, an errno and a count");
      if (!kCalls.count(call)) Malformed(number, "unknown call '" + call + "'");
      state.faults[call] = SimFault{Number<int>(err, number, "fault"), Number<unsigned>(count, number, "fault")};
    } else if (key == "device") {
      finishDevice(number);
      unsigned minor = Number<unsigned>(value, number, key);
      if (minor > kMaxMinor) Malformed(number, "minor " + value + " is above " + std::to_string(kMaxMinor));
      if (state.devices.count(minor)) Malformed(number, "device " + value + " listed twice");
      device = &state.devices[minor];
      device->minor = minor;
      seen.clear();
    } else {
      Malformed(number, "unknown entry '" + key + "'");
    }
  }
  if (number == 0) Malformed(1, "the file is empty");
  finishDevice(number);
  return state;
}

std::string SimState::Format() const {
  std::ostringstream out;
  out << kMagic << "\n";
  out << "version " << EscapeValue(version) << "\n";
  out << "loaded " << (loaded ? 1 : 0) << "\n";
  for (const auto& [call, fault] : faults) {
    if (fault.count > 0) out << "fault " << call << " " << fault.err << " " << fault.count << "\n";
  }
  for (const auto& [minor, d] : devices) {
    out << "device " << minor << "\n";
    out << "  state " << d.state << "\n";
    out << "  error " << d.error << "\n";
    out << "  block_device " << EscapeValue(d.block_device) << "\n";
    out << "  rdev " << major(d.rdev) << ":" << minor(d.rdev) << "\n";
    out << "  cow_file " << EscapeValue(d.cow_file) << "\n";
    out << "  cow_mib " << d.cow_mib << "\n";
    out << "  cache_mib " << d.cache_mib << "\n";
    out << "  volume_bytes " << d.volume_bytes << "\n";
  }
  return out.str();
}

SimDevice* SimState::find(unsigned minor) {
  auto it = devices.find(minor);
  return it == devices.end() ? nullptr : &it->second;
}

const SimDevice* SimState::findTracking(dev_t rdev) const {
  if (rdev == 0) return nullptr;
  for (const auto& [minor, d] : devices) {
    if (d.rdev == rdev) return &d;
  }
  return nullptr;
}

}  // namespace orv::zelkosim
