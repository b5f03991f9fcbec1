#ifndef ORV_TRANSFER_ISCSI_BLOCK_DEVICE_H_
#define ORV_TRANSFER_ISCSI_BLOCK_DEVICE_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>

#include "backup/mutex.h"

struct iscsi_context;
struct scsi_task;

namespace orv {

// The target settings of one volume's image, as the backup request names them.
struct IscsiTarget {
  std::string qualifiedName;  // the target's IQN, also used as the initiator name
  std::string targetAddress;  // portal, "host[:port]"
  int lun = 0;
  std::string username;  // CHAP; empty for none
  std::string password;
};

// One LUN of an iSCSI target seen as a seekable block device: a byte position, Read and
// Write that advance it, Seek and a size. The login goes through libiscsi's synchronous
// call; every other command is sent as a task and awaited on the calling thread,
// or sent ahead and awaited by the Read or Write that comes to them. A lost session is
// mended by ReadRetry/WriteRetry, which log in again and repeat the command at the same
// byte position.
//
// Failures return -1 with errno (EBUSY, EINVAL, ENOSPC, EIO, ENOTCONN) and are logged
// with an empty backup id; nothing throws.
class IscsiBlockDevice {
 public:
  IscsiBlockDevice(const std::string& qualifiedName, const std::string& targetAddress, int lun,
                   const std::string& username, const std::string& password);
  explicit IscsiBlockDevice(const IscsiTarget& target);
  virtual ~IscsiBlockDevice();
  IscsiBlockDevice(const IscsiBlockDevice&) = delete;
  IscsiBlockDevice& operator=(const IscsiBlockDevice&) = delete;

  // Logs in and learns the geometry; the position is 0 afterwards.
  bool Connect();
  // Logs out when the session still answers, then drops it. False when not connected.
  bool Disconnect();

  // Bytes read (cut at the end of the LUN), 0 at the end, -1 with errno. A transport
  // failure sets retryFlag.
  int64_t Read(void* buffer, size_t length, bool& retryFlag);
  // Bytes written (cut at the end of the LUN), -1 with errno. Position and length must
  // be whole blocks (EINVAL). A transport failure sets retryFlag.
  int64_t Write(const void* buffer, size_t length, bool& retryFlag);
  // The forms every caller uses: up to five reconnects on a transport failure.
  int64_t ReadRetry(void* buffer, size_t length);
  int64_t WriteRetry(const void* buffer, size_t length);

  // Sends a read of `length` bytes at byte `offset` on the same session without waiting
  // for it, so that the target reads while the caller works. The Read that later comes
  // to that position, for that length into that buffer, takes its answer instead of
  // sending a command of its own, and only then tells what it was: a failure is logged
  // and retried there, as if the command had been sent at that moment. Any other Read
  // first waits for the reads ahead and forgets them; a Write waits for those that
  // overlap its blocks. Only whole blocks within the LUN are read ahead: false when
  // this read is not one (or cannot be sent), and the later Read sends its own. The
  // buffer belongs to the device until that Read, DropReadsAhead or Disconnect.
  bool ReadAhead(void* buffer, size_t length, int64_t offset);
  // Waits for every read sent ahead and forgets it; nothing of them is logged.
  void DropReadsAhead();
  // Takes in, without waiting, whatever the target has sent for the commands ahead (and
  // sends what is left of them), so that the target is not held up by a full socket
  // while the caller works.
  void ServiceReadsAhead();

