// The flash access calls on a simulated chip mounted by the real simulator
// daemon: what each call leaves on the flash, what it answers and what it
// logs.
#include "sdk/velt_mtd.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
// <mtd/mtd-user.h> needs the _IO* macros of <sys/ioctl.h> first.
#include <mtd/mtd-user.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "lib/slib_error.h"
#include "lib/unique_fd.h"
#include "log_lines.h"
#include "sim/flash_state.h"
#include "sim_test_chips.h"
#include "sim_test_mount.h"
#include "test_support.h"

namespace {

using Lines = std::vector<std::string>;
using sim_test::kFisDevice;
using sim_test::kNorBase;
using sim_test::SameChip;

constexpr uint32_t kBlock = 0x10000;  // erase block of both board layouts
constexpr size_t kStressOffset = 544;
constexpr size_t kStressSize = VELT_MTD_STRESS_DATA_SIZE;

void PutBigEndian(uint32_t value, uint8_t* bytes) {
  for (int i = 0; i < 4; ++i) bytes[i] = static_cast<uint8_t>(value >> (24 - 8 * i));
}

std::vector<uint8_t> Pattern(size_t size, uint8_t seed) {
  std::vector<uint8_t> bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(seed + i * 37 + (i >> 5));
  return bytes;
}

VELTMTDFisEntry Entry(const char* name, uint32_t flash_base, uint32_t size, uint32_t length) {
  VELTMTDFisEntry entry;
  memset(&entry, 0, sizeof(entry));
  strncpy(entry.name, name, sizeof(entry.name) - 1);
  entry.flash_base = flash_base;
  entry.size = size;
  entry.data_length = length;
  return entry;
}

class VeltMtdTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (NeedsFixedPaths()) {
      std::string why = testing_support::EnterThrowawayRoot();
      if (!why.empty()) GTEST_SKIP() << why;
    }
    const std::string why = sim_test::MountUnavailable();
    if (!why.empty()) GTEST_SKIP() << why;
    // Made after the throwaway root is entered, so that it lies inside it.
    dir_ = std::make_unique<testing_support::TempDir>();
    state_ = dir_->File("state");
    mount_ = dir_->File("mnt");
    ASSERT_EQ(0, mkdir(state_.c_str(), 0755));
    ASSERT_EQ(0, mkdir(mount_.c_str(), 0755));
    testing_support::SyslogRecords().clear();
  }

  void TearDown() override {
    unsetenv("FILEBAY_FLASH_CONTROL");
    Unmount();
  }

  virtual bool NeedsFixedPaths() const { return false; }

  void Unmount() {
    if (!mount_.empty()) sim_test::StopDaemon(mount_, &daemon_);
  }

  // Saves the chip into the state directory and mounts it with the daemon in
  // the foreground, as a child of this process.
  void Mount(const flashsim::ChipState& state) {
    std::string error;
    ASSERT_TRUE(flashsim::SaveState(state, &error)) << error;
    unlink((state_ + "/faults").c_str());  // left by an earlier mount
    MountState();
  }

  // A board's chip made by the offline tool from its layout file.
  void MountBoard(const std::string& board) {
    ASSERT_EQ("", sim_test::CreateChipState(state_, sim_test::BoardLayout(board)));
    MountState();
  }

  void MountState() {
    std::string error;
    ASSERT_TRUE(flashsim::LoadState(state_, &initial_, &error)) << error;
    sim_test::StartDaemon(state_, mount_, dir_->File("daemon.log"), {"-o", "allow_other"},
                          &daemon_);
  }

  std::string Path(const std::string& name) const { return mount_ + "/" + name; }
  std::string Device(int index) const { return Path("mtd" + std::to_string(index)); }
  std::vector<uint8_t> ChipImage() const { return sim_test::ReadBytes(state_ + "/chip.img"); }
  Lines Trace() const { return sim_test::ReadLines(state_ + "/trace.log"); }
  Lines TraceSince(size_t start) const {
    Lines trace = Trace();
    return Lines(trace.begin() + std::min(start, trace.size()), trace.end());
  }
  // Trace lines of one operation kind ("erase mtd2 ...").
  Lines TraceOf(const std::string& op) const {
    Lines found;
    for (const std::string& line : Trace()) {
      if (line.compare(0, op.size() + 1, op + " ") == 0) found.push_back(line);
    }
    return found;
  }

  // Where the partition's bytes begin in chip.img.
  size_t ChipOffset(int index) const {
    return initial_.layout.Find(index)->base - initial_.layout.chip_base;
  }
  uint32_t PartitionSize(int index) const { return initial_.layout.Find(index)->size; }

  std::string Control(const std::string& command) { return sim_test::Control(mount_, command); }

  // errno of an erase made by the test itself (not through the module), or 0.
  int EraseRange(int device, uint32_t start, uint32_t length) {
    UniqueFd fd(open(Device(device).c_str(), O_RDWR));
    if (fd.get() < 0) return errno;
    erase_info_user range = {start, length};
    return ioctl(fd.get(), MEMERASE, &range) == 0 ? 0 : errno;
  }

  // True when the source lines of the captured "name(123): ..." messages
  // never go back: messages come from one public function's body in order,
  // not from a helper defined above it.
  static bool SourceLinesAscend() {
    std::vector<int> lines;
    for (const testing_support::SyslogRecord& record : testing_support::SyslogRecords()) {
      const size_t open = record.second.find('(');
      if (open != std::string::npos) lines.push_back(atoi(record.second.c_str() + open + 1));
    }
    return std::is_sorted(lines.begin(), lines.end());
  }

  // The module's syslog lines, the source line number replaced by "N" and
  // any priority other than error shown in front; taken out of the capture.
  Lines Logged() const {
    const Lines lines = testing_support::LoggedErrorLines();
    testing_support::SyslogRecords().clear();
    return lines;
  }

  std::unique_ptr<testing_support::TempDir> dir_;
  std::string state_;
  std::string mount_;
  pid_t daemon_ = -1;
  flashsim::ChipState initial_;
};

