#include "updater/fis_record.h"

#include <string.h>

#include <vector>

#include "gtest/gtest.h"

namespace {

FisImageDesc SampleDesc() {
  FisImageDesc desc;
  memset(&desc, 0, sizeof(desc));
  strcpy(desc.name, "RedBoot Config");
  desc.flash_base = 0xFFFE0000;
  desc.mem_base = 0x01020304;
  desc.size = 0x00010000;
  desc.entry_point = 0xA0B0C0D0;
  desc.data_length = 0x00001234;
  desc.desc_cksum = 0x11223344;
  desc.file_cksum = 0xCAFEF00D;
  return desc;
}

std::vector<unsigned char> Bytes(std::initializer_list<unsigned char> bytes) { return bytes; }

std::vector<unsigned char> At(const unsigned char* record, size_t offset, size_t length) {
  return std::vector<unsigned char>(record + offset, record + offset + length);
}

TEST(FisRecord, EncodeWritesEveryWordBigEndianAtItsOffset) {
  FisImageDesc desc = SampleDesc();
  unsigned char record[FIS_RECORD_SIZE];
  memset(record, 0xEE, sizeof(record));
  UPDTFisEncode(&desc, record);

  unsigned char expected[FIS_RECORD_SIZE] = {};
  memcpy(expected, "RedBoot Config", 14);
  const struct {
    size_t offset;
    std::vector<unsigned char> bytes;
  } words[] = {
      {16, Bytes({0xFF, 0xFE, 0x00, 0x00})},  {20, Bytes({0x01, 0x02, 0x03, 0x04})},
      {24, Bytes({0x00, 0x01, 0x00, 0x00})},  {28, Bytes({0xA0, 0xB0, 0xC0, 0xD0})},
      {32, Bytes({0x00, 0x00, 0x12, 0x34})},  {248, Bytes({0x11, 0x22, 0x33, 0x44})},
      {252, Bytes({0xCA, 0xFE, 0xF0, 0x0D})},
  };
  for (const auto& word : words) {
    SCOPED_TRACE(word.offset);
    EXPECT_EQ(word.bytes, At(record, word.offset, 4));
    memcpy(expected + word.offset, word.bytes.data(), 4);
  }
  // Name padding and the reserved bytes are zero: the whole record is known.
  EXPECT_EQ(0, memcmp(expected, record, FIS_RECORD_SIZE));
}

TEST(FisRecord, DecodeReadsWhatEncodeWrote) {
  FisImageDesc desc = SampleDesc();
  unsigned char record[FIS_RECORD_SIZE];
  UPDTFisEncode(&desc, record);
  FisImageDesc back;
  memset(&back, 0x55, sizeof(back));
  UPDTFisDecode(record, &back);
  EXPECT_STREQ("RedBoot Config", back.name);
  EXPECT_EQ(0xFFFE0000u, back.flash_base);
  EXPECT_EQ(0x01020304u, back.mem_base);
  EXPECT_EQ(0x00010000u, back.size);
  EXPECT_EQ(0xA0B0C0D0u, back.entry_point);
  EXPECT_EQ(0x00001234u, back.data_length);
  EXPECT_EQ(0x11223344u, back.desc_cksum);
  EXPECT_EQ(0xCAFEF00Du, back.file_cksum);
}

TEST(FisRecord, DecodeIgnoresTheReservedBytes) {
  unsigned char record[FIS_RECORD_SIZE];
  memset(record, 0xA5, sizeof(record));
  memcpy(record, "zImage\0\0\0\0\0\0\0\0\0\0", 16);
  FisImageDesc desc;
  UPDTFisDecode(record, &desc);
  EXPECT_STREQ("zImage", desc.name);
  EXPECT_EQ(0xA5A5A5A5u, desc.flash_base);
  EXPECT_EQ(0xA5A5A5A5u, desc.data_length);
}

TEST(FisRecord, SixteenCharacterNameWithoutTerminatorDecodesTerminated) {
  unsigned char record[FIS_RECORD_SIZE];
  memset(record, 0, sizeof(record));
  memcpy(record, "ABCDEFGHIJKLMNOP", 16);
  record[16] = 0xFF;  // first byte of flash_base right behind the name
  FisImageDesc desc;
  memset(&desc, 'x', sizeof(desc));
  UPDTFisDecode(record, &desc);
  EXPECT_STREQ("ABCDEFGHIJKLMNOP", desc.name);
  EXPECT_EQ(0xFF000000u, desc.flash_base);

  char name[FIS_NAME_SIZE + 1];
  memset(name, 'x', sizeof(name));
  EXPECT_EQ(name, UPDTFisName(record, name));
  EXPECT_STREQ("ABCDEFGHIJKLMNOP", name);
}

TEST(FisRecord, NameStopsAtTheFirstNulEvenWithBytesBehindIt) {
  unsigned char record[FIS_RECORD_SIZE] = {};
  memcpy(record, "rd.gz\0junk", 10);
  char name[FIS_NAME_SIZE + 1];
  EXPECT_STREQ("rd.gz", UPDTFisName(record, name));
  for (size_t i = 5; i < sizeof(name); ++i) EXPECT_EQ('\0', name[i]) << i;
}

TEST(FisRecord, EncodeCutsANameLongerThanTheField) {
  FisImageDesc desc = SampleDesc();
  memcpy(desc.name, "0123456789abcdefZ", 17);  // 17 characters, no terminator in the struct
  unsigned char record[FIS_RECORD_SIZE];
  UPDTFisEncode(&desc, record);
  EXPECT_EQ(0, memcmp(record, "0123456789abcdef", 16));
  EXPECT_EQ(Bytes({0xFF, 0xFE, 0x00, 0x00}), At(record, 16, 4));
  char name[FIS_NAME_SIZE + 1];
  EXPECT_STREQ("0123456789abcdef", UPDTFisName(record, name));
}

}  // namespace
