// The boot loader's FIS directory record: 256 bytes, every word big-endian on
// flash whatever the byte order of the machine reading it.
//
//   0 name[16] (NUL-padded)   16 flash_base   20 mem_base   24 size
//  28 entry_point   32 data_length   36 reserved[212]   248 desc_cksum
// 252 file_cksum
#ifndef UPDATER_FIS_RECORD_H_
#define UPDATER_FIS_RECORD_H_

#include <stdint.h>

#define FIS_RECORD_SIZE 256
#define FIS_NAME_SIZE 16

typedef struct {
  char name[FIS_NAME_SIZE + 1];  // always terminated, even for a 16-byte name
  uint32_t flash_base;
  uint32_t mem_base;
  uint32_t size;
  uint32_t entry_point;
  uint32_t data_length;
  uint32_t desc_cksum;
  uint32_t file_cksum;
} FisImageDesc;

// Decodes the record at `record` (FIS_RECORD_SIZE bytes).
void UPDTFisDecode(const unsigned char* record, FisImageDesc* out);

// Encodes `desc` into FIS_RECORD_SIZE bytes at `record`; the reserved bytes
// are zero. A name longer than 16 characters is cut.
void UPDTFisEncode(const FisImageDesc* desc, unsigned char* record);

// The record's name as a terminated string (at most 16 characters) in
// `name` (FIS_NAME_SIZE + 1 bytes); returns `name`.
const char* UPDTFisName(const unsigned char* record, char* name);

#endif  // UPDATER_FIS_RECORD_H_