#define MOUNT_OR_RETURN(call)                     \
  do {                                            \
    call;                                         \
    if (IsSkipped() || HasFatalFailure()) return; \
  } while (0)

// ---- both board layouts ----

struct Board {
  const char* layout;
  int fis_device;
  int records;
};

class VeltMtdBoardTest : public VeltMtdTest, public ::testing::WithParamInterface<Board> {};

INSTANTIATE_TEST_SUITE_P(Boards, VeltMtdBoardTest,
                         ::testing::Values(Board{"nor8", 7, 8}, Board{"junior6", 5, 6}),
                         [](const ::testing::TestParamInfo<Board>& info) {
                           return std::string(info.param.layout);
                         });

TEST_P(VeltMtdBoardTest, DeviceInfoGivesTypeSizeAndEraseSizeOfEveryPartition) {
  MOUNT_OR_RETURN(MountBoard(GetParam().layout));
  for (const flashsim::PartitionLayout& partition : initial_.layout.partitions) {
    SCOPED_TRACE(partition.name);
    mtd_info_user info;
    memset(&info, 0xAA, sizeof(info));
    ASSERT_EQ(0, VELTMTDGetDeviceInfo(Device(partition.index).c_str(), &info, sizeof(info)));
    EXPECT_EQ(MTD_NORFLASH, info.type);
    EXPECT_EQ(partition.size, info.size);
    EXPECT_EQ(kBlock, info.erasesize);
  }
  EXPECT_EQ(Lines{}, Logged());
}

TEST_P(VeltMtdBoardTest, DirectoryIsCountedThenCopiedRecordForRecord) {
  MOUNT_OR_RETURN(MountBoard(GetParam().layout));
  const std::string fis = Device(GetParam().fis_device);
  int bytes = -1;
  ASSERT_EQ(GetParam().records, VELTMTDGetPartitionInfo(fis.c_str(), nullptr, 0, &bytes));
  ASSERT_EQ(256 * GetParam().records, bytes);

  // One spare record's room after the directory stays as it was.
  std::vector<uint8_t> buffer(bytes + 256, 0xA5);
  int copied = -1;
  ASSERT_EQ(GetParam().records,
            VELTMTDGetPartitionInfo(fis.c_str(), buffer.data(), bytes + 256, &copied));
  EXPECT_EQ(bytes, copied);
  std::vector<uint8_t> expected(initial_.image.begin() + ChipOffset(GetParam().fis_device),
                                initial_.image.begin() + ChipOffset(GetParam().fis_device) + bytes);
  expected.resize(bytes + 256, 0xA5);
  EXPECT_EQ(expected, buffer);
  // The copy is the directory of this board: one record per partition.
  for (int i = 0; i < GetParam().records; ++i) {
    flashsim::FisRecord record = flashsim::DecodeFisRecord(&buffer[256 * i]);
    EXPECT_EQ(initial_.layout.partitions[i].name, record.name);
  }
  EXPECT_EQ(Lines{}, Logged());
}

TEST_P(VeltMtdBoardTest, ErasingOnePartitionLeavesTheRestOfTheChip) {
  MOUNT_OR_RETURN(MountBoard(GetParam().layout));
  ASSERT_EQ(0, VELTMTDErasePartition(Device(2).c_str()));
  std::vector<uint8_t> expected = initial_.image;
  std::fill(expected.begin() + ChipOffset(2), expected.begin() + ChipOffset(2) + PartitionSize(2),
            0xFF);
  EXPECT_TRUE(SameChip(ChipImage(), expected));
  char line[80];
  snprintf(line, sizeof(line), "erase mtd2 0x00000000 0x%08x ok", PartitionSize(2));
  EXPECT_EQ(Lines{line}, TraceOf("erase"));
  EXPECT_EQ(Lines{}, Logged());
}

