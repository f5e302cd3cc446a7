// The update of a board with an M-Systems flash disk, on the simulator's
// flash disk (the board layout msys.layout) mounted at /dev/flash inside a
// throwaway root, with /dev/mtdN links into the mount. Every case that
// writes compares the whole chip afterwards.
#include "updater/msys_update.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "lib/unique_fd.h"
#include "log_lines.h"
#include "sim/flash_state.h"
#include "sim_test_chips.h"
#include "sim_test_mount.h"
#include "test_support.h"
#include "updater/fis_record.h"
#include "updater/flash_patch.h"
#include "updater/patch_plan.h"
#include "updater/update_run.h"
#include "updater/update_status.h"

namespace {

using sim_test::ImageBytes;
using sim_test::kDevFlash;
using sim_test::SameChip;
using testing_support::LoggedMessages;

using Lines = std::vector<std::string>;
using Bytes = std::vector<uint8_t>;

constexpr uint32_t kUnit = 16384;
constexpr int kPartitions = 8;
// The eight partitions of the board, by position.
const char* const kNames[kPartitions] = {"RedBoot", "zImage",  "rd.gz",          "AllLib.tgz",
                                         "vendor",  "veltcfg", "RedBoot Config", "FIS Directory"};
constexpr int kZImage = 1;
constexpr int kAllLib = 3;
constexpr int kVeltcfg = 5;

// The syslog lines (any priority) containing `needle`, in order.
Lines LoggedWith(const std::string& needle) {
  Lines lines;
  for (const std::string& text : LoggedMessages()) {
    if (text.find(needle) != std::string::npos) lines.push_back(text);
  }
  return lines;
}

bool Contains(const Lines& lines, const std::string& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

// The progress record without its padding: "P:60:      " -> "P:60".
std::string Progress() {
  const std::string text = testing_support::ReadFile(UPDT_PROGRESS_FILE);
  const size_t second = text.find(':', 2);
  return second == std::string::npos ? text : text.substr(0, second);
}

// One partition as the driver's table and the information records show it.
using Geometry = sim_test::FisEntry;

uint32_t BigEndian(const unsigned char* bytes) {
  return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
}

uint32_t Units(uint64_t bytes) { return static_cast<uint32_t>((bytes + kUnit - 1) / kUnit); }

class MSysUpdateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string why = testing_support::EnterThrowawayRoot();
    if (!why.empty()) GTEST_SKIP() << why;
    why = sim_test::MountUnavailable();
    if (!why.empty()) GTEST_SKIP() << why;
    dir_ = std::make_unique<testing_support::TempDir>();
    state_ = dir_->File("state");
    ASSERT_EQ("", sim_test::CreateChipState(state_, sim_test::BoardLayout("msys")));
    std::string error;
    ASSERT_TRUE(flashsim::LoadState(state_, &initial_, &error)) << error;
    ASSERT_EQ(static_cast<size_t>(kPartitions), initial_.layout.partitions.size());
    mkdir(kDevFlash, 0755);
    sim_test::StartDaemon(state_, kDevFlash, dir_->File("daemon.log"), {}, &daemon_);
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_TRUE(sim_test::LinkMtdDevices(initial_.layout));
    ASSERT_EQ(0, setenv("FILEBAY_FLASH_CONTROL", "/dev/flash/.control", 1));

    UPDTResetRunState();
    UPDTSelectLayout(0);
    unlink(UPDT_PROGRESS_FILE);
    unlink(UPDT_LOG_FILE);
    work_ = dir_->File("upd@te");
    ASSERT_EQ(0, mkdir(work_.c_str(), 0755));
    snprintf(gszWorkDir, sizeof(gszWorkDir), "%s", work_.c_str());
    ASSERT_EQ(0, chdir(gszWorkDir));
    mkdir(gszVolume, 0755);
    testing_support::SyslogRecords().clear();
  }

  void TearDown() override {
    if (dir_ == nullptr) return;  // skipped before the throwaway root was entered
    if (chdir("/") != 0) ADD_FAILURE() << "chdir: " << strerror(errno);
    sim_test::StopDaemon(kDevFlash, &daemon_);
    sim_test::RemoveMtdLinks(kPartitions);
    unsetenv("FILEBAY_FLASH_CONTROL");
    dir_.reset();
    testing_support::SyslogRecords().clear();
  }

  std::string Control(const std::string& command) { return sim_test::Control(kDevFlash, command); }

  void Fault(const std::string& command) { ASSERT_EQ("OK\n", Control(command)) << command; }

  // The chip as the simulator holds it now (written through on every change).
  Bytes ChipNow() const { return sim_test::ReadBytes(state_ + "/chip.img"); }
  Lines Trace() const { return sim_test::ReadLines(state_ + "/trace.log"); }

