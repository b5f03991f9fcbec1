#include "transfer/iscsi_block_device.h"

#include <errno.h>
#include <poll.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <limits>

extern "C" {
#include <iscsi/iscsi.h>
#include <iscsi/scsi-lowlevel.h>
}

#include "daemon/logger.h"

namespace orv {

namespace {

// The device mends a lost session by itself; a command that still fails after this many
// fresh logins fails for good.
constexpr int kReconnectAttempts = 5;
// Descriptors above this are refused even though the session would work.
constexpr int kHighestSocketFd = 254;
// libiscsi's synchronous calls give up after this many seconds; the kernel drops a
// socket whose data stays unacknowledged for as long.
constexpr int kCommandTimeoutSeconds = 60;
constexpr int kTcpUserTimeoutMs = 60000;
// One SCSI command carries at most this many bytes (its length field is 32 bits).
constexpr uint64_t kMaxCommandBytes = std::numeric_limits<uint32_t>::max();

bool TaskGood(const scsi_task* task) { return task != nullptr && task->status == SCSI_STATUS_GOOD; }

// How long one wait for a read ahead polls the socket before it lets libiscsi look at its
// command timeouts, as libiscsi's own synchronous calls do.
constexpr int kServicePollMs = 1000;

}  // namespace

// A SCSI command on the wire, sent ahead or awaited at once: where it goes, its buffer,
// and what the target answered. libiscsi keeps pointers to `iov` and to the record itself
// (its callback's data) until it answers, or until its context is destroyed, when it
// cancels the command through the same callback. A record whose session failed under it
// is therefore kept until then. libiscsi's synchronous calls keep that state in their
// own stack frame, which the destruction of the context would later write into.
struct IscsiBlockDevice::Command {
  unsigned char* buffer = nullptr;
  uint64_t lba = 0;
  uint64_t bytes = 0;
  scsi_iovec iov{};
  std::shared_ptr<const void> owner;  // a write's buffer, held while libiscsi may send from it
  TaskPtr task;
  bool answered = false;
  int status = SCSI_STATUS_ERROR;
  bool lost = false;  // its session failed while no one was waiting for it

  bool Overlaps(uint64_t start, uint64_t end, uint64_t blockSize) const {
    return lba < end && start < lba + bytes / blockSize;
  }

