// The simulated flash chip: what the appliance's MTD driver (NOR flash with
// a RedBoot FIS directory) or its M-Systems flash disk driver would do with
// each request, on a chip kept in a state directory (see flash_state.h).
// The FUSE front end (filebay-flashsim) forwards every file operation and
// ioctl here; the model itself knows nothing of FUSE.
//
// Results follow the kernel's convention: 0 (or a byte count) on success,
// a negative errno on failure. A failed operation changes nothing.
//
// Persistence: chip.img is written through after every change, so a crash or
// a power cut leaves the chip on disk as it was at that moment; lock bits
// ("locks"), the layout ("layout") and the fault plan ("faults") are replaced
// through a temporary file and rename at once.
//
// Chip semantics:
// - Devices are the partitions of the layout, addressed by index (mtdINDEX);
//   a device's view is the chip bytes from its partition's base for its size.
//   Requests for a device that does not exist fail with ENODEV.
// - read: at or past the end returns 0 bytes; a read crossing the end is
//   shortened.
// - write: at or past the end fails with ENOSPC; a write crossing the end is
//   shortened. A write touching a locked block fails with EIO. On NOR chips a
//   write programs bits (new = old AND data); the flash disk (msys) replaces
//   the bytes and remembers the highest byte written as the partition's data
//   length.
// - erase: start and length block-aligned and inside the partition, else
//   EINVAL; EIO when a block of the range is locked; the range becomes 0xFF.
//   A length of 0 succeeds and does nothing.
// - lock / unlock: the range must lie inside the partition (EINVAL); every
//   erase block the range touches changes its lock bit.
// - getinfo: NOR chips answer MTD_NORFLASH, msys chips MTD_NANDFLASH (write
//   size 512); size = partition size, erasesize = erase block size.
// - set extent (NOR only): base and size block-aligned, size > 0, the range
//   inside the chip, else EINVAL. Only the view moves. Each partition the new
//   extent overlaps is written to the trace as "overlap mtdA mtdB".
// - set FIS entry (NOR only): only on the FIS directory device (else EINVAL).
//   The record with that name, among the 256-byte records before the first
//   one beginning with 0xFF, gets the new flash_base, size and data_length
//   (big-endian); ENOENT when there is none. The erase block holding the
//   record is read, erased and programmed again, so a locked block gives EIO
//   and a worn block corrupts it.
// - msys get table: 8 pairs {size, data length} in host byte order, 0,0 for
//   partitions that do not exist; answered on every device.
// - msys format: the unit count must be 967 (EINVAL); erases the whole chip,
//   clears every lock bit and sets every data length to 0.
// - msys partition: 8 block counts of 16384 bytes; the partitions are laid
//   one after another from the chip's start (a count of 0 leaves that index
//   without a partition); their total must fit the chip (EINVAL); data
//   lengths start at 0; partition names are kept by index ("mtdN" for new
//   ones). Nothing is erased.
// - Requests of the other kind of chip (set extent and set FIS entry on msys,
//   get table, format and partition on NOR) fail with ENOTTY.
//
// Trace (trace.log), one line per operation:
//   "<op> <mtdN|-> <offset> <length> <result>"
// offset as 0x%08x (set-extent, set-fis: the new flash base); length in
// decimal bytes for open (0), read and write (bytes transferred, or asked
// for when failing), getinfo (0) and get-table (64), in 0x%08x for erase,
// lock, unlock, set-extent, set-fis (the new size) and partition (the total);
// format gives its unit count in decimal. Result "ok" or the errno name.
// Also "overlap mtdA mtdB" (after set-extent) and "mark <text>".
//
// Control commands (Control(), the .control file and the faults file):
//   flash-type                         "OK <word>" (default 1 on msys, 0 on NOR)
//   set flash-type <word> | set flash-type errno <E>
//   driver-buffer take|give            "OK" or "ERR <errno>"
//   set driver-buffer ok | set driver-buffer errno <E>
//   msys-format <units>
//   msys-partition c0 c1 c2 c3 c4 c5 c6 c7
//   fault <op> <mtdN|all> nth=<N> errno=<E>   the Nth later <op> there fails
//   fault <op> <mtdN|all> every errno=<E>     every later one fails
//   fault corrupt-next-write <mtdN|all>        one bit of the next write is
//                                              flipped as programmed
//   fault worn-block <mtdN> <offset>           the erase block at that offset
//                                              (fixed on the chip when given)
//                                              keeps bit 0 of every byte at 1
//                                              whenever it is programmed
//   fault power-cut after=<N>                  after N more operations every
//                                              operation fails with EIO
//   fault clear                                removes every fault
//   trace <text>                               "mark <text>" in trace.log
// <op> is open, read, write, erase, lock, unlock, set-extent, set-fis,
// get-table, format, partition or getinfo; format and partition concern the
// whole chip, so their faults fire whatever device they name. Errno values
// are numbers or names (EIO, ENOSYS, EINVAL, ...). Answers are "OK\n",
// "OK <values>\n" or "ERR <errno>\n"; a malformed command answers "ERR 22".
// The flipped bit of corrupt-next-write is, on NOR, the lowest 1 bit of the
// first byte of the written range whose old content is not 0 (so the result
// differs); on msys bit 0 of the first byte.
// Every operation, failed or not, counts for nth= and for the power cut;
// control commands other than msys-format and msys-partition keep working
// after the cut, so "fault clear" turns the power back on.
//
// Fault plan file ("faults"): the "fault" and "set" commands, one per line,
// applied in order when the chip is opened. Every such command given later
// is appended to it; "fault clear" drops its "fault" lines. Counters (nth,
// power cut) start again from the file at every open.
#ifndef SIM_FLASH_CHIP_H_
#define SIM_FLASH_CHIP_H_

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "sim/flash_state.h"

