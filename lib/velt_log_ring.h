// The ring file under the event logs (layout in lib/velt_log.h): encoding and
// decoding of records, appending with the oldest records dropped to make
// room, reading every record in order, and shrinking. Internal to the event
// log; callers open, lock and close the file themselves.
#ifndef LIB_VELT_LOG_RING_H_
#define LIB_VELT_LOG_RING_H_

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace velt_log_ring {

constexpr uint32_t kHeaderSize = 16;
constexpr uint32_t kStartOffset = 8;
constexpr uint32_t kEndOffset = 12;
// Length, time, level, source, event and six empty strings.
constexpr uint32_t kMinRecordSize = 2 + 4 + 2 + 1 + 4 + 6 * 2;
constexpr uint32_t kWrapMarkSize = 2;

struct Record {
  uint32_t time = 0;
  uint16_t level = 0;
  uint8_t source = 0;
  uint32_t event = 0;
  std::string user;
  std::string program;
  std::string args[4];
};

// The record's bytes, length field included; each string is cut to
// VELT_LOG_MAX_STRING bytes.
std::vector<uint8_t> EncodeRecord(const Record& record);

// Decodes the `size` bytes of one record (length field included). False when
// the length field is not `size` or the strings do not end exactly at `size`.
bool DecodeRecord(const uint8_t* data, size_t size, Record* record);

// Appends `record` (from EncodeRecord) to the ring file open on `fd` whose
// size limit is `limit`, initialising a new, foreign or corrupted file first.
// Logs the failing step; returns 0 or -1.
int AppendRecord(int fd, uint32_t limit, const std::vector<uint8_t>& record);

// Outcome of reading a whole ring file.
enum class ReadResult { kOk, kIoError, kMalformed };

// Every record of the ring file open on `fd`, oldest first. On kMalformed,
// `*bad_record` is the number of the first bad record (1 for the oldest, 0
// when the header itself is bad) and `records` holds the ones before it.
ReadResult ReadRecords(int fd, std::vector<Record>* records, int* bad_record);

// Drops the oldest records until the used part, with room for the wrap mark,
// fits in `size` bytes, moves the rest to offset 16 and truncates the file
// after the last record; a malformed file becomes an empty ring. Does nothing
// when the file is not larger than `size`. Returns 0 or -1.
int ShrinkRing(int fd, uint32_t size);

}  // namespace velt_log_ring

#endif  // LIB_VELT_LOG_RING_H_