  static void Answered(iscsi_context*, int status, void*, void* self) {
    auto* command = static_cast<Command*>(self);
    command->answered = true;
    command->status = status;
  }
};

void IscsiBlockDevice::ContextDeleter::operator()(iscsi_context* context) const { iscsi_destroy_context(context); }

void IscsiBlockDevice::TaskDeleter::operator()(scsi_task* task) const { scsi_free_scsi_task(task); }

IscsiBlockDevice::IscsiBlockDevice(const std::string& qualifiedName, const std::string& targetAddress, int lun,
                                   const std::string& username, const std::string& password)
    : qualifiedName_(qualifiedName),
      targetAddress_(targetAddress),
      lun_(lun),
      username_(username),
      password_(password) {}

IscsiBlockDevice::IscsiBlockDevice(const IscsiTarget& target)
    : IscsiBlockDevice(target.qualifiedName, target.targetAddress, target.lun, target.username, target.password) {}

IscsiBlockDevice::~IscsiBlockDevice() {
  if (context_) Disconnect();
}

void IscsiBlockDevice::Event(const char* text) {
  if (beforeLog_) beforeLog_();
  LogEvent(kError, "", "%s", text);
}

bool IscsiBlockDevice::FailConnect(const char* format, ...) {
  char text[1024];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  Event(text);
  DropContext();
  return false;
}

bool IscsiBlockDevice::Connect() {
  MutexLock hold(lock_);
  if (context_) Disconnect();
  broken_ = false;
  // The target's own name serves as the initiator name: the appliance grants each
  // volume's LUN to exactly that name.
  context_.reset(iscsi_create_context(qualifiedName_.c_str()));
  if (!context_) {
    Event("Failed to create iscsi context.");
    return false;
  }
  iscsi_context* context = context_.get();
  iscsi_set_tcp_user_timeout(context, kTcpUserTimeoutMs);
  // libiscsi's own reconnection would replay commands behind our back; the device
  // reconnects by itself and keeps the byte position.
  iscsi_set_reconnect_max_retries(context, 0);
  if (iscsi_set_targetname(context, qualifiedName_.c_str()) != 0) {
    return FailConnect("Failed to set iscsi target name.");
  }
  if (iscsi_set_session_type(context, ISCSI_SESSION_NORMAL) != 0) {
    return FailConnect("Failed to set iscsi session type.");
  }
  if (iscsi_set_header_digest(context, ISCSI_HEADER_DIGEST_NONE_CRC32C) != 0) {
    return FailConnect("Failed to set iscsi header digest.");
  }
  if (iscsi_set_initiator_username_pwd(context, username_.c_str(), password_.c_str()) != 0) {
    return FailConnect("Failed to set iscsi initiator username and password\n");
  }
  if (iscsi_set_immediate_data(context, ISCSI_IMMEDIATE_DATA_YES) != 0) {
    return FailConnect("Failed to set iscsi 'IMMEDIATE DATA' option. %s", iscsi_get_error(context));
  }
  if (iscsi_set_initial_r2t(context, ISCSI_INITIAL_R2T_NO) != 0) {
    return FailConnect("Failed to set iscsi 'INITIAL R2T' option. %s", iscsi_get_error(context));
  }
  if (iscsi_set_timeout(context, kCommandTimeoutSeconds) != 0) {
    return FailConnect("Failed to set iscsi timeout.");
  }
  if (iscsi_full_connect_sync(context, targetAddress_.c_str(), lun_) != 0) {
    return FailConnect("Connect or Login failed: Qname: %s Target: %s LUN: %d. Error: %s", qualifiedName_.c_str(),
                       targetAddress_.c_str(), lun_, iscsi_get_error(context));
  }
  fd_ = iscsi_get_fd(context);
  if (fd_ > kHighestSocketFd) {
    Event("Iscsi socket error - too many files open.");
    Logout();
    DropContext();
    return false;
  }
  auto command = std::make_unique<Command>();
  command->task.reset(iscsi_readcapacity16_task(context, lun_, &Command::Answered, command.get()));
  TaskPtr task = Complete(std::move(command));
  if (!TaskGood(task.get())) {
    return FailConnect("Failed during iscsi read capacity command.");
  }
  auto* capacity = static_cast<scsi_readcapacity16*>(scsi_datain_unmarshall(task.get()));
  if (capacity == nullptr) {
    return FailConnect("Failed to unmarshall read capacity data.");
  }
  // A block length of 0 would make every position computation divide by zero.
  if (capacity->block_length == 0) {
    return FailConnect("Failed during iscsi read capacity command.");
  }
  LogDisplay(kInfo, "Iscsi connected:");
  LogDisplay(kInfo, "\tFD = %d", fd_);
  LogDisplay(kInfo, "\tBlock size: %d", static_cast<int>(capacity->block_length));
  LogDisplay(kInfo, "\tBlock count: %lu", static_cast<unsigned long>(capacity->returned_lba + 1));
  position_ = 0;
  blockSize_ = capacity->block_length;
  blockCount_ = capacity->returned_lba + 1;
  return true;
}

bool IscsiBlockDevice::Disconnect() {
  MutexLock hold(lock_);
  if (!context_) return false;
  if (!broken_) DropReadsAhead();
  if (!broken_) DropWritesAhead();
  if (!broken_) ProbeRead();
  // A session that no longer answers would hold the logout until the command timeout.
  if (!broken_) Logout();
  DropContext();
  return true;
}

void IscsiBlockDevice::Logout() {
  if (!iscsi_is_logged_in(context_.get())) return;
  auto logout = std::make_unique<Command>();
  if (iscsi_logout_async(context_.get(), &Command::Answered, logout.get()) != 0) return;
  if (!Await(*logout)) lostCommands_.push_back(std::move(logout));
}

void IscsiBlockDevice::DropContext() {
  LoseCommandsAhead();
  context_.reset();
  // Only now that libiscsi has let go of them.
  lostCommands_.clear();
}

IscsiBlockDevice::TaskPtr IscsiBlockDevice::Complete(std::unique_ptr<Command> command) {
  // libiscsi frees the task itself when it cannot send it.
  if (!command->task) return nullptr;
  if (!Await(*command)) {
    lostCommands_.push_back(std::move(command));
    return nullptr;
  }
  return std::move(command->task);
}

void IscsiBlockDevice::ProbeRead() {
  MutexLock hold(lock_);
  if (!context_) return;
  auto command = std::make_unique<Command>();
  command->task.reset(iscsi_read16_task(context_.get(), lun_, 0, static_cast<uint32_t>(blockSize_),
                                        static_cast<int>(blockSize_), 0, 0, 0, 0, 0, &Command::Answered,
                                        command.get()));
  TaskPtr task = Complete(std::move(command));
  if (!TaskGood(task.get())) broken_ = true;
}

int64_t IscsiBlockDevice::Read(void* buffer, size_t length, bool& retryFlag) {
  MutexLock hold(lock_);
  if (busy_) {
    errno = EBUSY;
    return -1;
  }
  if (!context_) {
    errno = ENOTCONN;
    return -1;
  }
  uint64_t lba = static_cast<uint64_t>(position_) / blockSize_;
  if (lba >= blockCount_) return 0;
  if (length == 0) return 0;
  uint64_t offsetInBlock = static_cast<uint64_t>(position_) % blockSize_;
  uint64_t blocks = (blockSize_ + length - 1 + offsetInBlock) / blockSize_;
  if (lba + blocks > blockCount_) {
    blocks = blockCount_ - lba;
    length = blocks * blockSize_ - offsetInBlock;
  }
  if (blocks * blockSize_ > kMaxCommandBytes) {
    errno = EINVAL;
    return -1;
  }
  uint64_t requested = blocks * blockSize_;
  // The target may run the commands of a session in any order: writes ahead of these
  // blocks must have their answers before they are read. A session that failed meanwhile
  // fails this read, as it would have failed the read itself.
  bool session = AwaitWritesAhead(lba, lba + blocks);
  // A read of whole blocks lands straight in the caller's buffer; only a read that starts
  // or ends inside a block goes through libiscsi's own buffer and a copy.
  bool direct = offsetInBlock == 0 && length == requested;
  Command* ahead = nullptr;
  if (!readsAhead_.empty()) {
    Command& front = *readsAhead_.front();
    if (direct && front.buffer == buffer && front.lba == lba && front.bytes == requested) {
      ahead = &front;
    } else {
      DropReadsAhead();
    }
  }
  busy_ = true;
  TaskPtr task;
  if (!session) {
    // No task: the read fails as on a session lost under it.
  } else if (ahead != nullptr) {
    // A session that fails before the answer gives no task, as a synchronous read would.
    if (Await(*ahead)) {
      if (ahead->status == SCSI_STATUS_GOOD) task = std::move(ahead->task);
      readsAhead_.pop_front();
    }
  } else {
    auto command = std::make_unique<Command>();
    if (direct) {
      command->iov = scsi_iovec{buffer, static_cast<size_t>(requested)};
      command->task.reset(iscsi_read16_iov_task(context_.get(), lun_, lba, static_cast<uint32_t>(requested),
                                                static_cast<int>(blockSize_), 0, 0, 0, 0, 0, &Command::Answered,
                                                command.get(), &command->iov, 1));
    } else {
      command->task.reset(iscsi_read16_task(context_.get(), lun_, lba, static_cast<uint32_t>(requested),
                                            static_cast<int>(blockSize_), 0, 0, 0, 0, 0, &Command::Answered,
                                            command.get()));
    }
    task = Complete(std::move(command));
  }
  busy_ = false;
  if (!TaskGood(task.get())) {
    Event("Failed during iscsi read command.");
    errno = EIO;
    broken_ = true;
    retryFlag = true;
    return -1;
  }
  // The data starts at the block boundary; a target that sends fewer bytes than asked
  // gives a short read rather than stale bytes.
  size_t available;
  if (direct) {
    size_t missing = task->residual_status == SCSI_RESIDUAL_UNDERFLOW ? task->residual : 0;
    available = missing < requested ? static_cast<size_t>(requested) - missing : 0;
  } else {
    available = task->datain.size > 0 ? static_cast<size_t>(task->datain.size) : 0;
  }
  if (available <= offsetInBlock) {
    Event("Failed during iscsi read command.");
    errno = EIO;
    return -1;
  }
  if (length > available - offsetInBlock) length = available - offsetInBlock;
  if (!direct) memcpy(buffer, task->datain.data + offsetInBlock, length);
  position_ += static_cast<int64_t>(length);
  return static_cast<int64_t>(length);
}

int64_t IscsiBlockDevice::Write(const void* buffer, size_t length, bool& retryFlag) {
  MutexLock hold(lock_);
  if (busy_) {
    errno = EBUSY;
    return -1;
  }
  if (!context_) {
    errno = ENOTCONN;
    return -1;
  }
  if (static_cast<uint64_t>(position_) % blockSize_ != 0 || length % blockSize_ != 0) {
    errno = EINVAL;
    return -1;
  }
  uint64_t lba = static_cast<uint64_t>(position_) / blockSize_;
  if (blockCount_ <= lba) {
    errno = ENOSPC;
    return -1;
  }
  if (lba + length / blockSize_ > blockCount_) length = blockSize_ * (blockCount_ - lba);
  if (length == 0) return 0;
  if (length > kMaxCommandBytes) {
    errno = EINVAL;
    return -1;
  }
  uint64_t end = lba + length / blockSize_;
  auto ahead = writesAhead_.begin();
  while (ahead != writesAhead_.end() &&
         ((*ahead)->buffer != buffer || (*ahead)->lba != lba || (*ahead)->bytes != length)) {
    ++ahead;
  }
  TaskPtr task;
  if (ahead != writesAhead_.end()) {
    busy_ = true;
    // A session that fails before the answer gives no task, as a synchronous write would.
    if (Await(**ahead)) {
      if ((*ahead)->status == SCSI_STATUS_GOOD) task = std::move((*ahead)->task);
      writesAhead_.erase(ahead);
    }
    busy_ = false;
  } else {
    // The target may run the commands of a session in any order: commands ahead over
    // these blocks must have their answers before they change. A session that failed
    // meanwhile fails this write, as it would have failed the write itself.
    for (const auto& command : readsAhead_) {
      if (command->Overlaps(lba, end, blockSize_)) {
        DropReadsAhead();
        break;
      }
    }
    if (AwaitWritesAhead(lba, end)) {
      busy_ = true;
      auto command = std::make_unique<Command>();
      // libiscsi sends straight from the caller's buffer; it does not write to it.
      command->task.reset(iscsi_write16_task(context_.get(), lun_, lba,
                                             static_cast<unsigned char*>(const_cast<void*>(buffer)),
                                             static_cast<uint32_t>(length), static_cast<int>(blockSize_), 0, 0, 0, 0, 0,
                                             &Command::Answered, command.get()));
      task = Complete(std::move(command));
      busy_ = false;
    }
  }
  if (!TaskGood(task.get())) {
    Event("Failed during iscsi write command.");
    errno = EIO;
    broken_ = true;
    retryFlag = true;
    return -1;
  }
  position_ += static_cast<int64_t>(length);
  return static_cast<int64_t>(length);
}

bool IscsiBlockDevice::Reconnect() {
  broken_ = true;
  Disconnect();
  int64_t position = position_;
  bool connected = Connect();
  position_ = position;
  if (connected) broken_ = false;
  return connected;
}

int64_t IscsiBlockDevice::ReadRetry(void* buffer, size_t length) {
  MutexLock hold(lock_);
  bool retryFlag = false;
  int64_t result = Read(buffer, length, retryFlag);
  if (!retryFlag) return result;
  for (int attempt = 0; attempt < kReconnectAttempts; ++attempt) {
    Event("Read iscsi failed, sleeping, reconnecting, and retrying");
    sleep(1);
    if (!Reconnect()) continue;
    retryFlag = false;
    result = Read(buffer, length, retryFlag);
    if (!retryFlag) return result;
  }
  broken_ = true;
  errno = EIO;
  return -1;
}

int64_t IscsiBlockDevice::WriteRetry(const void* buffer, size_t length) {
  MutexLock hold(lock_);
  bool retryFlag = false;
  int64_t result = Write(buffer, length, retryFlag);
  if (!retryFlag) return result;
  for (int attempt = 0; attempt < kReconnectAttempts; ++attempt) {
    Event("Write iscsi failed, sleeping, reconnecting, and retrying");
    sleep(1);
    if (!Reconnect()) continue;
    retryFlag = false;
    result = Write(buffer, length, retryFlag);
    if (!retryFlag) return result;
  }
  broken_ = true;
  errno = EIO;
  return -1;
}

bool IscsiBlockDevice::AheadBlock(size_t length, int64_t offset, uint64_t* lba) const {
  if (!context_ || broken_ || busy_ || offset < 0 || length == 0) return false;
  uint64_t start = static_cast<uint64_t>(offset);
  if (start % blockSize_ != 0 || length % blockSize_ != 0 || length > kMaxCommandBytes) return false;
  *lba = start / blockSize_;
  return *lba < blockCount_ && length / blockSize_ <= blockCount_ - *lba;
}

bool IscsiBlockDevice::ReadAhead(void* buffer, size_t length, int64_t offset) {
  MutexLock hold(lock_);
  uint64_t lba = 0;
  if (!AheadBlock(length, offset, &lba)) return false;
  // The target might read these blocks before it writes them.
  for (const auto& write : writesAhead_) {
    if (write->Overlaps(lba, lba + length / blockSize_, blockSize_)) return false;
  }
  auto command = std::make_unique<Command>();
  command->buffer = static_cast<unsigned char*>(buffer);
  command->lba = lba;
  command->bytes = length;
  command->iov = scsi_iovec{buffer, length};
  command->task.reset(iscsi_read16_iov_task(context_.get(), lun_, lba, static_cast<uint32_t>(length),
                                            static_cast<int>(blockSize_), 0, 0, 0, 0, 0, &Command::Answered,
                                            command.get(), &command->iov, 1));
  // libiscsi frees the task itself when it cannot send it.
  if (!command->task) return false;
  readsAhead_.push_back(std::move(command));
  return true;
}

bool IscsiBlockDevice::WriteAhead(const void* buffer, size_t length, int64_t offset,
                                  std::shared_ptr<const void> owner) {
  MutexLock hold(lock_);
  uint64_t lba = 0;
  if (!AheadBlock(length, offset, &lba)) return false;
  uint64_t end = lba + length / blockSize_;
  for (const auto& write : writesAhead_) {
    // The same write, still on the wire (or answered and not yet taken).
    if (write->buffer == buffer && write->lba == lba && write->bytes == length) return true;
    // Nothing more goes on a session that failed under the commands ahead.
    if (write->lost || write->Overlaps(lba, end, blockSize_)) return false;
  }
  for (const auto& read : readsAhead_) {
    if (read->lost) return false;
    if (read->Overlaps(lba, end, blockSize_)) {
      DropReadsAhead();
      if (!readsAhead_.empty() || broken_) return false;
      break;
    }
  }
  auto command = std::make_unique<Command>();
  command->buffer = static_cast<unsigned char*>(const_cast<void*>(buffer));
  command->lba = lba;
  command->bytes = length;
  command->owner = std::move(owner);
  // libiscsi sends straight from the buffer; it does not write to it.
  command->task.reset(iscsi_write16_task(context_.get(), lun_, lba, command->buffer, static_cast<uint32_t>(length),
                                         static_cast<int>(blockSize_), 0, 0, 0, 0, 0, &Command::Answered,
                                         command.get()));
  // libiscsi frees the task itself when it cannot send it.
  if (!command->task) return false;
  writesAhead_.push_back(std::move(command));
  // libiscsi only queues the command: start sending it now.
  ServiceAhead();
  return true;
}

bool IscsiBlockDevice::Await(Command& command) {
  while (!command.answered) {
    pollfd socket{iscsi_get_fd(context_.get()), 0, 0};
    if (command.lost || socket.fd < 0) {
      LoseCommandsAhead();
      return false;
    }
    socket.events = static_cast<short>(iscsi_which_events(context_.get()));
    if (socket.events == 0) {
      // libiscsi has nothing to wait for on the socket just now (it is between
      // connections); it asks to be called again a little later.
      sleep(1);
      continue;
    }
    int ready = poll(&socket, 1, kServicePollMs);
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0 || iscsi_service(context_.get(), ready == 0 ? 0 : socket.revents) < 0) {
      LoseCommandsAhead();
      return false;
    }
  }
  return true;
}

