#include "lib/velt_log_ring.h"

#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>

#include "lib/slib_error.h"
#include "lib/velt_log.h"

namespace velt_log_ring {
namespace {

constexpr uint8_t kMagic[4] = {'V', 'E', 'L', 'T'};
constexpr uint32_t kRecordFixedSize = 2 + 4 + 2 + 1 + 4;

void PutU16(std::vector<uint8_t>* out, uint32_t value) {
  out->push_back(static_cast<uint8_t>(value >> 8));
  out->push_back(static_cast<uint8_t>(value));
}

void PutU32(std::vector<uint8_t>* out, uint32_t value) {
  PutU16(out, value >> 16);
  PutU16(out, value & 0xFFFF);
}

uint16_t GetU16(const uint8_t* bytes) { return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]); }

uint32_t GetU32(const uint8_t* bytes) {
  return static_cast<uint32_t>(GetU16(bytes)) << 16 | GetU16(bytes + 2);
}

void PutString(std::vector<uint8_t>* out, const std::string& text) {
  const size_t length = std::min<size_t>(text.size(), VELT_LOG_MAX_STRING);
  PutU16(out, static_cast<uint32_t>(length));
  out->insert(out->end(), text.begin(), text.begin() + static_cast<ptrdiff_t>(length));
}

// Takes one length-prefixed string at `*pos`; false when it runs past `size`.
bool TakeString(const uint8_t* data, size_t size, size_t* pos, std::string* text) {
  if (size - *pos < 2) return false;
  const size_t length = GetU16(data + *pos);
  *pos += 2;
  if (size - *pos < length) return false;
  text->assign(reinterpret_cast<const char*>(data + *pos), length);
  *pos += length;
  return true;
}

bool ReadAt(int fd, uint32_t offset, void* data, size_t count) {
  return pread(fd, data, count, offset) == static_cast<ssize_t>(count);
}

bool WriteAt(int fd, uint32_t offset, const void* data, size_t count) {
  if (pwrite(fd, data, count, offset) == static_cast<ssize_t>(count)) return true;
  syslog(LOG_ERR, "VELTLogWriteByte(): write() error!, input count is [%d]",
         static_cast<int>(count));
  SLIBCErrSet(SLIB_ERR_WRITE);
  return false;
}

// Writes one header offset; logs `message` when that fails.
bool WriteOffset(int fd, uint32_t field, uint32_t value, const char* message) {
  std::vector<uint8_t> bytes;
  PutU32(&bytes, value);
  if (WriteAt(fd, field, bytes.data(), bytes.size())) return true;
  syslog(LOG_ERR, "%s", message);
  return false;
}

bool ReadOffset(int fd, uint32_t field, uint32_t* value) {
  uint8_t bytes[4];
  if (!ReadAt(fd, field, bytes, sizeof(bytes))) return false;
  *value = GetU32(bytes);
  return true;
}

bool FileSize(int fd, uint32_t* size) {
  struct stat status;
  if (fstat(fd, &status) != 0) {
    SLIBCErrSet(SLIB_ERR_READ);
    return false;
  }
  // Compared as 64-bit: a 32-bit off_t would turn UINT32_MAX into -1.
  *size = static_cast<uint32_t>(std::min<int64_t>(status.st_size, UINT32_MAX));
  return true;
}

bool ReadWholeFile(int fd, std::vector<uint8_t>* image) {
  image->clear();
  uint8_t chunk[8192];
  for (;;) {
    const ssize_t count = pread(fd, chunk, sizeof(chunk), static_cast<off_t>(image->size()));
    if (count < 0) {
      SLIBCErrSet(SLIB_ERR_READ);
      return false;
    }
    if (count == 0) return true;
    image->insert(image->end(), chunk, chunk + count);
  }
}

// The open ring file and its header as the writer sees it.
struct Ring {
  int fd;
  uint32_t limit;
  uint32_t file_size;
  uint32_t start;
  uint32_t end;
};

bool WriteEmptyHeader(int fd) {
  if (!WriteAt(fd, 0, kMagic, sizeof(kMagic))) {
    syslog(LOG_ERR, "sdk/veltlog1.c: line 99");
    return false;
  }
  return WriteOffset(fd, kStartOffset, kHeaderSize, "sdk/veltlog1.c: line 104") &&
         WriteOffset(fd, kEndOffset, kHeaderSize, "sdk/veltlog1.c: line 110");
}

