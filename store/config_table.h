#ifndef ORV_STORE_CONFIG_TABLE_H_
#define ORV_STORE_CONFIG_TABLE_H_

#include <string>
#include <vector>

namespace orv {

// Statements on the config and device tables. Each opens the shared connection, runs,
// finalizes and closes; failures are logged with SQLite's message and return false.
bool set_device_id(int id);
bool get_device_id(int* id);
bool delete_config(const std::string& name);
bool set_config(const std::string& name, const std::string& value);
bool get_config_list(std::vector<std::string>* names, std::vector<std::string>* values);
bool get_config(const std::string& name, std::string* value);

}  // namespace orv

#endif  // ORV_STORE_CONFIG_TABLE_H_