TEST_P(VeltMtdBoardTest, PartitionExtentMovesTheViewAndErasesNothing) {
  MOUNT_OR_RETURN(MountBoard(GetParam().layout));
  // mtd1 (zImage, at the chip's base on both boards) is given three blocks
  // from the chip's second block.
  const uint32_t base = initial_.layout.chip_base + kBlock;
  ASSERT_EQ(0, VELTMTDModifyPartitionSize(Device(1).c_str(), base, 3 * kBlock));
  struct stat st;
  ASSERT_EQ(0, stat(Device(1).c_str(), &st));
  EXPECT_EQ(3 * kBlock, st.st_size);
  std::vector<uint8_t> view(3 * kBlock);
  UniqueFd fd(open(Device(1).c_str(), O_RDONLY));
  ASSERT_EQ(static_cast<ssize_t>(view.size()), pread(fd.get(), view.data(), view.size(), 0));
  EXPECT_TRUE(std::equal(view.begin(), view.end(), initial_.image.begin() + kBlock));
  EXPECT_TRUE(SameChip(ChipImage(), initial_.image));
  char line[80];
  snprintf(line, sizeof(line), "set-extent mtd1 0x%08x 0x%08x ok", base, 3 * kBlock);
  EXPECT_EQ(Lines{line}, TraceOf("set-extent"));
  EXPECT_EQ(Lines{}, TraceOf("erase"));
  EXPECT_EQ(Lines{}, Logged());
}

TEST_P(VeltMtdBoardTest, FisEntryRewriteChangesOnlyThreeFieldsBigEndian) {
  MOUNT_OR_RETURN(MountBoard(GetParam().layout));
  const VELTMTDFisEntry entry = Entry("rd.gz", 0xFFF50000, 0x00090000, 0x0008ABCD);
  ASSERT_EQ(0, VELTMTDModifyFISEntry(Device(GetParam().fis_device).c_str(), &entry));
  // rd.gz is the third record on both boards.
  std::vector<uint8_t> expected = initial_.image;
  uint8_t* record = &expected[ChipOffset(GetParam().fis_device) + 2 * 256];
  ASSERT_EQ(0, memcmp(record, "rd.gz", 6));
  PutBigEndian(0xFFF50000, record + 16);
  PutBigEndian(0x00090000, record + 24);
  PutBigEndian(0x0008ABCD, record + 32);
  EXPECT_TRUE(SameChip(ChipImage(), expected));
  EXPECT_EQ(Lines{}, Logged());
}

// ---- geometry ----

TEST_F(VeltMtdTest, DeviceInfoNeedsThirtyTwoBytesAndZeroesTheWholeBuffer) {
  MOUNT_OR_RETURN(Mount(sim_test::NorChip(state_)));
  const size_t trace_start = Trace().size();
  std::vector<uint8_t> buffer(64, 0xAA);
  EXPECT_EQ(-1, VELTMTDGetDeviceInfo(Device(1).c_str(), buffer.data(), 31));
  EXPECT_EQ(-1, VELTMTDGetDeviceInfo(nullptr, buffer.data(), 64));
  EXPECT_EQ(-1, VELTMTDGetDeviceInfo(Device(1).c_str(), nullptr, 64));
  EXPECT_EQ(std::vector<uint8_t>(64, 0xAA), buffer);
  EXPECT_EQ(Lines(3, "VELTMTDGetDeviceInfo(N): parameter error"), Logged());
  EXPECT_EQ(Lines{}, TraceSince(trace_start));

  ASSERT_EQ(0, VELTMTDGetDeviceInfo(Device(1).c_str(), buffer.data(), 32));
  EXPECT_EQ(std::vector<uint8_t>(32, 0xAA),
            std::vector<uint8_t>(buffer.begin() + 32, buffer.end()));
  mtd_info_user info;
  memcpy(&info, buffer.data(), sizeof(info));
  EXPECT_EQ(0x4000u, info.size);

  std::fill(buffer.begin(), buffer.end(), 0xAA);
  ASSERT_EQ(0, VELTMTDGetDeviceInfo(Device(1).c_str(), buffer.data(), 64));
  EXPECT_EQ(std::vector<uint8_t>(32, 0), std::vector<uint8_t>(buffer.begin() + 32, buffer.end()));
  EXPECT_EQ(Lines{}, Logged());
}