  // Trace lines of one operation ("write", "format", ...), optionally on one device.
  Lines TraceOf(const std::string& op, const std::string& device = "") const {
    const std::string prefix = op + " " + device;
    Lines found;
    for (const std::string& line : Trace()) {
      if (line.compare(0, prefix.size(), prefix) == 0) found.push_back(line);
    }
    return found;
  }

  // Devices written to, in order of their first write.
  Lines WrittenDevices() const {
    Lines devices;
    for (const std::string& line : TraceOf("write")) {
      const std::string device = line.substr(6, line.find(' ', 6) - 6);
      if (!Contains(devices, device)) devices.push_back(device);
    }
    return devices;
  }

  const flashsim::PartitionLayout& Old(int index) const { return *initial_.layout.Find(index); }

  // The old contents of a whole partition.
  Bytes OldPartition(int index) const {
    const flashsim::PartitionLayout& partition = Old(index);
    return Bytes(initial_.image.begin() + partition.base,
                 initial_.image.begin() + partition.base + partition.size);
  }

  // Writes a package file into the working directory and returns its bytes.
  std::string Package(const std::string& file, uint32_t seed, size_t length) {
    const std::string bytes = ImageBytes(seed, length);
    testing_support::WriteFile(work_ + "/" + file, bytes);
    return bytes;
  }

  // A package file of `length` bytes that holds nothing (sparse).
  void SparsePackage(const std::string& file, off_t length) {
    const std::string path = work_ + "/" + file;
    UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
    ASSERT_GE(fd.get(), 0);
    ASSERT_EQ(0, ftruncate(fd.get(), length));
  }

  // The partition information as the module reads it now.
  std::vector<unsigned char> Records() {
    std::vector<unsigned char> records(2048, 0);
    EXPECT_EQ(kPartitions, UPDTMSysGetPartitionInfo(records.data()));
    return records;
  }

  static std::vector<Geometry> Geometries(const std::vector<unsigned char>& records) {
    std::vector<Geometry> geometries;
    for (int i = 0; i < kPartitions; ++i) {
      FisImageDesc desc;
      UPDTFisDecode(&records[static_cast<size_t>(i) * FIS_RECORD_SIZE], &desc);
      geometries.push_back({desc.name, desc.flash_base, desc.size, desc.data_length});
    }
    return geometries;
  }

  // The driver's table before the update, laid out from the chip's start.
  std::vector<Geometry> OldGeometries() const {
    std::vector<Geometry> geometries;
    uint32_t base = 0;
    for (int i = 0; i < kPartitions; ++i) {
      geometries.push_back({kNames[i], base, Old(i).size, Old(i).data_length});
      base += Old(i).size;
    }
    return geometries;
  }

  // Plans and backs up as the run does before it patches.
  std::vector<unsigned char> PlanAndBackUp() {
    std::vector<unsigned char> records = Records();
    EXPECT_EQ(0, UPDTMSysInitPatchInfo(records.data(), kPartitions));
    EXPECT_EQ(0, UPDTBackupOldPartition(records.data(), kPartitions));
    return records;
  }

  // A package whose zImage needs 101 units (its partition has 96) and a new
  // AllLib.tgz; AllLib.tgz, the partition with the most spare units, gives
  // the 5 missing ones, so the new table is 16 101 160 635 8 32 4 4 units.
  void GrowingPackage() {
    zimage_ = Package("zImage", 11, 100 * kUnit + 100);
    alllib_ = Package("AllLib.tgz", 33, 300 * kUnit + 7);
  }

  // The chip after the growing package: formatted, re-partitioned, every
  // partition written from the package or else from its backup.
  Bytes RepartitionedChip(std::vector<Geometry>* table) const {
    const uint32_t units[kPartitions] = {16, 101, 160, 635, 8, 32, 4, 4};
    Bytes chip(initial_.image.size(), 0xFF);
    uint32_t base = 0;
    table->clear();
    for (int i = 0; i < kPartitions; ++i) {
      Bytes contents;
      if (i == kZImage) {
        contents.assign(zimage_.begin(), zimage_.end());
      } else if (i == kAllLib) {
        contents.assign(alllib_.begin(), alllib_.end());
      } else {
        contents = OldPartition(i);
      }
      std::copy(contents.begin(), contents.end(), chip.begin() + base);
      table->push_back({kNames[i], base, units[i] * kUnit, static_cast<uint32_t>(contents.size())});
      base += units[i] * kUnit;
    }
    return chip;
  }

  // The old partitions back where they were; the rest of the disk erased.
  Bytes RestoredChip() const {
    Bytes chip(initial_.image.size(), 0xFF);
    for (int i = 0; i < kPartitions; ++i) {
      const Bytes contents = OldPartition(i);
      std::copy(contents.begin(), contents.end(), chip.begin() + Old(i).base);
    }
    return chip;
  }

  // The table after every partition was written back whole from its backup.
  std::vector<Geometry> RestoredGeometries() const {
    std::vector<Geometry> table = OldGeometries();
    for (Geometry& geometry : table) geometry.data_length = geometry.size;
    return table;
  }