// Throws away every record: the file is cut back to an empty header.
bool Restart(Ring* ring) {
  if (ftruncate(ring->fd, kHeaderSize) != 0) {
    SLIBCErrSet(SLIB_ERR_WRITE);
    syslog(LOG_ERR, "sdk/veltlog1.c : line 335");
    return false;
  }
  ring->file_size = kHeaderSize;
  ring->start = ring->end = kHeaderSize;
  return WriteEmptyHeader(ring->fd);
}

bool OffsetInRange(const Ring& ring, uint32_t offset) {
  return offset >= kHeaderSize && offset <= ring.file_size && offset <= ring.limit - kWrapMarkSize;
}

// Reads start and end, initialising a new or foreign file and restarting one
// whose offsets point outside the file or the limit.
bool PrepareHeader(Ring* ring) {
  uint8_t magic[sizeof(kMagic)];
  if (!ReadAt(ring->fd, 0, magic, sizeof(magic)) || memcmp(magic, kMagic, sizeof(magic)) != 0) {
    if (!WriteEmptyHeader(ring->fd)) {
      syslog(LOG_ERR, "sdk/veltlog1.c : line 335");
      return false;
    }
  }
  if (!ReadOffset(ring->fd, kStartOffset, &ring->start) ||
      !ReadOffset(ring->fd, kEndOffset, &ring->end)) {
    ring->start = ring->end = kHeaderSize;
    if (!WriteOffset(ring->fd, kStartOffset, kHeaderSize, "sdk/veltlog1.c: line 104") ||
        !WriteOffset(ring->fd, kEndOffset, kHeaderSize, "sdk/veltlog1.c: line 110")) {
      return false;
    }
  }
  if (!FileSize(ring->fd, &ring->file_size)) return false;
  if (OffsetInRange(*ring, ring->start) && OffsetInRange(*ring, ring->end)) return true;
  syslog(LOG_ERR, "event log header out of range (start %u, end %u, size %u): log restarted",
         ring->start, ring->end, ring->file_size);
  return Restart(ring);
}

enum class Step { kOk, kFailed, kCorrupt };

bool StoreStart(const Ring& ring) {
  return WriteOffset(ring.fd, kStartOffset, ring.start, "sdk/veltlog1.c: line 138");
}

// Length of the record at `offset`; 0 for the wrap mark or the end of the file.
bool LengthAt(const Ring& ring, uint32_t offset, uint32_t* length) {
  *length = 0;
  if (offset + 2 > ring.file_size) return true;
  uint8_t bytes[2];
  if (!ReadAt(ring.fd, offset, bytes, sizeof(bytes))) {
    SLIBCErrSet(SLIB_ERR_READ);
    syslog(LOG_ERR, "sdk/veltlog1.c : lline 349");
    return false;
  }
  *length = GetU16(bytes);
  return true;
}

// Drops the oldest record of a used area ending at `limit`; kCorrupt when its
// length does not fit there.
Step DropOldest(Ring* ring, uint32_t limit) {
  uint32_t length;
  if (!LengthAt(*ring, ring->start, &length)) return Step::kFailed;
  if (length < kMinRecordSize || length > limit - ring->start) return Step::kCorrupt;
  ring->start += length;
  return StoreStart(*ring) ? Step::kOk : Step::kFailed;
}

bool WriteRecord(int fd, uint32_t offset, const std::vector<uint8_t>& record, int line) {
  if (WriteAt(fd, offset, record.data(), record.size())) return true;
  syslog(LOG_ERR, "sdk/veltlog1.c : lline %d", line);
  return false;
}

// Used area wrapped: records from start to the wrap mark, then from 16 to
// end. Drops the oldest until more than the record fits between end and
// start, or until the old part is gone (start back to 16, no longer wrapped).
Step MakeRoomWrapped(Ring* ring, uint32_t length) {
  while (ring->end < ring->start && ring->start - ring->end <= length) {
    uint32_t oldest;
    if (!LengthAt(*ring, ring->start, &oldest)) return Step::kFailed;
    if (oldest == 0) {
      ring->start = kHeaderSize;
      return StoreStart(*ring) ? Step::kOk : Step::kFailed;
    }
    const Step step = DropOldest(ring, ring->file_size);
    if (step != Step::kOk) return step;
  }
  return Step::kOk;
}