TEST_F(VeltMtdTest, DeviceInfoFailuresLogErrnoAfterZeroingTheBuffer) {
  MOUNT_OR_RETURN(Mount(sim_test::NorChip(state_)));
  std::vector<uint8_t> buffer(40, 0xAA);
  EXPECT_EQ(-1, VELTMTDGetDeviceInfo(Path("mtd9").c_str(), buffer.data(), 40));
  EXPECT_EQ(std::vector<uint8_t>(40, 0), buffer);
  ASSERT_EQ("OK\n", Control("fault getinfo mtd1 nth=1 errno=EIO"));
  std::fill(buffer.begin(), buffer.end(), 0xAA);
  EXPECT_EQ(-1, VELTMTDGetDeviceInfo(Device(1).c_str(), buffer.data(), 40));
  EXPECT_EQ(std::vector<uint8_t>(40, 0), buffer);
  EXPECT_EQ((Lines{"VELTMTDGetDeviceInfo(N): fail to open mtd device, errno = 2",
                   "VELTMTDGetDeviceInfo(N): fail to get mtd size, errno = 5"}),
            Logged());
}

// ---- FIS directory ----

TEST_F(VeltMtdTest, DirectoryStartingErasedHasNoRecordsAndNoBytes) {
  MOUNT_OR_RETURN(Mount(sim_test::NorChip(state_)));
  ASSERT_EQ(0, EraseRange(kFisDevice, 0, 0x1000));
  int bytes = -1;
  EXPECT_EQ(0, VELTMTDGetPartitionInfo(Device(kFisDevice).c_str(), nullptr, 0, &bytes));
  EXPECT_EQ(0, bytes);
  uint8_t one = 0x5A;
  bytes = -1;
  EXPECT_EQ(0, VELTMTDGetPartitionInfo(Device(kFisDevice).c_str(), &one, 1, &bytes));
  EXPECT_EQ(0, bytes);
  EXPECT_EQ(0x5A, one);
  EXPECT_EQ(Lines{}, Logged());
}

TEST_F(VeltMtdTest, BufferOneRecordShortFailsAfterCopyingTheRecordsThatFit) {
  MOUNT_OR_RETURN(Mount(sim_test::NorChip(state_)));  // five records
  const uint8_t* directory = &initial_.image[0xF000];
  for (int size : {4 * 256, 5 * 256 - 1}) {
    SCOPED_TRACE(size);
    std::vector<uint8_t> buffer(5 * 256, 0xA5);
    int bytes = 12345;
    EXPECT_EQ(-1, VELTMTDGetPartitionInfo(Device(kFisDevice).c_str(), buffer.data(), size, &bytes));
    EXPECT_EQ(12345, bytes);
    std::vector<uint8_t> expected(directory, directory + 4 * 256);
    expected.resize(5 * 256, 0xA5);
    EXPECT_EQ(expected, buffer);
    EXPECT_EQ(Lines{"VELTMTDGetPartitionInfo(N): not enough memory"}, Logged());
  }
  std::vector<uint8_t> buffer(5 * 256);
  int bytes = 0;
  EXPECT_EQ(5, VELTMTDGetPartitionInfo(Device(kFisDevice).c_str(), buffer.data(), 5 * 256, &bytes));
  EXPECT_EQ(std::vector<uint8_t>(directory, directory + 5 * 256), buffer);
}

TEST_F(VeltMtdTest, DirectoryEndingBeforeAnErasedRecordFailsWithTheReadMessage) {
  // A device of two records, neither of them erased.
  const std::string plain = dir_->File("short-directory");
  testing_support::WriteFile(plain, std::string(512, '\x01'));
  int bytes = 777;
  EXPECT_EQ(-1, VELTMTDGetPartitionInfo(plain.c_str(), nullptr, 0, &bytes));
  std::vector<uint8_t> buffer(1024, 0);
  EXPECT_EQ(-1, VELTMTDGetPartitionInfo(plain.c_str(), buffer.data(), 1024, &bytes));
  EXPECT_EQ(777, bytes);
  EXPECT_EQ(std::vector<uint8_t>(512, 1),
            std::vector<uint8_t>(buffer.begin(), buffer.begin() + 512));
  const std::string message =
      "VELTMTDGetPartitionInfo(N): failed to read from " + plain + "(errno = 0)";
  EXPECT_EQ(Lines(2, message), Logged());
}

