#include "driver_call.h"

#include <cerrno>
#include <new>
#include <optional>

#include "sim_error.h"

namespace orv::zelkosim {

namespace {

thread_local std::string lastMessage;

}  // namespace

int DriverCall::Run(const std::string& call, const std::function<void(SimDriver&)>& operation) {
  int err = 0;
  std::optional<SimStore> store;
  try {
    store.emplace(SimStore::FromEnvironment());
    SimDriver driver(*store);
    operation(driver);
    lastMessage.clear();
    return 0;
  } catch (const SimError& e) {
    err = e.err();
    lastMessage = e.what();
  } catch (const std::bad_alloc&) {
    err = ENOMEM;
    lastMessage = "out of memory";
  } catch (const std::exception& e) {
    err = EIO;
    lastMessage = e.what();
  }
  if (err == 0) err = EIO;
  lastMessage = call + ": " + lastMessage;
  if (store) store->log(lastMessage + " [errno " + std::to_string(err) + "]");
  errno = err;
  return -1;
}

const std::string& DriverCall::LastMessage() { return lastMessage; }

}  // namespace orv::zelkosim