namespace flashsim {

constexpr uint32_t kMSysUnitSize = 16384;
constexpr uint32_t kMSysUnits = 967;
constexpr int kMSysPartitions = 8;

// Operations, as named in the trace and in fault commands.
enum class Op {
  kOpen,
  kRead,
  kWrite,
  kErase,
  kLock,
  kUnlock,
  kSetExtent,
  kSetFis,
  kGetTable,
  kFormat,
  kPartition,
  kGetInfo,
};

const char* OpName(Op op);
bool ParseOp(const std::string& text, Op* op);

// "EIO", "ENOSPC", ... for the errno values a flash driver gives; other
// values as decimal numbers.
std::string ErrnoName(int value);
// A decimal number or one of the names ErrnoName gives; false otherwise.
bool ParseErrno(const std::string& text, int* value);

// The fields of the kernel's struct mtd_info_user that the chip answers.
struct DeviceInfo {
  uint8_t type = 0;
  uint32_t flags = 0;
  uint32_t size = 0;
  uint32_t erasesize = 0;
  uint32_t writesize = 0;
  uint32_t oobsize = 0;
};

class FlashChip {
 public:
  FlashChip() = default;
  ~FlashChip();
  FlashChip(const FlashChip&) = delete;
  FlashChip& operator=(const FlashChip&) = delete;

  // Loads the state directory and its fault plan; false with a message.
  bool Open(const std::string& dir, std::string* error);
  // Syncs chip.img and closes the state files; false when the sync fails.
  bool Close(std::string* error);

  // Indexes of the partitions that exist now, ascending.
  std::vector<int> Devices() const;
  // The size of the device's view, or -1 when it does not exist.
  int64_t DeviceSize(int device) const;

  int OpenDevice(int device);
  ssize_t Read(int device, uint64_t offset, void* buffer, size_t length);
  ssize_t Write(int device, uint64_t offset, const void* data, size_t length);
  int Erase(int device, uint32_t start, uint32_t length);
  int Lock(int device, uint32_t start, uint32_t length);
  int Unlock(int device, uint32_t start, uint32_t length);
  int GetInfo(int device, DeviceInfo* info);
  int SetExtent(int device, uint32_t flash_base, uint32_t size);
  // `name` is compared with the records' NUL-padded 16-byte name fields.
  int SetFisEntry(int device, const std::string& name, uint32_t flash_base, uint32_t size,
                  uint32_t data_length);
  int GetMSysTable(int device, uint32_t table[2 * kMSysPartitions]);
  int MSysFormat(uint32_t units);
  int MSysPartition(const uint32_t counts[kMSysPartitions]);

  // Runs one control command (a trailing newline is ignored) and returns its
  // answer line, newline included.
  std::string Control(const std::string& line);

  // A copy of the chip as it is now.
  ChipState Snapshot() const;

 private:
  struct FaultRule {
    Op op = Op::kOpen;
    int device = -1;  // -1: every device
    bool every = false;
    uint64_t nth = 0;
    uint64_t seen = 0;
    int error = 0;
  };
  struct Answer {
    int error = 0;  // 0: answer `word` (flash-type) or OK (driver-buffer)
    uint32_t word = 0;
  };

  int BeginLocked(Op op, int device);
  void TraceLocked(Op op, int device, uint64_t offset, const std::string& length, int result);
  void TraceLineLocked(const std::string& line);
  const PartitionLayout* PartitionLocked(int device) const;
  uint32_t ChipOffsetLocked(const PartitionLayout& partition, uint64_t offset) const;
  bool AnyLockedLocked(uint32_t chip_offset, uint64_t length) const;
  bool ProgramLocked(uint32_t chip_offset, const uint8_t* data, size_t length, bool corrupt);
  bool TakeCorruptionLocked(int device);
  bool PersistImageLocked(uint32_t chip_offset, size_t length);
  bool PersistLocksLocked();
  // Saves `next` as the layout and makes it the chip's; false when saving fails.
  bool ChangeLayoutLocked(const ChipLayout& next);
  bool PersistPlanLocked();
  int ChangeLockLocked(Op op, int device, uint32_t start, uint32_t length, bool lock);
  int SetFisEntryLocked(int device, const std::string& name, uint32_t flash_base, uint32_t size,
                        uint32_t data_length);
  int MSysFormatLocked(uint32_t units);
  int MSysPartitionLocked(const uint32_t counts[kMSysPartitions]);
  // Applies one "fault ..." or "set ..." command; 0 or an errno.
  int ApplyPlanCommandLocked(const std::vector<std::string>& words);
  void RecordPlanCommandLocked(const std::vector<std::string>& words);
  int ApplyFaultLocked(const std::vector<std::string>& words);
  int ApplySetLocked(const std::vector<std::string>& words);
  std::string ControlLocked(const std::string& line);

  mutable std::mutex mutex_;
  ChipState state_;
  int image_fd_ = -1;
  int trace_fd_ = -1;

  std::vector<std::string> plan_lines_;
  std::vector<FaultRule> rules_;
  std::vector<int> corrupt_next_write_;  // devices, -1 for all
  std::set<uint32_t> worn_blocks_;       // chip block numbers
  bool power_cut_armed_ = false;
  uint64_t operations_before_cut_ = 0;
  bool power_cut_ = false;
  Answer flash_type_;
  Answer driver_buffer_;
};

}  // namespace flashsim

#endif  // SIM_FLASH_CHIP_H_