  std::string Command(const std::string& source, int index) const {
    return "/bin/dd if=\"" + source + "\" of=\"/dev/mtd" + std::to_string(index) + "\" bs=16384";
  }
  std::string Backup(int index) const {
    return work_ + "/" + UPDT_BACKUP_DIR + "/mtd_" + kNames[index];
  }

  std::unique_ptr<testing_support::TempDir> dir_;
  std::string state_;
  std::string work_;
  pid_t daemon_ = -1;
  flashsim::ChipState initial_;
  std::string zimage_;
  std::string alllib_;
};

#define SETUP_OR_RETURN()                         \
  do {                                            \
    if (IsSkipped() || HasFatalFailure()) return; \
  } while (0)

// ---- format ----

TEST_F(MSysUpdateTest, FormatRefusesAnyCountButEightAndTouchesNothing) {
  SETUP_OR_RETURN();
  const Lines trace = Trace();
  const unsigned int counts[kPartitions] = {16, 96, 160, 640, 8, 32, 4, 4};
  EXPECT_EQ(-1, UPDTMSysFormat(counts, 7));
  EXPECT_EQ(-1, UPDTMSysFormat(counts, 9));
  EXPECT_EQ(-1, UPDTMSysFormat(nullptr, kPartitions));
  EXPECT_EQ(Lines(3, "UPDTMSysFormat(N): parameter error"), LoggedMessages(LOG_ERR));
  EXPECT_EQ(trace, Trace());
  EXPECT_TRUE(SameChip(ChipNow(), initial_.image));
  EXPECT_EQ(OldGeometries(), Geometries(Records()));
}

TEST_F(MSysUpdateTest, FormatFailuresNameTheStepAndErrno) {
  SETUP_OR_RETURN();
  const unsigned int counts[kPartitions] = {16, 96, 160, 640, 8, 32, 4, 4};
  Fault("fault format all nth=1 errno=EIO");
  EXPECT_EQ(-1, UPDTMSysFormat(counts, kPartitions));
  EXPECT_TRUE(SameChip(ChipNow(), initial_.image));
  Fault("fault partition all nth=1 errno=ENOSPC");
  EXPECT_EQ(-1, UPDTMSysFormat(counts, kPartitions));
  ASSERT_EQ(0, unlink("/dev/mtd0"));
  EXPECT_EQ(-1, UPDTMSysFormat(counts, kPartitions));
  EXPECT_EQ((Lines{"UPDTMSysFormat(N): failed to format, errno = 5",
                   "UPDTMSysFormat(N): failed to partition, errno = 28",
                   "UPDTMSysFormat(N): failed to open /dev/mtd0, errno = 2"}),
            LoggedMessages(LOG_ERR));
  // The second call formatted (everything erased) but kept the old table.
  EXPECT_TRUE(SameChip(ChipNow(), Bytes(initial_.image.size(), 0xFF)));
  EXPECT_EQ(1u, TraceOf("partition").size());
}

// ---- partition information ----

TEST_F(MSysUpdateTest, PartitionInfoIsTheDriverTableNamedByPosition) {
  SETUP_OR_RETURN();
  UPDTSelectLayout(1);  // a junior board with a flash disk names them alike
  testing_support::SyslogRecords().clear();
  std::vector<unsigned char> records(2048, 0);
  ASSERT_EQ(kPartitions, UPDTMSysGetPartitionInfo(records.data()));
  uint32_t base = 0;
  for (int i = 0; i < kPartitions; ++i) {
    SCOPED_TRACE(kNames[i]);
    const unsigned char* record = &records[static_cast<size_t>(i) * FIS_RECORD_SIZE];
    unsigned char name[FIS_NAME_SIZE] = {};
    memcpy(name, kNames[i], strlen(kNames[i]));
    EXPECT_EQ(0, memcmp(name, record, FIS_NAME_SIZE));
    EXPECT_EQ(base, BigEndian(record + 16));
    EXPECT_EQ(Old(i).size, BigEndian(record + 24));
    EXPECT_EQ(Old(i).data_length, BigEndian(record + 32));
    // Nothing else is filled: memory base, entry point, reserved, checksums.
    EXPECT_EQ(0u, BigEndian(record + 20));
    EXPECT_EQ(0u, BigEndian(record + 28));
    EXPECT_TRUE(std::all_of(record + 36, record + FIS_RECORD_SIZE,
                            [](unsigned char byte) { return byte == 0; }));
    EXPECT_EQ(Old(i).base, base);  // the disk lays partitions one after another
    base += Old(i).size;
  }
  EXPECT_TRUE(std::all_of(records.begin() + kPartitions * FIS_RECORD_SIZE, records.end(),
                          [](unsigned char byte) { return byte == 0; }));
  EXPECT_EQ(Lines{"get-table mtd0 0x00000000 64 ok"}, TraceOf("get-table"));
  EXPECT_EQ(Lines{}, LoggedMessages(LOG_ERR));
}