// Used area from start to end: the record goes at end when it leaves room
// for the wrap mark, else the mark goes at end and the record at 16, over the
// oldest records. Start must stay strictly beyond the new end, or come back
// to 16 when every old record is gone.
Step AppendUnwrapped(Ring* ring, const std::vector<uint8_t>& record) {
  const uint32_t length = static_cast<uint32_t>(record.size());
  if (ring->limit - kWrapMarkSize - ring->end >= length) {
    if (!WriteRecord(ring->fd, ring->end, record, 410)) return Step::kFailed;
    ring->end += length;
    return Step::kOk;
  }
  const uint8_t mark[kWrapMarkSize] = {0, 0};
  if (!WriteAt(ring->fd, ring->end, mark, sizeof(mark))) {
    syslog(LOG_ERR, "sdk/veltlog1.c : line 371");
    return Step::kFailed;
  }
  const uint32_t wrap = ring->end;
  while (ring->start < wrap && ring->start - kHeaderSize <= length) {
    const Step step = DropOldest(ring, wrap);
    if (step != Step::kOk) return step;
  }
  if (ring->start >= wrap) {
    ring->start = kHeaderSize;
    if (!StoreStart(*ring)) return Step::kFailed;
  }
  if (!WriteRecord(ring->fd, kHeaderSize, record, 432)) return Step::kFailed;
  ring->end = kHeaderSize + length;
  return Step::kOk;
}

Step Append(Ring* ring, const std::vector<uint8_t>& record) {
  const uint32_t length = static_cast<uint32_t>(record.size());
  const Step step = MakeRoomWrapped(ring, length);
  if (step != Step::kOk) return step;
  if (ring->end >= ring->start) return AppendUnwrapped(ring, record);
  if (!WriteRecord(ring->fd, ring->end, record, 410)) return Step::kFailed;
  ring->end += length;
  return Step::kOk;
}

bool StoreEnd(const Ring& ring) {
  if (fsync(ring.fd) != 0) {
    SLIBCErrSet(SLIB_ERR_WRITE);
    syslog(LOG_ERR, "sdk/veltlog1.c : lline %d", 531);
    return false;
  }
  return WriteOffset(ring.fd, kEndOffset, ring.end, "sdk/veltlog1.c: line 160");
}

// Where one record lies in a file image.
struct Span {
  uint32_t offset;
  uint32_t length;
};

// Collects the records from `pos` up to `limit`; with `to_mark`, a zero
// length or too few bytes for a length end the area instead of being errors.
bool CollectArea(const std::vector<uint8_t>& image, uint32_t pos, uint32_t limit, bool to_mark,
                 std::vector<Span>* spans, int* number) {
  Record record;
  while (pos < limit) {
    if (limit - pos < 2) return to_mark;
    const uint32_t length = GetU16(&image[pos]);
    if (length == 0 && to_mark) return true;
    ++*number;
    if (length > limit - pos || !DecodeRecord(&image[pos], length, &record)) return false;
    spans->push_back({pos, length});
    pos += length;
  }
  return true;
}

// The records of a file image, oldest first; false with `*bad_record` set
// (0 for the header) when the image is malformed.
bool CollectRecords(const std::vector<uint8_t>& image, std::vector<Span>* spans, int* bad_record) {
  *bad_record = 0;
  if (image.size() < kHeaderSize || memcmp(image.data(), kMagic, sizeof(kMagic)) != 0) {
    return false;
  }
  const uint32_t size = static_cast<uint32_t>(std::min<size_t>(image.size(), UINT32_MAX));
  const uint32_t start = GetU32(&image[kStartOffset]);
  const uint32_t end = GetU32(&image[kEndOffset]);
  if (start < kHeaderSize || end < kHeaderSize || start > size || end > size) return false;
  if (start <= end) return CollectArea(image, start, end, false, spans, bad_record);
  return CollectArea(image, start, size, true, spans, bad_record) &&
         CollectArea(image, kHeaderSize, end, false, spans, bad_record);
}

}  // namespace