TEST_F(VeltMtdTest, DirectoryReadFaultAndParameterErrors) {
  MOUNT_OR_RETURN(Mount(sim_test::NorChip(state_)));
  const std::string fis = Device(kFisDevice);
  const size_t trace_start = Trace().size();
  uint8_t buffer[256];
  int bytes = 0;
  EXPECT_EQ(-1, VELTMTDGetPartitionInfo(nullptr, nullptr, 0, &bytes));
  EXPECT_EQ(-1, VELTMTDGetPartitionInfo(fis.c_str(), nullptr, 0, nullptr));
  EXPECT_EQ(-1, VELTMTDGetPartitionInfo(fis.c_str(), buffer, 0, &bytes));
  EXPECT_EQ(-1, VELTMTDGetPartitionInfo(fis.c_str(), buffer, -256, &bytes));
  EXPECT_EQ(Lines(4, "VELTMTDGetPartitionInfo(N): parameter error"), Logged());
  EXPECT_EQ(Lines{}, TraceSince(trace_start));

  EXPECT_EQ(-1, VELTMTDGetPartitionInfo(Path("mtd9").c_str(), nullptr, 0, &bytes));
  ASSERT_EQ("OK\n", Control("fault read mtd4 nth=3 errno=EIO"));
  EXPECT_EQ(-1, VELTMTDGetPartitionInfo(fis.c_str(), nullptr, 0, &bytes));
  EXPECT_EQ((Lines{"VELTMTDGetPartitionInfo(N): fail to open mtd device, errno = 2",
                   "VELTMTDGetPartitionInfo(N): failed to read from " + fis + "(errno = 5)"}),
            Logged());
}

// ---- erase and lock ----

TEST_F(VeltMtdTest, LockedPartitionRefusesWriteAndEraseUntilUnlockedWithAnyOtherFlag) {
  MOUNT_OR_RETURN(Mount(sim_test::NorChip(state_)));
  ASSERT_EQ(0, VELTMTDLockPartition(Device(1).c_str()));
  EXPECT_EQ("0011110000000000", testing_support::ReadFile(state_ + "/locks"));
  UniqueFd fd(open(Device(1).c_str(), O_RDWR));
  uint8_t zero = 0;
  EXPECT_EQ(-1, pwrite(fd.get(), &zero, 1, 0x3FFF));
  EXPECT_EQ(EIO, errno);
  EXPECT_EQ(-1, VELTMTDErasePartition(Device(1).c_str()));
  EXPECT_EQ(Lines{"Could not erase MTD device: " + Device(1) + ", errno = 5\n"}, Logged());
  EXPECT_TRUE(SameChip(ChipImage(), initial_.image));

  ASSERT_EQ(0, VELTMTDILock(Device(1).c_str(), 2));
  EXPECT_EQ("0000000000000000", testing_support::ReadFile(state_ + "/locks"));
  EXPECT_EQ(1, pwrite(fd.get(), &zero, 1, 0x3FFF));
  ASSERT_EQ(0, VELTMTDLockPartition(Device(kFisDevice).c_str()));
  ASSERT_EQ(0, VELTMTDUnlockPartition(Device(kFisDevice).c_str()));
  EXPECT_EQ((Lines{"lock mtd1 0x00000000 0x00004000 ok", "lock mtd4 0x00000000 0x00001000 ok"}),
            TraceOf("lock"));
  EXPECT_EQ((Lines{"unlock mtd1 0x00000000 0x00004000 ok", "unlock mtd4 0x00000000 0x00001000 ok"}),
            TraceOf("unlock"));
  EXPECT_EQ(Lines{}, Logged());
}

TEST_F(VeltMtdTest, EraseFailuresLogTheirErrno) {
  MOUNT_OR_RETURN(Mount(sim_test::NorChip(state_)));
  const size_t trace_start = Trace().size();
  EXPECT_EQ(-1, VELTMTDErasePartition(nullptr));
  EXPECT_EQ(Lines{}, TraceSince(trace_start));
  EXPECT_EQ(-1, VELTMTDErasePartition(Path("mtd9").c_str()));
  ASSERT_EQ("OK\n", Control("fault getinfo mtd2 nth=1 errno=EIO"));
  EXPECT_EQ(-1, VELTMTDErasePartition(Device(2).c_str()));
  ASSERT_EQ("OK\n", Control("fault erase mtd2 nth=1 errno=EIO"));
  EXPECT_EQ(-1, VELTMTDErasePartition(Device(2).c_str()));
  EXPECT_TRUE(SourceLinesAscend());
  EXPECT_EQ(
      (Lines{"VELTMTDErasePartition(N): parameter error",
             "VELTMTDErasePartition(N): fail to open mtd device " + Path("mtd9") + ", errno = 2",
             "VELTMTDErasePartition(N): Could not get MTD device info for " + Device(2) +
                 ", errno = 5",
             "Could not erase MTD device: " + Device(2) + ", errno = 5\n"}),
      Logged());
  EXPECT_TRUE(SameChip(ChipImage(), initial_.image));
}