TEST_F(MSysUpdateTest, PartitionInfoFailuresAreLoggedWithErrno) {
  SETUP_OR_RETURN();
  std::vector<unsigned char> records(2048, 0);
  Fault("fault get-table mtd0 nth=1 errno=EIO");
  EXPECT_EQ(-1, UPDTMSysGetPartitionInfo(records.data()));
  ASSERT_EQ(0, unlink("/dev/mtd0"));
  EXPECT_EQ(-1, UPDTMSysGetPartitionInfo(records.data()));
  EXPECT_EQ((Lines{"UPDTMSysGetPartitionInfo(N): fail to get partition information, errno = 5",
                   "UPDTMSysGetPartitionInfo(N): fail to open /dev/mtd0, errno = 2"}),
            LoggedMessages(LOG_ERR));
}

// ---- patch plan ----

TEST_F(MSysUpdateTest, PlanOfExactlyTheDiskIsAcceptedAndOneUnitMoreRefused) {
  SETUP_OR_RETURN();
  // Every partition but AllLib.tgz keeps its old data; AllLib.tgz gets what
  // is left of the 967 units.
  uint32_t others = 0;
  for (int i = 0; i < kPartitions; ++i) {
    if (i != kAllLib) others += Units(Old(i).data_length);
  }
  const uint32_t left = UPDT_MSYS_UNITS - others;
  ASSERT_NO_FATAL_FAILURE(SparsePackage("AllLib.tgz", off_t{left} * kUnit));
  std::vector<unsigned char> records = Records();
  gEraseBlockSize = 0;
  ASSERT_EQ(0, UPDTMSysInitPatchInfo(records.data(), kPartitions));
  EXPECT_EQ(kUnit, gEraseBlockSize);
  for (int i = 0; i < kPartitions; ++i) {
    SCOPED_TRACE(kNames[i]);
    const PartitionRecord& row = gPartitionTable[i];
    EXPECT_EQ(Old(i).base, row.start);
    EXPECT_EQ(Old(i).size, row.size);
    EXPECT_EQ(0, row.delta);
    const uint32_t nblock = i == kAllLib ? left : Units(Old(i).data_length);
    EXPECT_EQ(static_cast<int32_t>(Old(i).size / kUnit) - static_cast<int32_t>(nblock),
              row.balance);
    EXPECT_EQ(i == kAllLib ? left * kUnit : Old(i).data_length, row.datalen);
    EXPECT_EQ(i == kAllLib ? 1 : 0, row.fneedupdate);
  }
  const Lines info = LoggedMessages(LOG_INFO);
  EXPECT_TRUE(Contains(info, "Available flash units = 967 blocks, eraseblock = 16384 bytes"));
  char line[256];
  snprintf(line, sizeof(line),
           "PATCHINFO: partition[AllLib.tgz] file[AllLib.tgz] start = [0x%08X] size[0x%d] "
           "datalen=[0x%08X] nblock[%d] balance[%d] fneedupdate[1]",
           Old(kAllLib).base, static_cast<int>(Old(kAllLib).size), left * kUnit,
           static_cast<int>(left),
           static_cast<int>(Old(kAllLib).size / kUnit) - static_cast<int>(left));
  EXPECT_TRUE(Contains(info, line)) << line;
  EXPECT_TRUE(
      Contains(info, "UPDTMSysInitPatchInfo(N): file [zImage] not included in the patch package "));
  EXPECT_EQ(Lines{}, LoggedMessages(LOG_ERR));

  testing_support::SyslogRecords().clear();
  ASSERT_NO_FATAL_FAILURE(SparsePackage("AllLib.tgz", off_t{left} * kUnit + 1));
  EXPECT_EQ(-1, UPDTMSysInitPatchInfo(records.data(), kPartitions));
  EXPECT_EQ(Lines{"UPDTMSysInitPatchInfo(N): the binary size exceeds flash size limit(total = 968 "
                  "blocks)"},
            LoggedMessages(LOG_ERR));
}

TEST_F(MSysUpdateTest, PlanRefusesMissingInformation) {
  SETUP_OR_RETURN();
  unsigned char records[FIS_RECORD_SIZE] = {};
  EXPECT_EQ(-1, UPDTMSysInitPatchInfo(nullptr, kPartitions));
  EXPECT_EQ(-1, UPDTMSysInitPatchInfo(records, 0));
  int repartitioned = 0;
  EXPECT_EQ(-1, UPDTMSysDoPatch(nullptr, kPartitions, &repartitioned));
  EXPECT_EQ(-1, UPDTMSysRollBack(records, 0, 0));
  EXPECT_EQ(
      (Lines{"UPDTMSysInitPatchInfo(N): parameter error ",
             "UPDTMSysInitPatchInfo(N): parameter error ", "UPDTMSysDoPatch(N): parameter error ",
             "UPDTMSysRollBack(N): parameter error "}),
      LoggedMessages(LOG_ERR));
  EXPECT_EQ(Lines{}, TraceOf("write"));
}