std::vector<uint8_t> EncodeRecord(const Record& record) {
  std::vector<uint8_t> bytes;
  PutU16(&bytes, 0);  // the length, filled in below
  PutU32(&bytes, record.time);
  PutU16(&bytes, record.level);
  bytes.push_back(record.source);
  PutU32(&bytes, record.event);
  PutString(&bytes, record.user);
  PutString(&bytes, record.program);
  for (const std::string& arg : record.args) PutString(&bytes, arg);
  bytes[0] = static_cast<uint8_t>(bytes.size() >> 8);
  bytes[1] = static_cast<uint8_t>(bytes.size());
  return bytes;
}

bool DecodeRecord(const uint8_t* data, size_t size, Record* record) {
  if (size < kMinRecordSize || GetU16(data) != size) return false;
  record->time = GetU32(data + 2);
  record->level = GetU16(data + 6);
  record->source = data[8];
  record->event = GetU32(data + 9);
  size_t pos = kRecordFixedSize;
  if (!TakeString(data, size, &pos, &record->user) ||
      !TakeString(data, size, &pos, &record->program)) {
    return false;
  }
  for (std::string& arg : record->args) {
    if (!TakeString(data, size, &pos, &arg)) return false;
  }
  return pos == size;
}

int AppendRecord(int fd, uint32_t limit, const std::vector<uint8_t>& record) {
  Ring ring = {fd, limit, 0, 0, 0};
  if (limit < kHeaderSize + kWrapMarkSize) ring.limit = kHeaderSize + kWrapMarkSize;
  if (!PrepareHeader(&ring)) return -1;
  if (limit < kHeaderSize + record.size() + kWrapMarkSize) {
    syslog(LOG_ERR, "event log limit %u too small for a record of %zu bytes", limit, record.size());
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  Step step = Append(&ring, record);
  if (step == Step::kCorrupt) {
    syslog(LOG_ERR, "event log record at %u out of range: log restarted", ring.start);
    step = Restart(&ring) ? Append(&ring, record) : Step::kFailed;
  }
  if (step != Step::kOk) return -1;
  return StoreEnd(ring) ? 0 : -1;
}

ReadResult ReadRecords(int fd, std::vector<Record>* records, int* bad_record) {
  records->clear();
  *bad_record = 0;
  std::vector<uint8_t> image;
  if (!ReadWholeFile(fd, &image)) return ReadResult::kIoError;
  std::vector<Span> spans;
  const bool whole = CollectRecords(image, &spans, bad_record);
  for (const Span& span : spans) {
    Record record;
    DecodeRecord(&image[span.offset], span.length, &record);
    records->push_back(std::move(record));
  }
  return whole ? ReadResult::kOk : ReadResult::kMalformed;
}

int ShrinkRing(int fd, uint32_t size) {
  if (size < kHeaderSize) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  uint32_t file_size;
  if (!FileSize(fd, &file_size)) return -1;
  if (file_size <= size) return 0;
  std::vector<uint8_t> image;
  if (!ReadWholeFile(fd, &image)) return -1;
  if (image.size() <= size) return 0;
  std::vector<Span> spans;
  int bad_record;
  if (!CollectRecords(image, &spans, &bad_record)) {
    syslog(LOG_ERR, "event log malformed at record %d: emptied while shrinking", bad_record);
    spans.clear();
  }
  // Keep the newest records that fit, oldest of them first.
  uint32_t used = kHeaderSize + kWrapMarkSize;
  size_t first = spans.size();
  while (first > 0 && used <= size && spans[first - 1].length <= size - used) {
    used += spans[--first].length;
  }

  const uint32_t end = used - kWrapMarkSize;
  std::vector<uint8_t> shrunk(kMagic, kMagic + sizeof(kMagic));
  shrunk.insert(shrunk.end(), image.begin() + sizeof(kMagic), image.begin() + kStartOffset);
  PutU32(&shrunk, kHeaderSize);
  PutU32(&shrunk, end);
  for (size_t i = first; i < spans.size(); ++i) {
    const auto from = image.begin() + spans[i].offset;
    shrunk.insert(shrunk.end(), from, from + spans[i].length);
  }
  if (!WriteAt(fd, 0, shrunk.data(), shrunk.size())) return -1;
  if (ftruncate(fd, end) != 0 || fsync(fd) != 0) {
    SLIBCErrSet(SLIB_ERR_WRITE);
    return -1;
  }
  return 0;
}

}  // namespace velt_log_ring