TEST_F(VeltMtdTest, LockFailuresCarryTheInternalFunctionName) {
  MOUNT_OR_RETURN(Mount(sim_test::NorChip(state_)));
  const size_t trace_start = Trace().size();
  EXPECT_EQ(-1, VELTMTDLockPartition(nullptr));
  EXPECT_EQ(-1, VELTMTDUnlockPartition(nullptr));
  EXPECT_EQ(Lines{}, TraceSince(trace_start));
  EXPECT_EQ(-1, VELTMTDLockPartition(Path("mtd9").c_str()));
  ASSERT_EQ("OK\n", Control("fault getinfo mtd1 nth=1 errno=EIO"));
  EXPECT_EQ(-1, VELTMTDUnlockPartition(Device(1).c_str()));
  ASSERT_EQ("OK\n", Control("fault lock mtd1 nth=1 errno=EROFS"));
  EXPECT_EQ(-1, VELTMTDLockPartition(Device(1).c_str()));
  ASSERT_EQ("OK\n", Control("fault unlock mtd1 nth=1 errno=EIO"));
  EXPECT_EQ(-1, VELTMTDILock(Device(1).c_str(), 0));
  EXPECT_TRUE(SourceLinesAscend());
  EXPECT_EQ(
      (Lines{"VELTMTDILock(N): parameter error", "VELTMTDILock(N): parameter error",
             "VELTMTDILock(N): fail to open mtd device " + Path("mtd9") + ", errno = 2",
             "VELTMTDILock(N): Could not get MTD device info for " + Device(1) + ", errno = 5",
             "Could not lock/unlock MTD device: " + Device(1) + ", errno = 30\n",
             "Could not lock/unlock MTD device: " + Device(1) + ", errno = 5\n"}),
      Logged());
  EXPECT_EQ("0000000000000000", testing_support::ReadFile(state_ + "/locks"));
}

// ---- the driver's private requests ----

TEST_F(VeltMtdTest, PartitionExtentFailuresLogTheirErrno) {
  MOUNT_OR_RETURN(Mount(sim_test::NorChip(state_)));
  const size_t trace_start = Trace().size();
  EXPECT_EQ(-1, VELTMTDModifyPartitionSize(nullptr, kNorBase, 0x1000));
  EXPECT_EQ(Lines{}, TraceSince(trace_start));
  EXPECT_EQ(-1, VELTMTDModifyPartitionSize(Path("mtd9").c_str(), kNorBase, 0x1000));
  EXPECT_EQ(-1, VELTMTDModifyPartitionSize(Device(2).c_str(), kNorBase + 0x800, 0x1000));
  ASSERT_EQ("OK\n", Control("fault set-extent mtd2 nth=1 errno=EIO"));
  EXPECT_EQ(-1, VELTMTDModifyPartitionSize(Device(2).c_str(), kNorBase + 0xB000, 0x1000));
  EXPECT_TRUE(SourceLinesAscend());
  EXPECT_EQ((Lines{"VELTMTDModifyPartitionSize(N): parameter error",
                   "VELTMTDModifyPartitionSize(N): fail to open mtd device " + Path("mtd9") +
                       ", errno = 2",
                   "Failed to set the mtd info of " + Device(2) + " by ioctl, errno = 22\n",
                   "Failed to set the mtd info of " + Device(2) + " by ioctl, errno = 5\n"}),
            Logged());
  struct stat st;
  ASSERT_EQ(0, stat(Device(2).c_str(), &st));
  EXPECT_EQ(0x4000, st.st_size);
}

TEST_F(VeltMtdTest, FisEntryWithUnknownNameOrFaultFailsAndChangesNothing) {
  MOUNT_OR_RETURN(Mount(sim_test::NorChip(state_)));
  const std::string fis = Device(kFisDevice);
  const size_t trace_start = Trace().size();
  const VELTMTDFisEntry unknown = Entry("nowhere", kNorBase, 0x1000, 0x10);
  EXPECT_EQ(-1, VELTMTDModifyFISEntry(nullptr, &unknown));
  EXPECT_EQ(-1, VELTMTDModifyFISEntry(fis.c_str(), nullptr));
  EXPECT_EQ(Lines{}, TraceSince(trace_start));
  EXPECT_EQ(-1, VELTMTDModifyFISEntry(fis.c_str(), &unknown));
  ASSERT_EQ("OK\n", Control("fault set-fis mtd4 nth=1 errno=EIO"));
  const VELTMTDFisEntry known = Entry("zImage", kNorBase + 0x2000, 0x2000, 0x10);
  EXPECT_EQ(-1, VELTMTDModifyFISEntry(fis.c_str(), &known));
  EXPECT_EQ(-1, VELTMTDModifyFISEntry(Path("mtd9").c_str(), &known));
  EXPECT_TRUE(SourceLinesAscend());
  EXPECT_EQ(
      (Lines{
          "VELTMTDModifyFISEntry(N): parameter error", "VELTMTDModifyFISEntry(N): parameter error",
          "VELTMTDModifyFISEntry: Failed to set the mtd info of " + fis + " by ioctl, errno = 2\n",
          "VELTMTDModifyFISEntry: Failed to set the mtd info of " + fis + " by ioctl, errno = 5\n",
          "VELTMTDModifyFISEntry(N): fail to open mtd device " + Path("mtd9") + ", errno = 2"}),
      Logged());
  EXPECT_TRUE(SameChip(ChipImage(), initial_.image));
}