// ---- patch and roll-back ----

TEST_F(MSysUpdateTest, PatchWithoutRepartitionWritesOnlyThePartitionsWithFiles) {
  SETUP_OR_RETURN();
  const std::string zimage = Package("zImage", 7, 0x100000 + 123);
  const std::string veltcfg = Package("veltcfg", 9, 0x8000 + 5);
  std::vector<unsigned char> records = Records();
  ASSERT_EQ(0, UPDTMSysInitPatchInfo(records.data(), kPartitions));
  testing_support::SyslogRecords().clear();
  int repartitioned = 0;
  ASSERT_EQ(0, UPDTMSysDoPatch(records.data(), kPartitions, &repartitioned));
  EXPECT_EQ(0, repartitioned);

  Bytes expected = initial_.image;
  std::copy(zimage.begin(), zimage.end(), expected.begin() + Old(kZImage).base);
  std::copy(veltcfg.begin(), veltcfg.end(), expected.begin() + Old(kVeltcfg).base);
  EXPECT_TRUE(SameChip(ChipNow(), expected));
  EXPECT_EQ((Lines{"mtd1", "mtd5"}), WrittenDevices());
  EXPECT_EQ(Lines{}, TraceOf("format"));
  EXPECT_EQ(Lines{}, TraceOf("erase"));
  EXPECT_EQ("P:70", Progress());

  EXPECT_EQ(
      (Lines{"UPDTMSysDoPatch: skip updating [RedBoot]",
             "szCmd=[" + Command(work_ + "/zImage", 1) + "]",
             "UPDTMSysDoPatch: Finish updating [zImage]", "UPDTMSysDoPatch: skip updating [rd.gz]",
             "UPDTMSysDoPatch: skip updating [AllLib.tgz]",
             "UPDTMSysDoPatch: skip updating [vendor]",
             "szCmd=[" + Command(work_ + "/veltcfg", 5) + "]",
             "UPDTMSysDoPatch: Finish updating [veltcfg]",
             "UPDTMSysDoPatch: skip updating [RedBoot Config]",
             "UPDTMSysDoPatch: skip updating [FIS Directory]"}),
      LoggedMessages(LOG_INFO));
  EXPECT_EQ(Lines{}, LoggedMessages(LOG_ERR));
  // Sizes stay; the data lengths grow to what was written where it is more.
  std::vector<Geometry> table = OldGeometries();
  table[kZImage].data_length = std::max<uint32_t>(table[kZImage].data_length, zimage.size());
  table[kVeltcfg].data_length = std::max<uint32_t>(table[kVeltcfg].data_length, veltcfg.size());
  EXPECT_EQ(table, Geometries(Records()));
}

TEST_F(MSysUpdateTest, RepartitionWritesEveryPartitionTheMissingOnesFromTheirBackups) {
  SETUP_OR_RETURN();
  GrowingPackage();
  std::vector<unsigned char> records = PlanAndBackUp();
  testing_support::SyslogRecords().clear();
  const size_t trace_start = Trace().size();
  int repartitioned = 0;
  ASSERT_EQ(0, UPDTMSysDoPatch(records.data(), kPartitions, &repartitioned));
  EXPECT_EQ(1, repartitioned);

  std::vector<Geometry> table;
  const Bytes expected = RepartitionedChip(&table);
  EXPECT_TRUE(SameChip(ChipNow(), expected));
  EXPECT_EQ(table, Geometries(Records()));
  // Format, then the new table (960 units), then the writes of all eight
  // partitions; nothing is erased apart from the format.
  Lines flash_changes;
  const Lines trace = Trace();
  for (size_t i = trace_start; i < trace.size(); ++i) {
    if (trace[i].compare(0, 6, "write ") == 0) {
      if (flash_changes.empty() || flash_changes.back() != "write")
        flash_changes.push_back("write");
    } else if (trace[i].compare(0, 7, "format ") == 0 ||
               trace[i].compare(0, 10, "partition ") == 0 ||
               trace[i].compare(0, 6, "erase ") == 0) {
      flash_changes.push_back(trace[i]);
    }
  }
  EXPECT_EQ((Lines{"format - 0x00000000 967 ok", "partition - 0x00000000 0x00f00000 ok", "write"}),
            flash_changes);
  EXPECT_EQ((Lines{"mtd0", "mtd1", "mtd2", "mtd3", "mtd4", "mtd5", "mtd6", "mtd7"}),
            WrittenDevices());
  EXPECT_EQ("P:100", Progress());

  const Lines commands = LoggedWith("szCmd=");
  EXPECT_EQ(
      (Lines{"szCmd=[" + Command(Backup(0), 0) + "]",
             "szCmd=[" + Command(work_ + "/zImage", 1) + "]",
             "szCmd=[" + Command(Backup(2), 2) + "]",
             "szCmd=[" + Command(work_ + "/AllLib.tgz", 3) + "]",
             "szCmd=[" + Command(Backup(4), 4) + "]", "szCmd=[" + Command(Backup(5), 5) + "]",
             "szCmd=[" + Command(Backup(6), 6) + "]", "szCmd=[" + Command(Backup(7), 7) + "]"}),
      commands);
  EXPECT_TRUE(Contains(LoggedMessages(LOG_INFO), "UPDTMSysDoPatch(N): NEED RE-PARTITION!!"));
  EXPECT_EQ(Lines{}, LoggedMessages(LOG_ERR));
}