void IscsiBlockDevice::ServiceAhead() {
  pollfd socket{iscsi_get_fd(context_.get()), 0, 0};
  if (socket.fd < 0) return;
  socket.events = static_cast<short>(iscsi_which_events(context_.get()));
  if (socket.events == 0) return;
  if (poll(&socket, 1, 0) <= 0 || iscsi_service(context_.get(), socket.revents) >= 0) return;
  // Left for the Read or Write that takes the answer to find and tell, as if it had
  // failed there.
  for (const auto& command : readsAhead_) command->lost = true;
  for (const auto& command : writesAhead_) command->lost = true;
}

void IscsiBlockDevice::ServiceReadsAhead() {
  MutexLock hold(lock_);
  if (!context_ || busy_ || (readsAhead_.empty() && writesAhead_.empty())) return;
  ServiceAhead();
}

bool IscsiBlockDevice::AwaitWritesAhead(uint64_t lba, uint64_t end) {
  for (size_t i = 0; i < writesAhead_.size(); ++i) {
    Command& command = *writesAhead_[i];
    if (command.Overlaps(lba, end, blockSize_) && !Await(command)) return false;
  }
  return true;
}

void IscsiBlockDevice::DropReadsAhead() {
  MutexLock hold(lock_);
  while (!readsAhead_.empty()) {
    if (!Await(*readsAhead_.front())) return;
    readsAhead_.pop_front();
  }
}

void IscsiBlockDevice::DropWritesAhead() {
  MutexLock hold(lock_);
  while (!writesAhead_.empty()) {
    if (!Await(*writesAhead_.front())) return;
    writesAhead_.pop_front();
  }
}

void IscsiBlockDevice::LoseCommandsAhead() {
  // A session that lost its answers is failed, as when a command of its own fails.
  if (!readsAhead_.empty() || !writesAhead_.empty()) broken_ = true;
  for (Commands* commands : {&readsAhead_, &writesAhead_}) {
    while (!commands->empty()) {
      lostCommands_.push_back(std::move(commands->front()));
      commands->pop_front();
    }
  }
}

int64_t IscsiBlockDevice::Seek(int64_t offset, int whence) {
  errno = 0;
  int64_t base;
  switch (whence) {
    case 0:
      base = 0;
      break;
    case 1:
      base = position_;
      break;
    case 2:
      base = Size();
      break;
    default:
      errno = EINVAL;
      return -1;
  }
  int64_t target;
  if (__builtin_add_overflow(base, offset, &target) || target < 0 || target > Size()) {
    errno = EINVAL;
    return -1;
  }
  position_ = target;
  return target;
}

}  // namespace orv