  // Sends a write of `length` bytes from `buffer` at byte `offset` on the same session
  // without waiting for its answer, so that the target works on several writes at once.
  // The Write that later comes to that position, for that length from that buffer, takes
  // its answer instead of sending a command of its own, and only then tells what it was:
  // a failure is logged and retried there, as if the write had been sent at that moment.
  // A write ahead whose session is dropped before its Write came is forgotten, and that
  // Write sends it again on the new session. The target may run a session's commands in
  // any order, so nothing overlapping a write ahead is sent before its answer: a write
  // ahead over the blocks of another is refused, and reads of its blocks wait for it.
  // Only whole blocks within the LUN are written ahead: false when this write is not one
  // (or cannot be sent), and the later Write sends its own. True at once for a write
  // that is ahead already. `owner` keeps the buffer: the device holds it until libiscsi
  // has let go of the buffer.
  bool WriteAhead(const void* buffer, size_t length, int64_t offset, std::shared_ptr<const void> owner);
  // Waits for the answer of every write sent ahead and forgets it; nothing of them is
  // logged.
  void DropWritesAhead();
  size_t WritesAhead() const { return writesAhead_.size(); }

  // Runs on the calling thread before the device stores a log row. The async writer lets
  // the rows its reporter still holds go first, so that rows keep the writer's order.
  void SetBeforeLog(std::function<void()> hook) { beforeLog_ = std::move(hook); }

  // whence 0 (start), 1 (current), 2 (end); the new position or -1 with EINVAL.
  int64_t Seek(int64_t offset, int whence);
  int64_t Size() const { return static_cast<int64_t>(blockSize_ * blockCount_); }
  int64_t Position() const { return position_; }
  uint64_t BlockSize() const { return blockSize_; }
  uint64_t BlockCount() const { return blockCount_; }
  bool Connected() const { return context_ != nullptr; }

  // Reads block 0; a failure marks the session broken so that Disconnect skips the logout.
  void ProbeRead();

 private:
  struct ContextDeleter {
    void operator()(iscsi_context* context) const;
  };
  struct TaskDeleter {
    void operator()(scsi_task* task) const;
  };
  using ContextPtr = std::unique_ptr<iscsi_context, ContextDeleter>;
  using TaskPtr = std::unique_ptr<scsi_task, TaskDeleter>;

  // Stores a log row at ERROR with an empty backup id, after the before-log hook.
  void Event(const char* text);
  // Logs a failed connect step and drops the half-made context.
  bool FailConnect(const char* format, ...) __attribute__((format(printf, 2, 3)));
  // Drops the session and logs in again at the same byte position.
  bool Reconnect();
  // The first block of a command sent ahead: false unless the session can take one and
  // whole blocks inside the LUN, at most one command long, are named. Holds lock_.
  bool AheadBlock(size_t length, int64_t offset, uint64_t* lba) const;

  struct Command;
  using Commands = std::deque<std::unique_ptr<Command>>;
  // Serves the session until `command` is answered; false when the session failed first
  // (the commands ahead are lost then).
  bool Await(Command& command);
  // Awaits a command just sent; its task, or null when it could not be sent or its
  // session failed first (the record then stays until the context is gone).
  TaskPtr Complete(std::unique_ptr<Command> command);
  // Destroys the context, then the records of the commands it still held.
  void DropContext();
  // Logs out of a session that is logged in, waiting for the target's answer.
  void Logout();
  // Serves the session without waiting; a failure is left for the commands' takers.
  void ServiceAhead();
  // Waits for the writes ahead that overlap blocks [lba, end); false when the session
  // failed first.
  bool AwaitWritesAhead(uint64_t lba, uint64_t end);
  // The commands ahead whose answers can no longer come, kept until their session is gone.
  void LoseCommandsAhead();

  int fd_ = 0;
  int64_t position_ = 0;
  uint64_t blockSize_ = 0;
  uint64_t blockCount_ = 0;
  bool busy_ = false;
  ContextPtr context_;
  std::string qualifiedName_;
  std::string targetAddress_;
  int lun_ = 0;
  std::string username_;
  std::string password_;
  bool broken_ = false;
  Mutex lock_{true};
  std::function<void()> beforeLog_;
  // Reads and writes sent ahead, oldest first, and those lost with a failed session:
  // libiscsi holds their tasks and buffers until it answers them or its context is
  // destroyed.
  Commands readsAhead_;
  Commands writesAhead_;
  Commands lostCommands_;
};

}  // namespace orv

#endif  // ORV_TRANSFER_ISCSI_BLOCK_DEVICE_H_