TEST_F(VeltMtdTest, FisEntryNameIsCutToFifteenCharacters) {
  flashsim::ChipState chip = sim_test::NorChip(state_);
  // zImage's record is renamed to fifteen characters.
  memset(&chip.image[0xF000 + 256], 0, 16);
  memcpy(&chip.image[0xF000 + 256], "ABCDEFGHIJKLMNO", 15);
  MOUNT_OR_RETURN(Mount(chip));
  VELTMTDFisEntry entry = Entry("", 0xFFFF3000, 0x3000, 0x20);
  memcpy(entry.name, "ABCDEFGHIJKLMNOP", 16);  // no terminating NUL
  ASSERT_EQ(0, VELTMTDModifyFISEntry(Device(kFisDevice).c_str(), &entry));
  std::vector<uint8_t> expected = chip.image;
  PutBigEndian(0xFFFF3000, &expected[0xF000 + 256 + 16]);
  PutBigEndian(0x3000, &expected[0xF000 + 256 + 24]);
  PutBigEndian(0x20, &expected[0xF000 + 256 + 32]);
  EXPECT_TRUE(SameChip(ChipImage(), expected));
}

// ---- flash type ----

TEST_F(VeltMtdTest, MSysFlashIsReportedFromBitZeroOfTheFlashType) {
  MOUNT_OR_RETURN(Mount(sim_test::NorChip(state_)));
  ASSERT_EQ(0, setenv("FILEBAY_FLASH_CONTROL", Path(".control").c_str(), 1));
  EXPECT_EQ(0, VELTMTDIsMSysFlash());
  ASSERT_EQ("OK\n", Control("set flash-type 3"));
  EXPECT_EQ(1, VELTMTDIsMSysFlash());
  ASSERT_EQ("OK\n", Control("set flash-type 2"));
  EXPECT_EQ(0, VELTMTDIsMSysFlash());
  ASSERT_EQ("OK\n", Control("set flash-type 1"));
  EXPECT_EQ(1, VELTMTDIsMSysFlash());
  // A kernel without the call: the board's flash is NOR.
  ASSERT_EQ("OK\n", Control("set flash-type errno ENOSYS"));
  EXPECT_EQ(0, VELTMTDIsMSysFlash());
  Unmount();

  MOUNT_OR_RETURN(Mount(sim_test::MSysChip(state_)));
  EXPECT_EQ(1, VELTMTDIsMSysFlash());
}

// ---- stress data ----

// The stress block sits at a fixed path: these run in a throwaway root with
// /dev/mtd5 pointing into the mount and the board named by
// /etc.defaults/veltinfo.conf.
class VeltMtdStressTest : public VeltMtdTest {
 protected:
  bool NeedsFixedPaths() const override { return true; }

  void SetUp() override {
    VeltMtdTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    unlink("/dev/mtd5");
    unlink("/var/log/stress.data");
    mkdir("/var", 0755);
    mkdir("/var/log", 0755);
    mkdir("/etc.defaults", 0755);
    SLIBCErrSet(0);
  }

  void TearDown() override {
    if (dir_ != nullptr) unlink("/dev/mtd5");  // not before the throwaway root is entered
    VeltMtdTest::TearDown();
  }

  void Board(const std::string& unique) {
    testing_support::WriteFile("/etc.defaults/veltinfo.conf", "unique=\"" + unique + "\"\n");
  }
  void LinkMtd5() { ASSERT_EQ(0, symlink(Device(5).c_str(), "/dev/mtd5")); }
};

TEST_F(VeltMtdStressTest, BlockRoundTripsAtOffset544OfMtd5) {
  MOUNT_OR_RETURN(MountBoard("nor8"));
  Board("velt_4bay");
  LinkMtd5();
  ASSERT_EQ(0, EraseRange(5, 0, kBlock));
  const std::vector<uint8_t> data = Pattern(kStressSize, 0x11);
  std::vector<uint8_t> buffer = data;
  ASSERT_EQ(0, VELTMTDStressData(buffer.data(), 0));
  EXPECT_EQ(data, buffer);
  std::vector<uint8_t> read_back(kStressSize, 0);
  ASSERT_EQ(0, VELTMTDStressData(read_back.data(), 1));
  EXPECT_EQ(data, read_back);

  std::vector<uint8_t> expected = initial_.image;
  std::fill(expected.begin() + ChipOffset(5), expected.begin() + ChipOffset(5) + kBlock, 0xFF);
  std::copy(data.begin(), data.end(), expected.begin() + ChipOffset(5) + kStressOffset);
  EXPECT_TRUE(SameChip(ChipImage(), expected));
  EXPECT_EQ(Lines{"write mtd5 0x00000220 652 ok"}, TraceOf("write"));
  EXPECT_EQ(0, SLIBCErrGet());
  EXPECT_FALSE(testing_support::FileExists("/var/log/stress.data"));
}

