#include "sim/flash_chip.h"

#include <errno.h>
#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>

namespace flashsim {
namespace {

constexpr uint8_t kErased = 0xFF;
// Bits that never program on a worn block.
constexpr uint8_t kWornBits = 0x01;
constexpr uint32_t kMSysWriteSize = 512;

struct OpNameEntry {
  Op op;
  const char* name;
};

constexpr OpNameEntry kOpNames[] = {
    {Op::kOpen, "open"},
    {Op::kRead, "read"},
    {Op::kWrite, "write"},
    {Op::kErase, "erase"},
    {Op::kLock, "lock"},
    {Op::kUnlock, "unlock"},
    {Op::kSetExtent, "set-extent"},
    {Op::kSetFis, "set-fis"},
    {Op::kGetTable, "get-table"},
    {Op::kFormat, "format"},
    {Op::kPartition, "partition"},
    {Op::kGetInfo, "getinfo"},
};

struct ErrnoEntry {
  int value;
  const char* name;
};

constexpr ErrnoEntry kErrnoNames[] = {
    {EPERM, "EPERM"},     {ENOENT, "ENOENT"},       {EINTR, "EINTR"},
    {EIO, "EIO"},         {ENXIO, "ENXIO"},         {EBADF, "EBADF"},
    {EAGAIN, "EAGAIN"},   {ENOMEM, "ENOMEM"},       {EACCES, "EACCES"},
    {EFAULT, "EFAULT"},   {EBUSY, "EBUSY"},         {EEXIST, "EEXIST"},
    {ENODEV, "ENODEV"},   {EINVAL, "EINVAL"},       {ENOTTY, "ENOTTY"},
    {EFBIG, "EFBIG"},     {ENOSPC, "ENOSPC"},       {EROFS, "EROFS"},
    {ENOSYS, "ENOSYS"},   {ETIMEDOUT, "ETIMEDOUT"}, {EOPNOTSUPP, "EOPNOTSUPP"},
    {EBADMSG, "EBADMSG"}, {EUCLEAN, "EUCLEAN"},
};

std::vector<std::string> SplitWords(const std::string& line) {
  std::vector<std::string> words;
  std::istringstream stream(line);
  std::string word;
  while (stream >> word) words.push_back(word);
  return words;
}

std::string JoinWords(const std::vector<std::string>& words) {
  std::string line;
  for (const std::string& word : words) {
    if (!line.empty()) line += ' ';
    line += word;
  }
  return line;
}

// A decimal or 0x-prefixed number, the whole text.
bool ParseNumber(const std::string& text, uint64_t* value) {
  if (text.empty() || text[0] == '-' || text[0] == '+') return false;
  errno = 0;
  char* end = nullptr;
  unsigned long long parsed = strtoull(text.c_str(), &end, 0);
  if (errno != 0 || end == text.c_str() || *end != '\0') return false;
  *value = parsed;
  return true;
}

bool ParseNumber32(const std::string& text, uint32_t* value) {
  uint64_t parsed = 0;
  if (!ParseNumber(text, &parsed) || parsed > UINT32_MAX) return false;
  *value = static_cast<uint32_t>(parsed);
  return true;
}

// "mtdN" gives N, "all" gives -1 (when allowed).
bool ParseDevice(const std::string& text, bool allow_all, int* device) {
  if (allow_all && text == "all") {
    *device = -1;
    return true;
  }
  if (text.size() < 4 || text.compare(0, 3, "mtd") != 0) return false;
  for (size_t i = 3; i < text.size(); ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
  }
  uint64_t index = 0;
  if (!ParseNumber(text.substr(3), &index) || index > 255) return false;
  *device = static_cast<int>(index);
  return true;
}

// "key=value" with the given key; the value in *value.
bool TakeKeyValue(const std::string& word, const char* key, std::string* value) {
  size_t key_length = strlen(key);
  if (word.size() <= key_length + 1 || word.compare(0, key_length, key) != 0 ||
      word[key_length] != '=') {
    return false;
  }
  *value = word.substr(key_length + 1);
  return true;
}

std::string Hex(uint64_t value) {
  char text[24];
  snprintf(text, sizeof(text), "0x%08llx", static_cast<unsigned long long>(value));
  return text;
}

std::string Decimal(uint64_t value) { return std::to_string(value); }

std::string DeviceName(int device) {
  return device < 0 ? std::string("-") : "mtd" + std::to_string(device);
}

bool WriteAll(int fd, const void* data, size_t length, off_t offset) {
  const uint8_t* bytes = static_cast<const uint8_t*>(data);
  while (length > 0) {
    ssize_t written = pwrite(fd, bytes, length, offset);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes += written;
    length -= static_cast<size_t>(written);
    offset += written;
  }
  return true;
}

// Replaces `path` with `content` through a temporary file and rename, so a
// reader sees either the old or the new file.
bool ReplaceFile(const std::string& path, const std::string& content) {
  std::string temporary = path + ".new";
  int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  bool written = WriteAll(fd, content.data(), content.size(), 0);
  bool closed = close(fd) == 0;
  if (!written || !closed || rename(temporary.c_str(), path.c_str()) != 0) {
    unlink(temporary.c_str());
    return false;
  }
  return true;
}

bool RangesOverlap(uint64_t base_a, uint64_t size_a, uint64_t base_b, uint64_t size_b) {
  return size_a > 0 && size_b > 0 && base_a < base_b + size_b && base_b < base_a + size_a;
}

std::string ErrorAnswer(int error) { return "ERR " + std::to_string(error) + "\n"; }

}  // namespace

const char* OpName(Op op) {
  for (const OpNameEntry& entry : kOpNames) {
    if (entry.op == op) return entry.name;
  }
  return "?";
}

bool ParseOp(const std::string& text, Op* op) {
  for (const OpNameEntry& entry : kOpNames) {
    if (text == entry.name) {
      *op = entry.op;
      return true;
    }
  }
  return false;
}

std::string ErrnoName(int value) {
  for (const ErrnoEntry& entry : kErrnoNames) {
    if (entry.value == value) return entry.name;
  }
  return std::to_string(value);
}

bool ParseErrno(const std::string& text, int* value) {
  for (const ErrnoEntry& entry : kErrnoNames) {
    if (text == entry.name) {
      *value = entry.value;
      return true;
    }
  }
  uint64_t number = 0;
  if (!ParseNumber(text, &number) || number == 0 || number > 4095) return false;
  *value = static_cast<int>(number);
  return true;
}

FlashChip::~FlashChip() { Close(nullptr); }

bool FlashChip::Open(const std::string& dir, std::string* error) {
  std::lock_guard<std::mutex> guard(mutex_);
  if (!LoadState(dir, &state_, error)) return false;
  const ChipLayout& layout = state_.layout;
  if (state_.image.size() != layout.chip_size || layout.erase_size == 0) {
    *error = dir + ": chip.img does not match the layout";
    return false;
  }
  state_.locked.resize(layout.BlockCount(), 0);
  image_fd_ = open((dir + "/chip.img").c_str(), O_RDWR | O_CLOEXEC);
  if (image_fd_ < 0) {
    *error = dir + "/chip.img: " + strerror(errno);
    return false;
  }
  trace_fd_ = open((dir + "/trace.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (trace_fd_ < 0) {
    *error = dir + "/trace.log: " + strerror(errno);
    return false;
  }
  flash_type_ = Answer{0, layout.kind == ChipKind::kMSys ? 1u : 0u};

  std::ifstream plan(dir + "/faults");
  std::string line;
  for (int number = 1; std::getline(plan, line); ++number) {
    std::vector<std::string> words = SplitWords(line);
    if (words.empty() || words[0][0] == '#') continue;
    if ((words[0] != "fault" && words[0] != "set") || ApplyPlanCommandLocked(words) != 0) {
      *error = dir + "/faults:" + std::to_string(number) + ": bad command: " + line;
      return false;
    }
    RecordPlanCommandLocked(words);
  }
  return true;
}

bool FlashChip::Close(std::string* error) {
  std::lock_guard<std::mutex> guard(mutex_);
  bool synced = true;
  if (image_fd_ >= 0) {
    synced = fsync(image_fd_) == 0;
    if (!synced && error != nullptr) *error = std::string("chip.img: ") + strerror(errno);
    close(image_fd_);
    image_fd_ = -1;
  }
  if (trace_fd_ >= 0) {
    close(trace_fd_);
    trace_fd_ = -1;
  }
  return synced;
}

std::vector<int> FlashChip::Devices() const {
  std::lock_guard<std::mutex> guard(mutex_);
  std::vector<int> devices;
  for (const PartitionLayout& partition : state_.layout.partitions) {
    devices.push_back(partition.index);
  }
  std::sort(devices.begin(), devices.end());
  return devices;
}

int64_t FlashChip::DeviceSize(int device) const {
  std::lock_guard<std::mutex> guard(mutex_);
  const PartitionLayout* partition = PartitionLocked(device);
  return partition == nullptr ? -1 : static_cast<int64_t>(partition->size);
}

ChipState FlashChip::Snapshot() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return state_;
}

const PartitionLayout* FlashChip::PartitionLocked(int device) const {
  return state_.layout.Find(device);
}

uint32_t FlashChip::ChipOffsetLocked(const PartitionLayout& partition, uint64_t offset) const {
  return static_cast<uint32_t>(partition.base - state_.layout.chip_base + offset);
}

bool FlashChip::AnyLockedLocked(uint32_t chip_offset, uint64_t length) const {
  if (length == 0) return false;
  uint32_t erase_size = state_.layout.erase_size;
  uint64_t last = (chip_offset + length - 1) / erase_size;
  for (uint64_t block = chip_offset / erase_size; block <= last; ++block) {
    if (state_.locked[block] != 0) return true;
  }
  return false;
}

// Counts the operation against the power cut and the fault plan; the errno
// it must fail with, or 0.
int FlashChip::BeginLocked(Op op, int device) {
  if (power_cut_) return EIO;
  if (power_cut_armed_) {
    if (operations_before_cut_ == 0) {
      power_cut_ = true;
      return EIO;
    }
    --operations_before_cut_;
  }
  int error = 0;
  for (FaultRule& rule : rules_) {
    if (rule.op != op || (rule.device >= 0 && device >= 0 && rule.device != device)) continue;
    bool fires = rule.every || ++rule.seen == rule.nth;
    if (fires && error == 0) error = rule.error;
  }
  return error;
}

void FlashChip::TraceLineLocked(const std::string& line) {
  if (trace_fd_ < 0) return;
  std::string text = line + "\n";
  if (write(trace_fd_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    fprintf(stderr, "filebay-flashsim: cannot write trace.log: %s\n", strerror(errno));
  }
}

void FlashChip::TraceLocked(Op op, int device, uint64_t offset, const std::string& length,
                            int result) {
  TraceLineLocked(std::string(OpName(op)) + " " + DeviceName(device) + " " + Hex(offset) + " " +
                  length + " " + (result == 0 ? std::string("ok") : ErrnoName(result)));
}

bool FlashChip::PersistImageLocked(uint32_t chip_offset, size_t length) {
  if (WriteAll(image_fd_, &state_.image[chip_offset], length, chip_offset)) return true;
  fprintf(stderr, "filebay-flashsim: cannot write chip.img: %s\n", strerror(errno));
  return false;
}

bool FlashChip::PersistLocksLocked() {
  std::string text;
  for (uint8_t locked : state_.locked) text += locked != 0 ? '1' : '0';
  if (ReplaceFile(state_.dir + "/locks", text)) return true;
  fprintf(stderr, "filebay-flashsim: cannot write locks: %s\n", strerror(errno));
  return false;
}

bool FlashChip::ChangeLayoutLocked(const ChipLayout& next) {
  std::string error;
  if (!SaveLayout(state_.dir, next, &error)) {
    fprintf(stderr, "filebay-flashsim: %s\n", error.c_str());
    return false;
  }
  state_.layout = next;
  return true;
}

bool FlashChip::PersistPlanLocked() {
  std::string text;
  for (const std::string& line : plan_lines_) text += line + "\n";
  return ReplaceFile(state_.dir + "/faults", text);
}

bool FlashChip::TakeCorruptionLocked(int device) {
  for (auto it = corrupt_next_write_.begin(); it != corrupt_next_write_.end(); ++it) {
    if (*it < 0 || *it == device) {
      corrupt_next_write_.erase(it);
      return true;
    }
  }
  return false;
}

// Programs `length` bytes at `chip_offset`: NOR flash can only clear bits,
// the flash disk replaces the bytes.
bool FlashChip::ProgramLocked(uint32_t chip_offset, const uint8_t* data, size_t length,
                              bool corrupt) {
  if (length == 0) return true;
  bool nor = state_.layout.kind == ChipKind::kNor;
  uint8_t* chip = &state_.image[chip_offset];
  std::vector<uint8_t> bytes(data, data + length);
  if (corrupt) {
    size_t at = 0;
    uint8_t bit = 0x01;
    for (size_t i = 0; nor && i < length; ++i) {
      if (chip[i] != 0) {
        at = i;
        bit = static_cast<uint8_t>(chip[i] & -chip[i]);
        break;
      }
    }
    bytes[at] ^= bit;
  }
  if (!worn_blocks_.empty()) {
    uint32_t erase_size = state_.layout.erase_size;
    for (size_t i = 0; i < length; ++i) {
      if (worn_blocks_.count((chip_offset + i) / erase_size) != 0) bytes[i] |= kWornBits;
    }
  }
  for (size_t i = 0; i < length; ++i) chip[i] = nor ? (chip[i] & bytes[i]) : bytes[i];
  return PersistImageLocked(chip_offset, length);
}

int FlashChip::OpenDevice(int device) {
  std::lock_guard<std::mutex> guard(mutex_);
  int error = PartitionLocked(device) == nullptr ? ENODEV : BeginLocked(Op::kOpen, device);
  TraceLocked(Op::kOpen, device, 0, "0", error);
  return -error;
}

ssize_t FlashChip::Read(int device, uint64_t offset, void* buffer, size_t length) {
  std::lock_guard<std::mutex> guard(mutex_);
  const PartitionLayout* partition = PartitionLocked(device);
  int error = partition == nullptr ? ENODEV : BeginLocked(Op::kRead, device);
  size_t done = 0;
  if (error == 0 && offset < partition->size) {
    done = static_cast<size_t>(std::min<uint64_t>(length, partition->size - offset));
    if (done > 0) memcpy(buffer, &state_.image[ChipOffsetLocked(*partition, offset)], done);
  }
  TraceLocked(Op::kRead, device, offset, Decimal(error != 0 ? length : done), error);
  return error != 0 ? -error : static_cast<ssize_t>(done);
}

ssize_t FlashChip::Write(int device, uint64_t offset, const void* data, size_t length) {
  std::lock_guard<std::mutex> guard(mutex_);
  const PartitionLayout* partition = PartitionLocked(device);
  int error = partition == nullptr ? ENODEV : BeginLocked(Op::kWrite, device);
  size_t done = 0;
  if (error == 0 && length > 0) {
    if (offset >= partition->size) {
      error = ENOSPC;
    } else {
      done = static_cast<size_t>(std::min<uint64_t>(length, partition->size - offset));
      uint32_t chip_offset = ChipOffsetLocked(*partition, offset);
      if (AnyLockedLocked(chip_offset, done)) {
        error = EIO;
      } else if (!ProgramLocked(chip_offset, static_cast<const uint8_t*>(data), done,
                                TakeCorruptionLocked(device))) {
        error = EIO;
      } else if (state_.layout.kind == ChipKind::kMSys && offset + done > partition->data_length) {
        ChipLayout next = state_.layout;
        next.Find(device)->data_length = static_cast<uint32_t>(offset + done);
        next.Find(device)->has_data_length = true;
        if (!ChangeLayoutLocked(next)) error = EIO;
      }
    }
  }
  TraceLocked(Op::kWrite, device, offset, Decimal(error != 0 ? length : done), error);
  return error != 0 ? -error : static_cast<ssize_t>(done);
}

int FlashChip::Erase(int device, uint32_t start, uint32_t length) {
  std::lock_guard<std::mutex> guard(mutex_);
  const PartitionLayout* partition = PartitionLocked(device);
  int error = partition == nullptr ? ENODEV : BeginLocked(Op::kErase, device);
  if (error == 0) {
    uint32_t erase_size = state_.layout.erase_size;
    if (start % erase_size != 0 || length % erase_size != 0 ||
        static_cast<uint64_t>(start) + length > partition->size) {
      error = EINVAL;
    } else if (length > 0) {
      uint32_t chip_offset = ChipOffsetLocked(*partition, start);
      if (AnyLockedLocked(chip_offset, length)) {
        error = EIO;
      } else {
        memset(&state_.image[chip_offset], kErased, length);
        if (!PersistImageLocked(chip_offset, length)) error = EIO;
      }
    }
  }
  TraceLocked(Op::kErase, device, start, Hex(length), error);
  return -error;
}

int FlashChip::Lock(int device, uint32_t start, uint32_t length) {
  std::lock_guard<std::mutex> guard(mutex_);
  return -ChangeLockLocked(Op::kLock, device, start, length, true);
}

int FlashChip::Unlock(int device, uint32_t start, uint32_t length) {
  std::lock_guard<std::mutex> guard(mutex_);
  return -ChangeLockLocked(Op::kUnlock, device, start, length, false);
}

int FlashChip::ChangeLockLocked(Op op, int device, uint32_t start, uint32_t length, bool lock) {
  const PartitionLayout* partition = PartitionLocked(device);
  int error = partition == nullptr ? ENODEV : BeginLocked(op, device);
  if (error == 0) {
    if (static_cast<uint64_t>(start) + length > partition->size) {
      error = EINVAL;
    } else if (length > 0) {
      uint32_t erase_size = state_.layout.erase_size;
      uint32_t chip_offset = ChipOffsetLocked(*partition, start);
      uint32_t last = (chip_offset + length - 1) / erase_size;
      for (uint32_t block = chip_offset / erase_size; block <= last; ++block) {
        state_.locked[block] = lock ? 1 : 0;
      }
      if (!PersistLocksLocked()) error = EIO;
    }
  }
  TraceLocked(op, device, start, Hex(length), error);
  return error;
}

int FlashChip::GetInfo(int device, DeviceInfo* info) {
  std::lock_guard<std::mutex> guard(mutex_);
  const PartitionLayout* partition = PartitionLocked(device);
  int error = partition == nullptr ? ENODEV : BeginLocked(Op::kGetInfo, device);
  if (error == 0) {
    bool nor = state_.layout.kind == ChipKind::kNor;
    *info = DeviceInfo();
    info->type = nor ? MTD_NORFLASH : MTD_NANDFLASH;
    info->flags = nor ? MTD_CAP_NORFLASH : MTD_CAP_NANDFLASH;
    info->size = partition->size;
    info->erasesize = state_.layout.erase_size;
    info->writesize = nor ? 1 : kMSysWriteSize;
  }
  TraceLocked(Op::kGetInfo, device, 0, "0", error);
  return -error;
}

int FlashChip::SetExtent(int device, uint32_t flash_base, uint32_t size) {
  std::lock_guard<std::mutex> guard(mutex_);
  const ChipLayout& layout = state_.layout;
  int error = PartitionLocked(device) == nullptr ? ENODEV : BeginLocked(Op::kSetExtent, device);
  if (error == 0) {
    if (layout.kind != ChipKind::kNor) {
      error = ENOTTY;
    } else if (flash_base < layout.chip_base || size == 0 ||
               (flash_base - layout.chip_base) % layout.erase_size != 0 ||
               size % layout.erase_size != 0 ||
               static_cast<uint64_t>(flash_base - layout.chip_base) + size > layout.chip_size) {
      error = EINVAL;
    } else {
      ChipLayout next = layout;
      next.Find(device)->base = flash_base;
      next.Find(device)->size = size;
      if (!ChangeLayoutLocked(next)) error = EIO;
    }
  }
  TraceLocked(Op::kSetExtent, device, flash_base, Hex(size), error);
  if (error != 0) return -error;
  for (const PartitionLayout& other : state_.layout.partitions) {
    if (other.index != device && RangesOverlap(flash_base, size, other.base, other.size)) {
      TraceLineLocked("overlap " + DeviceName(device) + " " + DeviceName(other.index));
    }
  }
  return 0;
}

int FlashChip::SetFisEntry(int device, const std::string& name, uint32_t flash_base, uint32_t size,
                           uint32_t data_length) {
  std::lock_guard<std::mutex> guard(mutex_);
  int error = SetFisEntryLocked(device, name, flash_base, size, data_length);
  TraceLocked(Op::kSetFis, device, flash_base, Hex(size), error);
  return -error;
}

// Rewrites the record the way the driver does: read the erase block that
// holds it, erase the block, program the changed copy back.
int FlashChip::SetFisEntryLocked(int device, const std::string& name, uint32_t flash_base,
                                 uint32_t size, uint32_t data_length) {
  const PartitionLayout* partition = PartitionLocked(device);
  if (partition == nullptr) return ENODEV;
  int error = BeginLocked(Op::kSetFis, device);
  if (error != 0) return error;
  if (state_.layout.kind != ChipKind::kNor) return ENOTTY;
  if (device != state_.layout.fis_device) return EINVAL;

  uint32_t directory = ChipOffsetLocked(*partition, 0);
  size_t records = partition->size / kFisRecordSize;
  int64_t found = -1;
  for (size_t i = 0; i < records; ++i) {
    const uint8_t* record = &state_.image[directory + i * kFisRecordSize];
    if (record[0] == kErased) break;
    const char* field = reinterpret_cast<const char*>(record);
    if (std::string(field, strnlen(field, kFisNameSize)) == name) {
      found = static_cast<int64_t>(i);
      break;
    }
  }
  if (found < 0) return ENOENT;

  uint32_t erase_size = state_.layout.erase_size;
  uint32_t record_offset = directory + static_cast<uint32_t>(found) * kFisRecordSize;
  uint32_t block_start = record_offset / erase_size * erase_size;
  // The driver rewrites its directory itself: it unlocks the block around
  // the rewrite and leaves the lock bits as they were, so a locked
  // directory (as the boot loader's repair leaves it) can still be updated.
  std::vector<uint8_t> block(state_.image.begin() + block_start,
                             state_.image.begin() + block_start + erase_size);
  uint8_t* record = &block[record_offset - block_start];
  WriteBigEndian32(flash_base, record + kFisFlashBase);
  WriteBigEndian32(size, record + kFisSize);
  WriteBigEndian32(data_length, record + kFisDataLength);
  memset(&state_.image[block_start], kErased, erase_size);
  return ProgramLocked(block_start, block.data(), block.size(), false) ? 0 : EIO;
}

int FlashChip::GetMSysTable(int device, uint32_t table[2 * kMSysPartitions]) {
  std::lock_guard<std::mutex> guard(mutex_);
  int error = PartitionLocked(device) == nullptr ? ENODEV : BeginLocked(Op::kGetTable, device);
  if (error == 0 && state_.layout.kind != ChipKind::kMSys) error = ENOTTY;
  if (error == 0) {
    for (int i = 0; i < kMSysPartitions; ++i) {
      const PartitionLayout* partition = PartitionLocked(i);
      table[2 * i] = partition == nullptr ? 0 : partition->size;
      table[2 * i + 1] = partition == nullptr ? 0 : partition->data_length;
    }
  }
  TraceLocked(Op::kGetTable, device, 0, Decimal(2 * kMSysPartitions * sizeof(uint32_t)), error);
  return -error;
}

int FlashChip::MSysFormat(uint32_t units) {
  std::lock_guard<std::mutex> guard(mutex_);
  return -MSysFormatLocked(units);
}

int FlashChip::MSysFormatLocked(uint32_t units) {
  int error = BeginLocked(Op::kFormat, -1);
  if (error == 0) {
    if (state_.layout.kind != ChipKind::kMSys) {
      error = ENOTTY;
    } else if (units != kMSysUnits) {
      error = EINVAL;
    } else {
      std::fill(state_.image.begin(), state_.image.end(), kErased);
      std::fill(state_.locked.begin(), state_.locked.end(), 0);
      ChipLayout next = state_.layout;
      for (PartitionLayout& partition : next.partitions) {
        partition.data_length = 0;
        partition.has_data_length = true;
      }
      if (!PersistImageLocked(0, state_.image.size()) || !PersistLocksLocked() ||
          !ChangeLayoutLocked(next)) {
        error = EIO;
      }
    }
  }
  TraceLocked(Op::kFormat, -1, 0, Decimal(units), error);
  return error;
}

int FlashChip::MSysPartition(const uint32_t counts[kMSysPartitions]) {
  std::lock_guard<std::mutex> guard(mutex_);
  return -MSysPartitionLocked(counts);
}

int FlashChip::MSysPartitionLocked(const uint32_t counts[kMSysPartitions]) {
  uint64_t total = 0;
  for (int i = 0; i < kMSysPartitions; ++i) total += uint64_t{counts[i]} * kMSysUnitSize;
  int error = BeginLocked(Op::kPartition, -1);
  if (error == 0) {
    if (state_.layout.kind != ChipKind::kMSys) {
      error = ENOTTY;
    } else if (total > state_.layout.chip_size) {
      error = EINVAL;
    } else {
      ChipLayout next = state_.layout;
      next.partitions.clear();
      uint32_t base = state_.layout.chip_base;
      for (int i = 0; i < kMSysPartitions; ++i) {
        if (counts[i] == 0) continue;
        const PartitionLayout* old = state_.layout.Find(i);
        PartitionLayout partition;
        partition.index = i;
        partition.name = old != nullptr ? old->name : "mtd" + std::to_string(i);
        partition.base = base;
        partition.mem_base = base;
        partition.size = counts[i] * kMSysUnitSize;
        partition.has_data_length = true;
        next.partitions.push_back(partition);
        base += partition.size;
      }
      if (!ChangeLayoutLocked(next)) error = EIO;
    }
  }
  TraceLocked(Op::kPartition, -1, 0, Hex(total), error);
  return error;
}

std::string FlashChip::Control(const std::string& line) {
  std::lock_guard<std::mutex> guard(mutex_);
  return ControlLocked(line);
}

std::string FlashChip::ControlLocked(const std::string& line) {
  std::vector<std::string> words = SplitWords(line);
  if (words.empty()) return ErrorAnswer(EINVAL);
  const std::string& command = words[0];
  if (command == "flash-type" && words.size() == 1) {
    if (flash_type_.error != 0) return ErrorAnswer(flash_type_.error);
    return "OK " + std::to_string(flash_type_.word) + "\n";
  }
  if (command == "driver-buffer" && words.size() == 2 &&
      (words[1] == "take" || words[1] == "give")) {
    return driver_buffer_.error != 0 ? ErrorAnswer(driver_buffer_.error) : "OK\n";
  }
  int error = EINVAL;
  if (command == "msys-format" && words.size() == 2) {
    uint32_t units = 0;
    if (ParseNumber32(words[1], &units)) error = MSysFormatLocked(units);
  } else if (command == "msys-partition" && words.size() == 1 + kMSysPartitions) {
    uint32_t counts[kMSysPartitions];
    bool parsed = true;
    for (int i = 0; i < kMSysPartitions; ++i)
      parsed = parsed && ParseNumber32(words[i + 1], &counts[i]);
    if (parsed) error = MSysPartitionLocked(counts);
  } else if (command == "fault" || command == "set") {
    error = ApplyPlanCommandLocked(words);
    if (error == 0) {
      RecordPlanCommandLocked(words);
      if (!PersistPlanLocked()) error = EIO;
    }
  } else if (command == "trace" && words.size() > 1) {
    size_t start = line.find_first_not_of(" \t", line.find("trace") + 5);
    size_t end = line.find_last_not_of(" \t\r\n");
    TraceLineLocked("mark " + line.substr(start, end + 1 - start));
    error = 0;
  }
  return error == 0 ? "OK\n" : ErrorAnswer(error);
}

int FlashChip::ApplyPlanCommandLocked(const std::vector<std::string>& words) {
  return words[0] == "fault" ? ApplyFaultLocked(words) : ApplySetLocked(words);
}

void FlashChip::RecordPlanCommandLocked(const std::vector<std::string>& words) {
  if (words.size() == 2 && words[0] == "fault" && words[1] == "clear") {
    plan_lines_.erase(
        std::remove_if(plan_lines_.begin(), plan_lines_.end(),
                       [](const std::string& line) { return line.compare(0, 6, "fault ") == 0; }),
        plan_lines_.end());
    return;
  }
  plan_lines_.push_back(JoinWords(words));
}

int FlashChip::ApplyFaultLocked(const std::vector<std::string>& words) {
  if (words.size() < 2) return EINVAL;
  const std::string& kind = words[1];
  if (kind == "clear" && words.size() == 2) {
    rules_.clear();
    corrupt_next_write_.clear();
    worn_blocks_.clear();
    power_cut_armed_ = false;
    power_cut_ = false;
    operations_before_cut_ = 0;
    return 0;
  }
  std::string value;
  if (kind == "power-cut" && words.size() == 3 && TakeKeyValue(words[2], "after", &value)) {
    uint64_t after = 0;
    if (!ParseNumber(value, &after)) return EINVAL;
    power_cut_armed_ = true;
    power_cut_ = false;
    operations_before_cut_ = after;
    return 0;
  }
  int device = -1;
  if (kind == "corrupt-next-write" && words.size() == 3) {
    if (!ParseDevice(words[2], true, &device)) return EINVAL;
    corrupt_next_write_.push_back(device);
    return 0;
  }
  if (kind == "worn-block" && words.size() == 4) {
    uint64_t offset = 0;
    if (!ParseDevice(words[2], false, &device) || !ParseNumber(words[3], &offset)) return EINVAL;
    const PartitionLayout* partition = PartitionLocked(device);
    if (partition == nullptr || offset >= partition->size) return EINVAL;
    worn_blocks_.insert(ChipOffsetLocked(*partition, offset) / state_.layout.erase_size);
    return 0;
  }
  FaultRule rule;
  if (!ParseOp(kind, &rule.op) || words.size() != 5 || !ParseDevice(words[2], true, &rule.device)) {
    return EINVAL;
  }
  for (size_t i = 3; i < words.size(); ++i) {
    if (words[i] == "every") {
      rule.every = true;
    } else if (TakeKeyValue(words[i], "nth", &value)) {
      if (!ParseNumber(value, &rule.nth) || rule.nth == 0) return EINVAL;
    } else if (TakeKeyValue(words[i], "errno", &value)) {
      if (!ParseErrno(value, &rule.error)) return EINVAL;
    } else {
      return EINVAL;
    }
  }
  if (rule.error == 0 || rule.every == (rule.nth != 0)) return EINVAL;
  rules_.push_back(rule);
  return 0;
}

int FlashChip::ApplySetLocked(const std::vector<std::string>& words) {
  if (words.size() < 3) return EINVAL;
  Answer answer;
  if (words.size() == 4 && words[2] == "errno") {
    if (!ParseErrno(words[3], &answer.error)) return EINVAL;
  } else if (words.size() != 3) {
    return EINVAL;
  } else if (words[1] == "flash-type") {
    if (!ParseNumber32(words[2], &answer.word)) return EINVAL;
  } else if (words[2] != "ok") {
    return EINVAL;
  }
  if (words[1] == "flash-type") {
    flash_type_ = answer;
  } else if (words[1] == "driver-buffer") {
    driver_buffer_ = answer;
  } else {
    return EINVAL;
  }
  return 0;
}

}  // namespace flashsim