TEST_F(MSysUpdateTest, FailureAfterRepartitionRollsBackTableAndEveryPartition) {
  SETUP_OR_RETURN();
  GrowingPackage();
  std::vector<unsigned char> records = PlanAndBackUp();
  Fault("fault write mtd5 nth=1 errno=EIO");
  int repartitioned = 0;
  ASSERT_EQ(-1, UPDTMSysDoPatch(records.data(), kPartitions, &repartitioned));
  EXPECT_EQ(1, repartitioned);
  EXPECT_FALSE(SameChip(ChipNow(), RestoredChip()));
  testing_support::SyslogRecords().clear();

  ASSERT_EQ(0, UPDTMSysRollBack(records.data(), kPartitions, repartitioned));
  EXPECT_TRUE(SameChip(ChipNow(), RestoredChip()));
  EXPECT_EQ(RestoredGeometries(), Geometries(Records()));
  EXPECT_EQ(2u, TraceOf("format").size());
  EXPECT_EQ("P:100", Progress());
  Lines expected_log;
  for (int i = 0; i < kPartitions; ++i) {
    expected_log.push_back("UPDTMSysRollBack(N): command=[" + Command(Backup(i), i) + "]");
    expected_log.push_back(std::string("UPDTMSysRollBack: Finish updating [") + kNames[i] + "]");
  }
  EXPECT_EQ(expected_log, LoggedMessages(LOG_INFO));
  EXPECT_EQ(Lines{}, LoggedMessages(LOG_ERR));
}

TEST_F(MSysUpdateTest, GroupRepartitionNeedsEveryImageAndTouchesNothingWithoutOne) {
  SETUP_OR_RETURN();
  GrowingPackage();
  gblGroupUpdate = 1;
  std::vector<unsigned char> records = Records();
  ASSERT_EQ(0, UPDTMSysInitPatchInfo(records.data(), kPartitions));
  testing_support::SyslogRecords().clear();
  int repartitioned = 0;
  EXPECT_EQ(-1, UPDTMSysDoPatch(records.data(), kPartitions, &repartitioned));
  EXPECT_EQ(0, repartitioned);
  EXPECT_EQ(
      Lines{"UPDTMSysDoPatch(N): failed to update. [" + work_ + "/RedBoot.msys] does not exist"},
      LoggedMessages(LOG_ERR));
  EXPECT_EQ(Lines{}, TraceOf("format"));
  EXPECT_EQ(Lines{}, TraceOf("write"));
  EXPECT_TRUE(SameChip(ChipNow(), initial_.image));
}

TEST_F(MSysUpdateTest, CommandThatDoesNotFitIsNeverRun) {
  SETUP_OR_RETURN();
  // A working directory long enough that the dd command passes 255 bytes.
  std::string deep = work_;
  while (deep.size() < 225) deep += "/" + std::string(40, 'd');
  ASSERT_EQ(0, system(("mkdir -p '" + deep + "'").c_str()));
  ASSERT_LT(deep.size(), sizeof(gszWorkDir));
  snprintf(gszWorkDir, sizeof(gszWorkDir), "%s", deep.c_str());
  testing_support::WriteFile(deep + "/zImage", ImageBytes(5, 1000));
  std::vector<unsigned char> records = Records();
  ASSERT_EQ(0, UPDTMSysInitPatchInfo(records.data(), kPartitions));
  testing_support::SyslogRecords().clear();
  int repartitioned = 0;
  EXPECT_EQ(-1, UPDTMSysDoPatch(records.data(), kPartitions, &repartitioned));
  EXPECT_EQ(Lines{"UPDTMSysDoPatch(N): command too long [" + Command(deep + "/zImage", 1) + "]"},
            LoggedMessages(LOG_ERR));
  EXPECT_EQ(Lines{}, TraceOf("write"));
  EXPECT_TRUE(SameChip(ChipNow(), initial_.image));
}

// ---- the whole flash part of a run ----

