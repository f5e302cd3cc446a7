#include "updater/fis_record.h"

#include <string.h>

namespace {

constexpr int kFlashBase = 16;
constexpr int kMemBase = 20;
constexpr int kSize = 24;
constexpr int kEntryPoint = 28;
constexpr int kDataLength = 32;
constexpr int kDescCksum = 248;
constexpr int kFileCksum = 252;

uint32_t ReadWord(const unsigned char* record, int offset) {
  const unsigned char* bytes = record + offset;
  return static_cast<uint32_t>(bytes[0]) << 24 | static_cast<uint32_t>(bytes[1]) << 16 |
         static_cast<uint32_t>(bytes[2]) << 8 | static_cast<uint32_t>(bytes[3]);
}

void WriteWord(unsigned char* record, int offset, uint32_t value) {
  unsigned char* bytes = record + offset;
  bytes[0] = static_cast<unsigned char>(value >> 24);
  bytes[1] = static_cast<unsigned char>(value >> 16);
  bytes[2] = static_cast<unsigned char>(value >> 8);
  bytes[3] = static_cast<unsigned char>(value);
}

}  // namespace

const char* UPDTFisName(const unsigned char* record, char* name) {
  // A name of exactly 16 characters fills the field without a terminator.
  const void* end = memchr(record, '\0', FIS_NAME_SIZE);
  const size_t length = end == nullptr
                            ? FIS_NAME_SIZE
                            : static_cast<size_t>(static_cast<const unsigned char*>(end) - record);
  memcpy(name, record, length);
  memset(name + length, '\0', FIS_NAME_SIZE + 1 - length);
  return name;
}

void UPDTFisDecode(const unsigned char* record, FisImageDesc* out) {
  UPDTFisName(record, out->name);
  out->flash_base = ReadWord(record, kFlashBase);
  out->mem_base = ReadWord(record, kMemBase);
  out->size = ReadWord(record, kSize);
  out->entry_point = ReadWord(record, kEntryPoint);
  out->data_length = ReadWord(record, kDataLength);
  out->desc_cksum = ReadWord(record, kDescCksum);
  out->file_cksum = ReadWord(record, kFileCksum);
}

void UPDTFisEncode(const FisImageDesc* desc, unsigned char* record) {
  memset(record, 0, FIS_RECORD_SIZE);
  memcpy(record, desc->name, strnlen(desc->name, FIS_NAME_SIZE));
  WriteWord(record, kFlashBase, desc->flash_base);
  WriteWord(record, kMemBase, desc->mem_base);
  WriteWord(record, kSize, desc->size);
  WriteWord(record, kEntryPoint, desc->entry_point);
  WriteWord(record, kDataLength, desc->data_length);
  WriteWord(record, kDescCksum, desc->desc_cksum);
  WriteWord(record, kFileCksum, desc->file_cksum);
}