TEST_F(VeltMtdStressTest, WriteReadsBackWhatTheFlashHoldsWhateverTheOutcome) {
  MOUNT_OR_RETURN(MountBoard("nor8"));
  Board("velt_4bay");
  LinkMtd5();
  const uint8_t* old = &initial_.image[ChipOffset(5) + kStressOffset];
  // Unerased flash keeps the AND of old and new bits; the write itself works.
  const std::vector<uint8_t> data = Pattern(kStressSize, 0x5C);
  std::vector<uint8_t> buffer = data;
  ASSERT_EQ(0, VELTMTDWriteStressData(buffer.data()));
  std::vector<uint8_t> programmed(kStressSize);
  for (size_t i = 0; i < kStressSize; ++i) programmed[i] = old[i] & data[i];
  EXPECT_NE(data, programmed);
  EXPECT_EQ(programmed, buffer);

  ASSERT_EQ("OK\n", Control("fault write mtd5 nth=1 errno=EIO"));
  buffer.assign(kStressSize, 0x00);
  EXPECT_EQ(-1, VELTMTDWriteStressData(buffer.data()));
  EXPECT_EQ(SLIB_ERR_WRITE, SLIBCErrGet());
  EXPECT_EQ(programmed, buffer);

  ASSERT_EQ("OK\n", Control("fault read mtd5 every errno=EIO"));
  EXPECT_EQ(-1, VELTMTDReadStressData(buffer.data()));
  EXPECT_EQ(SLIB_ERR_READ, SLIBCErrGet());
}

TEST_F(VeltMtdStressTest, JuniorKeepsTheBlockInAFileAndLeavesTheFlashAlone) {
  MOUNT_OR_RETURN(MountBoard("junior6"));
  Board("velt_junior");
  LinkMtd5();
  std::vector<uint8_t> buffer(kStressSize, 0x77);
  // Reading creates the empty file and leaves the buffer as it was.
  ASSERT_EQ(0, VELTMTDReadStressData(buffer.data()));
  EXPECT_EQ(std::vector<uint8_t>(kStressSize, 0x77), buffer);
  EXPECT_EQ("", testing_support::ReadFile("/var/log/stress.data"));

  const std::vector<uint8_t> data = Pattern(kStressSize, 0x99);
  buffer = data;
  ASSERT_EQ(0, VELTMTDStressData(buffer.data(), 0));
  EXPECT_EQ(data, buffer);
  std::string expected(kStressOffset, '\0');
  expected.append(data.begin(), data.end());
  EXPECT_EQ(expected, testing_support::ReadFile("/var/log/stress.data"));
  struct stat st;
  ASSERT_EQ(0, stat("/var/log/stress.data", &st));
  EXPECT_EQ(0600u, st.st_mode & 07777);
  std::vector<uint8_t> read_back(kStressSize, 0);
  ASSERT_EQ(0, VELTMTDStressData(read_back.data(), 1));
  EXPECT_EQ(data, read_back);
  EXPECT_TRUE(SameChip(ChipImage(), initial_.image));
  EXPECT_EQ(Lines{}, TraceOf("write"));
  EXPECT_EQ(0, SLIBCErrGet());
}

TEST_F(VeltMtdStressTest, ArgumentOpenAndSeekFailuresSetTheirCodes) {
  Board("velt_4bay");
  std::vector<uint8_t> buffer(kStressSize, 0x33);
  EXPECT_EQ(-1, VELTMTDStressData(nullptr, 1));
  EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
  for (int operation : {2, -1}) {
    SLIBCErrSet(0);
    EXPECT_EQ(-1, VELTMTDStressData(buffer.data(), operation));
    EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
  }
  // No /dev/mtd5 at all.
  for (int operation : {1, 0}) {
    SLIBCErrSet(0);
    EXPECT_EQ(-1, VELTMTDStressData(buffer.data(), operation));
    EXPECT_EQ(SLIB_ERR_OPEN, SLIBCErrGet());
  }
  EXPECT_EQ(std::vector<uint8_t>(kStressSize, 0x33), buffer);
  // A device that cannot seek: a pipe, kept open at both ends here.
  ASSERT_EQ(0, mkfifo("/dev/mtd5", 0600));
  UniqueFd pipe_ends(open("/dev/mtd5", O_RDWR | O_NONBLOCK));
  ASSERT_GE(pipe_ends.get(), 0);
  for (int operation : {1, 0}) {
    SLIBCErrSet(0);
    EXPECT_EQ(-1, VELTMTDStressData(buffer.data(), operation));
    EXPECT_EQ(SLIB_ERR_FLASH, SLIBCErrGet());
  }
  EXPECT_EQ(std::vector<uint8_t>(kStressSize, 0x33), buffer);
  EXPECT_EQ(Lines{}, Logged());
}

}  // namespace
