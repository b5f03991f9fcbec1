#include "store/configs.h"

#include "store/config_table.h"

namespace orv {

bool Configs::set(const std::string& name, const std::string& value) { return set_config(name, value); }

bool Configs::get(const std::string& name, std::string& value) { return get_config(name, &value); }

}  // namespace orv