TEST_F(MSysUpdateTest, UpdateWritesFlashMigratesAndMovesTheArchive) {
  SETUP_OR_RETURN();
  const std::string zimage = Package("zImage", 21, 0x80000 + 1);
  const std::string archive = Package("hda1.tgz", 22, 4000);
  // The migration's unconditional steps remove this file and filter the
  // crontab.
  ASSERT_EQ(0, system("mkdir -p /usr/velt/etc && echo x > /usr/velt/etc/manutil.conf"));
  testing_support::WriteFile("/etc/crontab", "0 1 * * * root ls\n");
  char letter = 'A';
  EXPECT_EQ(0, UPDTMSysUpdate(&letter));
  EXPECT_EQ('R', letter);
  EXPECT_EQ("R:0", Progress());

  Bytes expected = initial_.image;
  std::copy(zimage.begin(), zimage.end(), expected.begin() + Old(kZImage).base);
  EXPECT_TRUE(SameChip(ChipNow(), expected));
  EXPECT_EQ(Lines{"mtd1"}, WrittenDevices());
  for (int i = 0; i < kPartitions; ++i) {
    SCOPED_TRACE(kNames[i]);
    EXPECT_EQ(OldPartition(i), sim_test::ReadBytes(Backup(i)));
  }
  EXPECT_FALSE(testing_support::FileExists(work_ + "/hda1.tgz"));
  EXPECT_EQ(archive, testing_support::ReadFile("/volume1/VeltUpgrade.tar.gz"));
  EXPECT_FALSE(testing_support::FileExists("/usr/velt/etc/manutil.conf"));
  EXPECT_NE(std::string::npos, testing_support::ReadFile(UPDT_LOG_FILE)
                                   .find("\tCongratulation!! The update has been completed!!\n"));

  Lines expected_errors = {"number of partitions = [8]"};
  for (const Geometry& geometry : OldGeometries()) {
    char line[128];
    snprintf(line, sizeof(line), "[%s]  0x%08lX  0x%08lX  0x%08lX\n", geometry.name.c_str(),
             static_cast<unsigned long>(geometry.flash_base),
             static_cast<unsigned long>(geometry.size),
             static_cast<unsigned long>(geometry.data_length));
    expected_errors.push_back(line);
  }
  const std::string backup = work_ + "/b@ckup";
  expected_errors.push_back("szCmd=[/bin/rm -rf " + backup + "; /bin/mkdir -p " + backup + "]");
  for (int i = 0; i < kPartitions; ++i) {
    expected_errors.push_back("UPDTBackupOldPartition(N): command=[/bin/dd if=\"/dev/mtd" +
                              std::to_string(i) + "\" of=\"" + backup + "/mtd_" + kNames[i] +
                              "\" bs=16384]");
  }
  expected_errors.push_back("UPDTMSysUpdate(N): Turn on the reinstall library flag...!!");
  expected_errors.push_back("Congratulation!! The update has been completed!!");
  EXPECT_EQ(expected_errors, LoggedMessages(LOG_ERR));
}

TEST_F(MSysUpdateTest, UpdateWhosePatchFailsRollsBackGives20AndStillMovesTheArchive) {
  SETUP_OR_RETURN();
  GrowingPackage();
  const std::string archive = Package("hda1.tgz", 23, 100);
  Fault("fault write mtd5 nth=1 errno=EIO");
  char letter = 'A';
  EXPECT_EQ(20, UPDTMSysUpdate(&letter));
  // The roll-back's progress records are the last ones.
  EXPECT_EQ('P', letter);
  EXPECT_EQ("P:100", Progress());
  EXPECT_TRUE(SameChip(ChipNow(), RestoredChip()));
  EXPECT_EQ(RestoredGeometries(), Geometries(Records()));
  EXPECT_EQ(archive, testing_support::ReadFile("/volume1/VeltUpgrade.tar.gz"));
  EXPECT_FALSE(testing_support::FileExists(work_ + "/hda1.tgz"));
  const Lines errors = LoggedMessages(LOG_ERR);
  EXPECT_TRUE(Contains(errors, "UPDTMSysUpdate(N): fail to patch new binaries!!"));
  EXPECT_TRUE(Contains(errors, "UPDTMSysUpdate(N): Turn on the reinstall library flag...!!"));
  EXPECT_FALSE(Contains(errors, "UPDTMSysUpdate: UPDTRollBack() fail"));
  EXPECT_EQ(std::string::npos, testing_support::ReadFile(UPDT_LOG_FILE).find("Congratulation"));
}

