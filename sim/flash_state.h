// The state directory of one simulated flash chip, shared by the FUSE
// simulator (filebay-flashsim), the offline command (filebay-flash) and the
// tests.
//
// A state directory holds:
//   chip.img   every byte of the chip (chip-size bytes; offset 0 is chip-base)
//   layout     the chip's geometry and partitions, in the layout format below
//   locks      one byte per erase block: '1' locked, '0' unlocked
//   faults     the fault plan, one command per line (see flash_chip.h), may be absent
//   trace.log  one line per operation, appended by the simulator
//
// Layout format (text, one statement per line, "#" starts a comment, numbers
// in decimal or 0x hex, names in double quotes when they hold blanks):
//   kind nor|msys
//   chip-base ADDRESS          absolute address of the chip's first byte (msys: 0)
//   chip-size BYTES            a whole number of erase blocks
//   erase-size BYTES           erase block size (msys: 16384)
//   fis-device INDEX           nor: the partition that holds the FIS directory
//   partition INDEX NAME BASE SIZE [data-length=N] [mem-base=N] [entry=N] [image=FILE] [fis=no]
//             [fill=BYTE] [pattern=label|random]
// A partition's BASE is an absolute flash address; its device is /dev/mtdINDEX.
// data-length defaults to the image's size (or 0), mem-base to BASE, entry to
// 0; fis=no keeps the partition out of the FIS directory that `create`
// writes. image= is read by `filebay-flash create` only (a path relative to
// the layout file). For msys, partitions lie one after another in index order
// and data-length is the driver table's data length.
// On nor chips fis-device defaults to the partition named "FIS Directory"; that
// partition's data-length defaults to the size of the directory `create`
// writes into it.
// Instead of image=, `create` can generate the partition's first data-length
// bytes (the whole partition when data-length is not given):
//   fill=BYTE        every byte is BYTE (0..255)
//   pattern=label    16-byte lines "mtdI:OOOOOOOO" padded with '.' to 15
//                    characters and ended by a newline, I the partition index,
//                    O the line's offset in the partition (8 upper-case hex digits)
//   pattern=random   xorshift32 bytes seeded with 0x9E3779B9 * (INDEX + 1),
//                    the low byte of each step
// image=, fill= and pattern= exclude each other; the FIS directory partition
// takes none of them.
#ifndef SIM_FLASH_STATE_H_
#define SIM_FLASH_STATE_H_

#include <stdint.h>

#include <string>
#include <vector>

namespace flashsim {

enum class ChipKind { kNor, kMSys };

struct PartitionLayout {
  int index = 0;
  std::string name;
  uint32_t base = 0;         // absolute flash address
  uint32_t size = 0;         // bytes
  uint32_t data_length = 0;  // bytes of valid data
  uint32_t mem_base = 0;
  uint32_t entry_point = 0;
  bool in_fis = true;
  std::string image;    // create only: image file, relative to the layout file
  int fill = -1;        // create only: fill byte, -1 when not given
  std::string pattern;  // create only: "label", "random" or empty
  bool has_data_length = false;
  bool has_mem_base = false;
};

struct ChipLayout {
  ChipKind kind = ChipKind::kNor;
  uint32_t chip_base = 0;
  uint32_t chip_size = 0;
  uint32_t erase_size = 0;
  int fis_device = -1;                      // nor: index of the FIS directory partition
  std::vector<PartitionLayout> partitions;  // ordered by index

  const PartitionLayout* Find(int index) const;
  PartitionLayout* Find(int index);
  uint32_t BlockCount() const { return erase_size == 0 ? 0 : chip_size / erase_size; }
};

// Parses the layout text; false with a message naming the line on error
// (unknown statement, bad number, missing geometry, a partition outside the
// chip or not block-aligned, a duplicate index).
bool ParseLayout(const std::string& text, ChipLayout* layout, std::string* error);

// The layout as text that ParseLayout reads back to the same layout (images
// left out).
std::string FormatLayout(const ChipLayout& layout);

// RedBoot FIS directory record: 256 bytes, big-endian fields.
constexpr size_t kFisRecordSize = 256;
constexpr size_t kFisNameSize = 16;
// Field offsets inside a record.
constexpr size_t kFisFlashBase = 16;
constexpr size_t kFisMemBase = 20;
constexpr size_t kFisSize = 24;
constexpr size_t kFisEntryPoint = 28;
constexpr size_t kFisDataLength = 32;
constexpr size_t kFisDescCksum = 248;
constexpr size_t kFisFileCksum = 252;

struct FisRecord {
  std::string name;  // at most 15 characters, NUL-padded on flash
  uint32_t flash_base = 0;
  uint32_t mem_base = 0;
  uint32_t size = 0;
  uint32_t entry_point = 0;
  uint32_t data_length = 0;
  uint32_t desc_cksum = 0;
  uint32_t file_cksum = 0;
};

// Encodes into / decodes from exactly 256 bytes (reserved bytes zero).
void EncodeFisRecord(const FisRecord& record, uint8_t out[kFisRecordSize]);
FisRecord DecodeFisRecord(const uint8_t in[kFisRecordSize]);

// The records of a directory image, up to the first record whose first byte
// is 0xFF. `terminated` tells whether such a record was found.
std::vector<FisRecord> DecodeFisDirectory(const std::vector<uint8_t>& directory, bool* terminated);

uint32_t ReadBigEndian32(const uint8_t* bytes);
void WriteBigEndian32(uint32_t value, uint8_t* bytes);

// "0x%08X".
std::string Hex32(uint32_t value);

// Every byte of a file; false with "PATH: reason" on error.
bool ReadWholeFile(const std::string& path, std::vector<uint8_t>* data, std::string* error);

// A loaded state directory.
struct ChipState {
  std::string dir;
  ChipLayout layout;
  std::vector<uint8_t> image;   // chip.img
  std::vector<uint8_t> locked;  // one entry per erase block, 0 or 1
};

bool LoadState(const std::string& dir, ChipState* state, std::string* error);
// Writes layout, chip.img and locks (each through a temporary file and rename).
bool SaveState(const ChipState& state, std::string* error);
bool SaveLayout(const std::string& dir, const ChipLayout& layout, std::string* error);

}  // namespace flashsim

#endif  // SIM_FLASH_STATE_H_