TEST_F(MSysUpdateTest, UpdateWhoseMigrationFailsGives17AndRestoresEveryPartition) {
  SETUP_OR_RETURN();
  Package("zImage", 24, 0x40000);
  // The AppleTalk step cannot remove a directory.
  gblCfgAtalk = 1;
  ASSERT_EQ(0, system("mkdir -p /usr/velt/etc/rc.atalk/keep"));
  char letter = 'A';
  EXPECT_EQ(17, UPDTMSysUpdate(&letter));
  EXPECT_EQ('C', letter);
  // The roll-back reports under the stage that failed.
  EXPECT_EQ("C:100", Progress());
  // No re-partition: no format; every partition written back whole.
  EXPECT_EQ(Lines{}, TraceOf("format"));
  EXPECT_EQ((Lines{"mtd1", "mtd0", "mtd2", "mtd3", "mtd4", "mtd5", "mtd6", "mtd7"}),
            WrittenDevices());
  EXPECT_TRUE(SameChip(ChipNow(), initial_.image));
  EXPECT_EQ(8u, LoggedWith("UPDTMSysRollBack(N): command=").size());
}

TEST_F(MSysUpdateTest, UpdateWithUnreadableTableGives18AndTouchesNothing) {
  SETUP_OR_RETURN();
  Package("zImage", 25, 1000);
  Package("hda1.tgz", 26, 10);
  Fault("fault get-table all nth=1 errno=EIO");
  char letter = 'A';
  EXPECT_EQ(18, UPDTMSysUpdate(&letter));
  EXPECT_EQ('P', letter);
  EXPECT_EQ("P:0", Progress());
  EXPECT_TRUE(testing_support::FileExists(work_ + "/hda1.tgz"));
  EXPECT_FALSE(testing_support::FileExists(work_ + "/" + UPDT_BACKUP_DIR));
  EXPECT_EQ(Lines{"UPDTMSysGetPartitionInfo(N): fail to get partition information, errno = 5"},
            LoggedMessages(LOG_ERR));
  EXPECT_EQ(Lines{}, TraceOf("write"));
  EXPECT_TRUE(SameChip(ChipNow(), initial_.image));
}

TEST_F(MSysUpdateTest, UpdatePlanAndBackupFailuresEndTheUpdateAt19And15) {
  SETUP_OR_RETURN();
  Package("hda1.tgz", 27, 10);
  ASSERT_NO_FATAL_FAILURE(SparsePackage("AllLib.tgz", off_t{1000} * kUnit));
  char letter = 'A';
  EXPECT_EQ(19, UPDTMSysUpdate(&letter));
  EXPECT_EQ("P:10", Progress());
  EXPECT_TRUE(
      Contains(LoggedMessages(LOG_ERR), "UPDTMSysUpdate(N): fail to initialize patch info "));

  ASSERT_EQ(0, unlink((work_ + "/AllLib.tgz").c_str()));
  Fault("fault read mtd3 nth=1 errno=EIO");
  testing_support::SyslogRecords().clear();
  EXPECT_EQ(15, UPDTMSysUpdate(&letter));
  EXPECT_EQ('P', letter);
  EXPECT_TRUE(
      Contains(LoggedMessages(LOG_ERR), "UPDTMSysUpdate(N): fail to backup old patch info "));
  EXPECT_TRUE(testing_support::FileExists(work_ + "/hda1.tgz"));
  EXPECT_EQ(Lines{}, TraceOf("write"));
  EXPECT_TRUE(SameChip(ChipNow(), initial_.image));
}

TEST_F(MSysUpdateTest, GroupUpdateKeepsNoBackupAndRollsNothingBack) {
  SETUP_OR_RETURN();
  gblGroupUpdate = 1;
  const std::string zimage = Package("zImage", 28, 0x20000);
  Package("veltcfg", 29, 0x1000);
  const std::string archive = Package("hda1.tgz", 30, 10);
  ASSERT_EQ(0, system("mkdir -p /usr/velt/etc && echo x > /usr/velt/etc/manutil.conf"));
  Fault("fault write mtd5 nth=1 errno=EIO");
  char letter = 'A';
  EXPECT_EQ(20, UPDTMSysUpdate(&letter));
  EXPECT_FALSE(testing_support::FileExists(work_ + "/" + UPDT_BACKUP_DIR));
  // zImage stays new, veltcfg could not be written, nothing was restored.
  Bytes expected = initial_.image;
  std::copy(zimage.begin(), zimage.end(), expected.begin() + Old(kZImage).base);
  EXPECT_TRUE(SameChip(ChipNow(), expected));
  EXPECT_EQ(Lines{}, LoggedWith("UPDTMSysRollBack"));
  EXPECT_TRUE(Contains(LoggedMessages(LOG_ERR),
                       "UPDTMSysUpdate(N): Turn on the reinstall library flag...!!"));
  EXPECT_EQ(archive, testing_support::ReadFile("/volume1/VeltUpgrade.tar.gz"));

  // A group update that succeeds runs no migration either.
  Fault("fault clear");
  Package("hda1.tgz", 31, 10);
  EXPECT_EQ(0, UPDTMSysUpdate(&letter));
  EXPECT_EQ('R', letter);
  EXPECT_TRUE(testing_support::FileExists("/usr/velt/etc/manutil.conf"));
  EXPECT_FALSE(testing_support::FileExists(work_ + "/" + UPDT_BACKUP_DIR));
}

}  // namespace
