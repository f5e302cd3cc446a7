// The flash engine on a mounted simulated chip of each board family: the
// partitions are reached through /dev/mtdN links into the simulator, inside a
// throwaway root, and every case compares the whole chip afterwards.
#include "updater/flash_patch.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "lib/slib_error.h"
#include "lib/unique_fd.h"
#include "log_lines.h"
#include "sdk/velt_mtd.h"
#include "sim/flash_state.h"
#include "sim_test_chips.h"
#include "sim_test_mount.h"
#include "test_support.h"
#include "updater/patch_plan.h"
#include "updater/update_run.h"
#include "updater/update_status.h"

namespace {

using flashsim::ChipState;
using flashsim::PartitionLayout;
using sim_test::ImageBytes;
using sim_test::kDevFlash;
using sim_test::SameChip;
using testing_support::LoggedMessages;

struct Board {
  const char* name;
  const char* layout;  // the board layout in FLASH_LAYOUT_DIR
  int junior;
  int fis_device;  // index of the FIS directory partition
};

// Test names and messages show the board by name.
void PrintTo(const Board& board, std::ostream* out) { *out << board.name; }

// Partitions in device order, label patterns as data; on the junior board
// 0xFFEF0000..0xFFF00000 belongs to no partition.
const Board kNor8 = {"Nor8", "nor8", 0, 7};
const Board kJunior6 = {"Junior6", "junior6", 1, 5};

// The log lines (any priority) that contain one of `needles`, in order.
std::vector<std::string> LogLinesWith(const std::vector<std::string>& needles) {
  std::vector<std::string> lines;
  for (const std::string& line : LoggedMessages(-1)) {
    for (const std::string& needle : needles) {
      if (line.find(needle) != std::string::npos) {
        lines.push_back(line);
        break;
      }
    }
  }
  return lines;
}

bool Logged(int priority, const std::string& line) {
  const std::vector<std::string> lines = LoggedMessages(priority);
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

// The value of the progress record: "P:60:      " -> "P:60".
std::string Progress() {
  const std::string text = testing_support::ReadFile(UPDT_PROGRESS_FILE);
  const size_t second = text.find(':', 2);
  return second == std::string::npos ? text : text.substr(0, second);
}

struct Extent {
  std::string name;
  uint32_t base;
  uint32_t size;
  bool operator==(const Extent& other) const {
    return name == other.name && base == other.base && size == other.size;
  }
};

std::ostream& operator<<(std::ostream& out, const Extent& extent) {
  char text[64];
  snprintf(text, sizeof(text), "{0x%08X, 0x%08X}", extent.base, extent.size);
  return out << extent.name << text;
}

std::vector<Extent> Extents(const flashsim::ChipLayout& layout) {
  std::vector<Extent> extents;
  for (const PartitionLayout& partition : layout.partitions) {
    extents.push_back({partition.name, partition.base, partition.size});
  }
  return extents;
}

using DirectoryEntry = sim_test::FisEntry;

class FlashPatchTest : public ::testing::TestWithParam<Board> {
 protected:
  void SetUp() override {
    std::string why = testing_support::EnterThrowawayRoot();
    if (!why.empty()) GTEST_SKIP() << why;
    why = sim_test::MountUnavailable();
    if (!why.empty()) GTEST_SKIP() << why;
    dir_ = std::make_unique<testing_support::TempDir>();
    state_ = dir_->File("state");
    UPDTResetRunState();
    unlink(UPDT_PROGRESS_FILE);
    SLIBCErrSet(0);
  }

  void TearDown() override {
    if (dir_ == nullptr) return;  // skipped before the throwaway root was entered
    if (chdir("/") != 0) ADD_FAILURE() << "chdir: " << strerror(errno);
    Unmount();
    sim_test::RemoveMtdLinks(UPDT_MAX_PARTITIONS);
    dir_.reset();
    testing_support::SyslogRecords().clear();
  }

  // Makes the board's chip with filebay-flash, lets `edit` change it (the
  // initial state the expectations start from), mounts it at /dev/flash
  // with /dev/mtdN links, chooses the board's tables and reads the FIS
  // directory into records_. By default every partition block but the FIS
  // directory's is locked, as on a board that protects its flash.
  void Start(const Board& board, const std::function<void(ChipState*)>& edit = nullptr,
             bool lock = true) {
    board_ = board;
    ASSERT_EQ("", sim_test::CreateChipState(state_, sim_test::BoardLayout(board.layout)));
    std::string error;
    ASSERT_TRUE(flashsim::LoadState(state_, &initial_, &error)) << error;
    if (lock) {
      for (const PartitionLayout& partition : initial_.layout.partitions) {
        if (partition.index != board.fis_device) {
          SetLocks(initial_.layout, partition, 1, &initial_.locked);
        }
      }
    }
    if (edit) edit(&initial_);
    ASSERT_TRUE(flashsim::SaveState(initial_, &error)) << error;
    expected_ = initial_.image;
    expected_locks_ = initial_.locked;
    mkdir(kDevFlash, 0755);
    sim_test::StartDaemon(state_, kDevFlash, dir_->File("daemon.log"), {}, &daemon_);
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_TRUE(sim_test::LinkMtdDevices(initial_.layout));
    UPDTSelectLayout(board.junior);
    gblJunior = board.junior;
    SetWorkDir(dir_->File("upd@te"));
    // A damaged directory cannot be read; the cases that damage it do not
    // need it.
    int bytes = 0;
    if (VELTMTDGetPartitionInfo(gszDevMtdPartition, nullptr, 0, &bytes) > 0) ReadDirectory();
    initial_records_ = records_;
    testing_support::SyslogRecords().clear();
  }

  // Unmounts the chip (the simulator saves it) and loads the final state.
  void Finish() {
    Unmount();
    std::string error;
    ASSERT_TRUE(flashsim::LoadState(state_, &final_, &error)) << error;
  }

  void Unmount() { sim_test::StopDaemon(kDevFlash, &daemon_); }

  std::string Control(const std::string& command) { return sim_test::Control(kDevFlash, command); }

  void Fault(const std::string& command) { ASSERT_EQ("OK\n", Control(command)) << command; }

  // Marks the trace; TraceSince(mark) returns the operations after it.
  void Mark(const std::string& text) { ASSERT_EQ("OK\n", Control("trace " + text)); }

  std::vector<std::string> TraceSince(const std::string& mark) const {
    const std::vector<std::string> lines = sim_test::ReadLines(state_ + "/trace.log");
    auto at = std::find(lines.begin(), lines.end(), "mark " + mark);
    if (at == lines.end()) return {"<no mark " + mark + ">"};
    return std::vector<std::string>(at + 1, lines.end());
  }

  // The operations `op` on `device` ("mtd1") after the mark, as "offset length result".
  std::vector<std::string> Operations(const std::string& mark, const std::string& op,
                                      const std::string& device) const {
    std::vector<std::string> found;
    const std::string prefix = op + " " + device + " ";
    for (const std::string& line : TraceSince(mark)) {
      if (line.compare(0, prefix.size(), prefix) == 0) found.push_back(line.substr(prefix.size()));
    }
    return found;
  }

  void SetWorkDir(const std::string& path) {
    ASSERT_EQ(0, system(("mkdir -p '" + path + "'").c_str()));
    ASSERT_LT(path.size(), sizeof(gszWorkDir));
    snprintf(gszWorkDir, sizeof(gszWorkDir), "%s", path.c_str());
    ASSERT_EQ(0, chdir(gszWorkDir));
  }

  void ReadDirectory() {
    int bytes = 0;
    const int count = VELTMTDGetPartitionInfo(gszDevMtdPartition, nullptr, 0, &bytes);
    ASSERT_GT(count, 0);
    records_.assign(static_cast<size_t>(bytes), 0);
    ASSERT_EQ(count, VELTMTDGetPartitionInfo(gszDevMtdPartition, records_.data(), bytes, &bytes));
    count_ = count;
  }

  // The directory as the flash holds it now, through the flash module.
  std::vector<DirectoryEntry> DirectoryNow() {
    ReadDirectory();
    return Entries(records_);
  }

  static std::vector<DirectoryEntry> Entries(const std::vector<unsigned char>& records) {
    std::vector<DirectoryEntry> entries;
    for (size_t at = 0; at + flashsim::kFisRecordSize <= records.size();
         at += flashsim::kFisRecordSize) {
      const flashsim::FisRecord record = flashsim::DecodeFisRecord(&records[at]);
      entries.push_back({record.name, record.flash_base, record.size, record.data_length});
    }
    return entries;
  }

  // Writes a package file into the working directory and returns its bytes.
  std::string Package(const std::string& file, uint32_t seed, size_t length) {
    std::string bytes = ImageBytes(seed, length);
    testing_support::WriteFile(std::string(gszWorkDir) + "/" + file, bytes);
    return bytes;
  }

  void Plan() { ASSERT_EQ(0, UPDTInitPatchInfo(records_.data(), count_)); }

  const PartitionLayout& Part(const std::string& name) const {
    for (const PartitionLayout& partition : initial_.layout.partitions) {
      if (partition.name == name) return partition;
    }
    static PartitionLayout none;
    ADD_FAILURE() << "no partition " << name;
    return none;
  }

  std::string Device(const std::string& name) const {
    return "/dev/mtd" + std::to_string(Part(name).index);
  }
  std::string Mtd(const std::string& name) const {
    return "mtd" + std::to_string(Part(name).index);
  }
  std::string FisMtd() const { return "mtd" + std::to_string(board_.fis_device); }

  size_t Offset(uint32_t address) const { return address - initial_.layout.chip_base; }

  std::vector<uint8_t> Bytes(const std::vector<uint8_t>& image, uint32_t base,
                             uint32_t size) const {
    return std::vector<uint8_t>(image.begin() + Offset(base), image.begin() + Offset(base) + size);
  }

  // Expected: the range erased and `data` programmed at its start.
  void ExpectRewritten(uint32_t base, uint32_t size, const std::string& data) {
    std::fill(expected_.begin() + Offset(base), expected_.begin() + Offset(base) + size, 0xFF);
    std::copy(data.begin(), data.end(), expected_.begin() + Offset(base));
  }

  // Expected: the directory record `name` with a new geometry.
  void ExpectFisEntry(const std::string& name, uint32_t base, uint32_t size, uint32_t length) {
    const PartitionLayout& directory = *initial_.layout.Find(board_.fis_device);
    for (size_t at = Offset(directory.base); expected_[at] != 0xFF;
         at += flashsim::kFisRecordSize) {
      flashsim::FisRecord record = flashsim::DecodeFisRecord(&expected_[at]);
      if (record.name != name) continue;
      record.flash_base = base;
      record.size = size;
      record.data_length = length;
      flashsim::EncodeFisRecord(record, &expected_[at]);
      return;
    }
    ADD_FAILURE() << "no directory record " << name;
  }

  // Lock bits of every block of `partition` in `locked` (one per block of
  // the chip `layout`).
  static void SetLocks(const flashsim::ChipLayout& layout, const PartitionLayout& partition,
                       uint8_t value, std::vector<uint8_t>* locked) {
    const uint32_t first = (partition.base - layout.chip_base) / layout.erase_size;
    for (uint32_t i = 0; i < partition.size / layout.erase_size; ++i) {
      (*locked)[first + i] = value;
    }
  }

  // Expected: every block of `partition` locked (1) or unlocked (0).
  void ExpectLocks(const PartitionLayout& partition, uint8_t value) {
    SetLocks(initial_.layout, partition, value, &expected_locks_);
  }

  // Expected: every partition but the two directory partitions locked (1) or
  // unlocked (0), as UPDTLockAll leaves them.
  void ExpectAllLocks(uint8_t value) {
    for (const PartitionLayout& partition : initial_.layout.partitions) {
      if (partition.name != "RedBoot Config" && partition.name != "FIS Directory") {
        ExpectLocks(partition, value);
      }
    }
  }

  // What UPDTUnlockAllPartition leaves.
  void ExpectUnlocked() { ExpectAllLocks(0); }

  void ExpectChip() {
    EXPECT_TRUE(SameChip(final_.image, expected_, initial_.layout.chip_base));
    EXPECT_EQ(expected_locks_, final_.locked);
  }

  Board board_ = kNor8;
  std::unique_ptr<testing_support::TempDir> dir_;
  std::string state_;
  pid_t daemon_ = -1;
  ChipState initial_;
  ChipState final_;
  std::vector<uint8_t> expected_;
  std::vector<uint8_t> expected_locks_;
  std::vector<unsigned char> records_;
  std::vector<unsigned char> initial_records_;  // the directory before the update
  int count_ = 0;
};

#define START_OR_RETURN(...)                      \
  do {                                            \
    Start(__VA_ARGS__);                           \
    if (IsSkipped() || HasFatalFailure()) return; \
  } while (0)

// ---- lock and unlock ----

TEST_P(FlashPatchTest, LockAllLocksEveryPartitionButTheDirectoryPartitions) {
  START_OR_RETURN(GetParam(), nullptr, false);
  EXPECT_EQ(0, UPDTLockAll(1));
  Finish();
  ExpectAllLocks(1);
  ExpectChip();
}

TEST_P(FlashPatchTest, LockAllStopsAtTheFirstPartitionThatRefuses) {
  START_OR_RETURN(GetParam(), nullptr, false);
  Fault("fault lock mtd2 every errno=EIO");
  EXPECT_EQ(-1, UPDTLockAll(1));
  EXPECT_TRUE(Logged(LOG_ERR, "UPDTLockAll: VELTMTDLockPartition(/dev/mtd2) fail"));
  Finish();
  ExpectLocks(*initial_.layout.Find(0), 1);
  ExpectLocks(*initial_.layout.Find(1), 1);
  ExpectChip();
}

// ---- backup ----

TEST_P(FlashPatchTest, BackupHoldsEveryPartitionByteForByteInAnEmptiedDirectory) {
  START_OR_RETURN(GetParam());
  const std::string backup = std::string(gszWorkDir) + "/" + UPDT_BACKUP_DIR;
  ASSERT_EQ(0, mkdir(backup.c_str(), 0755));
  testing_support::WriteFile(backup + "/stale", "from an earlier run");

  ASSERT_EQ(0, UPDTBackupOldPartition(records_.data(), count_));

  std::set<std::string> files;
  DIR* dir = opendir(backup.c_str());
  ASSERT_NE(nullptr, dir);
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') files.insert(entry->d_name);
  }
  closedir(dir);
  std::set<std::string> expected_files;
  for (const DirectoryEntry& entry : Entries(records_)) {
    expected_files.insert("mtd_" + entry.name);
    const PartitionLayout& partition = Part(entry.name);
    EXPECT_TRUE(sim_test::ReadBytes(backup + "/mtd_" + entry.name) ==
                Bytes(initial_.image, partition.base, partition.size))
        << entry.name;
  }
  EXPECT_EQ(expected_files, files);
  EXPECT_EQ("P:" + std::to_string(30 + 5 * (count_ - 1)), Progress());
  EXPECT_TRUE(Logged(LOG_ERR, "szCmd=[/bin/rm -rf " + backup + "; /bin/mkdir -p " + backup + "]"));
  EXPECT_TRUE(Logged(LOG_ERR, "UPDTBackupOldPartition(N): command=[/bin/dd if=\"/dev/mtd" +
                                  std::to_string(Part("RedBoot Config").index) + "\" of=\"" +
                                  backup + "/mtd_RedBoot Config\" bs=16384]"));
  Finish();
  ExpectChip();
}

TEST_P(FlashPatchTest, BackupFailsForADirectoryRecordMissingFromTheNameTable) {
  START_OR_RETURN(GetParam(), [](ChipState* state) {
    // One more record after the board's own: a partition the tables do not know.
    const PartitionLayout& directory = *state->layout.Find(state->layout.fis_device);
    const size_t records = state->layout.partitions.size();
    flashsim::FisRecord spare;
    spare.name = "spare";
    spare.flash_base = directory.base;
    spare.size = directory.size;
    flashsim::EncodeFisRecord(
        spare, &state->image[directory.base - state->layout.chip_base + records * 256]);
  });
  ASSERT_EQ(static_cast<int>(initial_.layout.partitions.size()) + 1, count_);

  EXPECT_EQ(-1, UPDTBackupOldPartition(records_.data(), count_));

  EXPECT_TRUE(Logged(LOG_ERR, "UPDTBackupOldPartition(N): fail to get device path"));
  EXPECT_EQ("P:" + std::to_string(30 + 5 * (count_ - 2)), Progress());
  const std::string backup = std::string(gszWorkDir) + "/" + UPDT_BACKUP_DIR;
  EXPECT_FALSE(testing_support::FileExists(backup + "/mtd_spare"));
  EXPECT_TRUE(testing_support::FileExists(backup + "/mtd_FIS Directory"));
  Finish();
  ExpectChip();
}

TEST_P(FlashPatchTest, BackupStopsWhenAPartitionCannotBeRead) {
  START_OR_RETURN(GetParam());
  Fault("fault read mtd2 every errno=EIO");

  EXPECT_EQ(-1, UPDTBackupOldPartition(records_.data(), count_));

  // Directory order is device order on these boards: records 0 and 1 done.
  EXPECT_EQ("P:35", Progress());
  const std::string backup = std::string(gszWorkDir) + "/" + UPDT_BACKUP_DIR;
  EXPECT_TRUE(testing_support::FileExists(backup + "/mtd_zImage"));
  EXPECT_FALSE(testing_support::FileExists(backup + "/mtd_vendor"));
  const std::vector<std::string> failures = LogLinesWith({"failed to execute"});
  ASSERT_EQ(1u, failures.size());
  EXPECT_NE(std::string::npos, failures[0].find("/bin/dd if=\"/dev/mtd2\""));
  Finish();
  ExpectChip();
}

TEST_P(FlashPatchTest, BackupCommandThatDoesNotFitItsBufferIsNotRun) {
  START_OR_RETURN(GetParam());
  // 2 x 120 characters of working directory do not fit 256 bytes.
  const std::string work = dir_->path() + "/" + std::string(120 - dir_->path().size() - 1, 'w');
  SetWorkDir(work);
  ASSERT_EQ(120u, strlen(gszWorkDir));
  const std::string backup = work + "/" + UPDT_BACKUP_DIR;
  ASSERT_EQ(0, mkdir(backup.c_str(), 0755));
  testing_support::WriteFile(backup + "/kept", "x");

  EXPECT_EQ(-1, UPDTBackupOldPartition(records_.data(), count_));

  EXPECT_EQ((std::vector<std::string>{"UPDTBackupOldPartition(N): command too long [/bin/rm -rf " +
                                      backup + "; /bin/mkdir -p " + backup + "]"}),
            LoggedMessages(-1));
  EXPECT_TRUE(testing_support::FileExists(backup + "/kept"));
  DIR* dir = opendir(work.c_str());
  ASSERT_NE(nullptr, dir);
  int entries = 0;
  while (dirent* entry = readdir(dir)) entries += entry->d_name[0] != '.';
  closedir(dir);
  EXPECT_EQ(1, entries) << "only the backup directory";
  EXPECT_EQ("<missing>", testing_support::ReadFile(UPDT_PROGRESS_FILE));
  Finish();
  ExpectChip();
}

TEST_P(FlashPatchTest, NullOrEmptyDirectoryIsAParameterErrorAndTouchesNothing) {
  START_OR_RETURN(GetParam());
  Mark("calls");
  EXPECT_EQ(-1, UPDTBackupOldPartition(nullptr, count_));
  EXPECT_EQ(-1, UPDTDoPatch(records_.data(), 0));
  EXPECT_EQ(-1, UPDTRollBack(nullptr, 3));
  EXPECT_EQ((std::vector<std::string>{"UPDTBackupOldPartition(N): parameter error ",
                                      "UPDTDoPatch(N): parameter error ",
                                      "UPDTRollBack(N): parameter error "}),
            LoggedMessages(LOG_ERR));
  EXPECT_EQ(std::vector<std::string>(), TraceSince("calls"));
  Finish();
  ExpectChip();
}

// ---- patch ----

TEST_P(FlashPatchTest, PatchWritesTheNewImagesAndLeavesTheOtherPartitionsAlone) {
  START_OR_RETURN(GetParam());
  const PartitionLayout& kernel = Part("zImage");
  const PartitionLayout& ramdisk = Part("rd.gz");
  const std::string new_kernel = Package("zImage", 11, kernel.size - 0x8000 - 123);
  const std::string new_ramdisk = Package("rd.bin", 12, ramdisk.size / 2 + 77);
  Plan();
  UPDTSetProgress('P', 20);
  Mark("patch");
  testing_support::SyslogRecords().clear();

  ASSERT_EQ(0, UPDTDoPatch(records_.data(), count_));

  EXPECT_EQ(2 * static_cast<uint64_t>(new_kernel.size() + new_ramdisk.size()), gullUpdateTotal);
  EXPECT_EQ("P:100", Progress());
  std::vector<std::string> expected_log;
  for (int i = 0; i < gPartitionCount; ++i) {
    const std::string part = gPartitionTable[i].part;
    if (part == "zImage" || part == "rd.gz") {
      expected_log.push_back("UPDTDoPatch: Finish updating [" + part + "]");
    } else {
      expected_log.push_back("UPDTDoPatch: skip updating [" + part + "]");
    }
  }
  EXPECT_EQ(expected_log, LogLinesWith({"skip updating", "Finish updating"}));
  EXPECT_EQ(LoggedMessages(-1), LoggedMessages(LOG_ERR));  // every line at error priority
  // Only the updated partitions are moved, erased or written.
  for (const std::string& line : TraceSince("patch")) {
    if (line.rfind("erase ", 0) == 0 || line.rfind("write ", 0) == 0 ||
        line.rfind("set-extent ", 0) == 0) {
      EXPECT_TRUE(line.find(" " + Mtd("zImage") + " ") != std::string::npos ||
                  line.find(" " + Mtd("rd.gz") + " ") != std::string::npos)
          << line;
    }
  }
  std::vector<DirectoryEntry> directory = Entries(records_);
  for (DirectoryEntry& entry : directory) {
    if (entry.name == "zImage") entry.data_length = static_cast<uint32_t>(new_kernel.size());
    if (entry.name == "rd.gz") entry.data_length = static_cast<uint32_t>(new_ramdisk.size());
  }
  EXPECT_EQ(directory, DirectoryNow());

  Finish();
  ExpectRewritten(kernel.base, kernel.size, new_kernel);
  ExpectRewritten(ramdisk.base, ramdisk.size, new_ramdisk);
  ExpectFisEntry("zImage", kernel.base, kernel.size, static_cast<uint32_t>(new_kernel.size()));
  ExpectFisEntry("rd.gz", ramdisk.base, ramdisk.size, static_cast<uint32_t>(new_ramdisk.size()));
  ExpectUnlocked();
  ExpectChip();
  EXPECT_EQ(Extents(initial_.layout), Extents(final_.layout));
}

TEST_P(FlashPatchTest, PatchErasesWholePartitionThenWrites16KiBThenReads8KiB) {
  START_OR_RETURN(GetParam());
  const PartitionLayout& kernel = Part("zImage");
  const size_t length = 5 * 16384 + 1000;
  Package("zImage", 21, length);
  Plan();
  Mark("patch");

  ASSERT_EQ(0, UPDTDoPatch(records_.data(), count_));

  char text[64];
  std::vector<std::string> expected;
  snprintf(text, sizeof(text), "set-extent %s 0x%08x 0x%08x ok", Mtd("zImage").c_str(), kernel.base,
           kernel.size);
  expected.push_back(text);
  snprintf(text, sizeof(text), "erase %s 0x00000000 0x%08x ok", Mtd("zImage").c_str(), kernel.size);
  expected.push_back(text);
  for (size_t at = 0; at < length; at += 16384) {
    snprintf(text, sizeof(text), "write %s 0x%08zx %zu ok", Mtd("zImage").c_str(), at,
             std::min<size_t>(16384, length - at));
    expected.push_back(text);
  }
  for (size_t at = 0; at < length; at += 8192) {
    snprintf(text, sizeof(text), "read %s 0x%08zx %zu ok", Mtd("zImage").c_str(), at,
             std::min<size_t>(8192, length - at));
    expected.push_back(text);
  }
  snprintf(text, sizeof(text), "set-fis %s 0x%08x 0x%08x ok", FisMtd().c_str(), kernel.base,
           kernel.size);
  expected.push_back(text);
  std::vector<std::string> actual;
  for (const std::string& line : TraceSince("patch")) {
    const std::string op = line.substr(0, line.find(' '));
    if (op != "open" && op != "getinfo" && op != "unlock") actual.push_back(line);
  }
  EXPECT_EQ(expected, actual);
}

TEST_P(FlashPatchTest, NothingMarkedForUpdateOnlyUnlocksAndSkips) {
  START_OR_RETURN(GetParam());
  Plan();
  testing_support::SyslogRecords().clear();
  Mark("patch");

  EXPECT_EQ(0, UPDTDoPatch(records_.data(), count_));

  std::vector<std::string> expected_log;
  for (int i = 0; i < gPartitionCount; ++i) {
    expected_log.push_back(std::string("UPDTDoPatch: skip updating [") + gPartitionTable[i].part +
                           "]");
  }
  EXPECT_EQ(expected_log, LoggedMessages(-1));
  std::set<std::string> unlocked;
  for (const std::string& line : TraceSince("patch")) {
    const std::string op = line.substr(0, line.find(' '));
    EXPECT_TRUE(op == "open" || op == "getinfo" || op == "unlock") << line;
    if (op == "unlock") unlocked.insert(line.substr(7, line.find(' ', 7) - 7));
  }
  std::set<std::string> expected_unlocked;
  for (const PartitionLayout& partition : initial_.layout.partitions) {
    if (partition.name != "RedBoot Config" && partition.name != "FIS Directory") {
      expected_unlocked.insert("mtd" + std::to_string(partition.index));
    }
  }
  EXPECT_EQ(expected_unlocked, unlocked);
  Finish();
  ExpectUnlocked();
  ExpectChip();
}

TEST_P(FlashPatchTest, VerifyFailingThreeTimesGivesUpWithoutTouchingTheDirectory) {
  START_OR_RETURN(GetParam());
  const PartitionLayout& kernel = Part("zImage");
  const std::string new_kernel = Package("zImage", 31, 0x30000 + 500);
  Package("rd.bin", 32, 0x20000);
  Plan();
  Fault("fault worn-block " + Mtd("zImage") + " 0x10000");
  Mark("patch");

  EXPECT_EQ(-1, UPDTDoPatch(records_.data(), count_));

  const std::string device = Device("zImage");
  const std::string source = std::string(gszWorkDir) + "/zImage";
  std::vector<std::string> expected_log;
  for (int attempt = 0; attempt < 3; ++attempt) {
    const std::string count = "[" + std::to_string(attempt) + "/3]...";
    expected_log.push_back("flash_patch.cpp:N(UPDTDoPatch) Try to Erase MTD Partition(" + device +
                           "), " + count);
    expected_log.push_back("flash_patch.cpp:N(UPDTDoPatch) Try to Write MTD Partition(" + device +
                           "), " + count);
    expected_log.push_back("flash_patch.cpp:N(UPDTDoPatch) Try to Verify MTD Partition(" + device +
                           "), " + count);
    expected_log.push_back("file_copy.cpp:N(UPDTVerifyFile) compare file [" + source + "] vs [" +
                           device + "] error at offset 0x10000");
  }
  expected_log.push_back("flash_patch.cpp:N(UPDTDoPatch) Try to Update [" + device +
                         "] 3 counts failed ...");
  EXPECT_EQ(expected_log, LogLinesWith({"MTD Partition(", "compare file", "counts failed"}));
  EXPECT_TRUE(Logged(LOG_ERR, expected_log.back()));
  EXPECT_TRUE(Logged(LOG_ERR, expected_log[0]));
  EXPECT_EQ(3u, Operations("patch", "erase", Mtd("zImage")).size());
  EXPECT_EQ(std::vector<std::string>(), Operations("patch", "erase", Mtd("rd.gz")));
  EXPECT_EQ(std::vector<std::string>(), Operations("patch", "set-fis", FisMtd()));

  Finish();
  // The worn block keeps bit 0 of every programmed byte at 1.
  std::string programmed = new_kernel;
  for (size_t i = 0x10000; i < 0x20000; ++i) programmed[i] = static_cast<char>(programmed[i] | 1);
  ExpectRewritten(kernel.base, kernel.size, programmed);
  ExpectUnlocked();
  ExpectChip();
}

TEST_P(FlashPatchTest, VerifyFailureIsRetriedAndTheSecondAttemptFinishesThePartition) {
  START_OR_RETURN(GetParam());
  const PartitionLayout& kernel = Part("zImage");
  const std::string new_kernel = Package("zImage", 41, 0x28000);
  Plan();
  Fault("fault corrupt-next-write " + Mtd("zImage"));
  Mark("patch");

  EXPECT_EQ(0, UPDTDoPatch(records_.data(), count_));

  EXPECT_EQ("P:100", Progress());  // the retried bytes count once
  const std::vector<std::string> attempts =
      LogLinesWith({"Try to Erase", "Try to Verify", "Finish updating"});
  const std::string device = Device("zImage");
  EXPECT_EQ(
      (std::vector<std::string>{
          "flash_patch.cpp:N(UPDTDoPatch) Try to Erase MTD Partition(" + device + "), [0/3]...",
          "flash_patch.cpp:N(UPDTDoPatch) Try to Verify MTD Partition(" + device + "), [0/3]...",
          "flash_patch.cpp:N(UPDTDoPatch) Try to Erase MTD Partition(" + device + "), [1/3]...",
          "flash_patch.cpp:N(UPDTDoPatch) Try to Verify MTD Partition(" + device + "), [1/3]...",
          "UPDTDoPatch: Finish updating [zImage]"}),
      attempts);
  EXPECT_EQ(2u, Operations("patch", "erase", Mtd("zImage")).size());
  Finish();
  ExpectRewritten(kernel.base, kernel.size, new_kernel);
  ExpectFisEntry("zImage", kernel.base, kernel.size, static_cast<uint32_t>(new_kernel.size()));
  ExpectUnlocked();
  ExpectChip();
}

TEST_P(FlashPatchTest, FirstUpdatedPartitionStartsEveryAttemptAtSixty) {
  START_OR_RETURN(GetParam());
  Package("zImage", 51, 0x20000);
  Plan();
  UPDTSetProgress('P', 20);
  Fault("fault erase " + Mtd("zImage") + " every errno=EIO");
  Mark("patch");

  EXPECT_EQ(-1, UPDTDoPatch(records_.data(), count_));

  EXPECT_EQ("P:60", Progress());
  EXPECT_EQ(3u, Operations("patch", "erase", Mtd("zImage")).size());
  EXPECT_EQ(std::vector<std::string>(), Operations("patch", "write", Mtd("zImage")));
  EXPECT_EQ(3u, LogLinesWith({"UPDTDoPatch: VELTMTDErasePartition() fail"}).size());
  EXPECT_TRUE(Logged(LOG_ERR, "flash_patch.cpp:N(UPDTDoPatch) Try to Update [" + Device("zImage") +
                                  "] 3 counts failed ..."));
  Finish();
  ExpectUnlocked();
  ExpectChip();
}

TEST_P(FlashPatchTest, LaterPartitionStartsAtTheShareOfThePartitionsFinishedBeforeIt) {
  START_OR_RETURN(GetParam());
  const uint64_t kernel = 0x24000 + 7;
  const uint64_t ramdisk = 0x31000 + 3;
  Package("zImage", 61, kernel);
  Package("rd.bin", 62, ramdisk);
  Plan();
  // The kernel needs a second attempt, whose bytes count once: the next
  // partition starts at the kernel's share of the work.
  Fault("fault corrupt-next-write " + Mtd("zImage"));
  Fault("fault erase " + Mtd("rd.gz") + " every errno=EIO");

  EXPECT_EQ(-1, UPDTDoPatch(records_.data(), count_));

  const uint64_t total = 2 * (kernel + ramdisk);
  EXPECT_EQ(total, gullUpdateTotal);
  EXPECT_EQ(2 * kernel, gullUpdateDone);
  EXPECT_EQ("P:" + std::to_string(60 + 40 * (2 * kernel) / total), Progress());
}

TEST_P(FlashPatchTest, RetryStartsWhereTheFailedAttemptLeftTheProgress) {
  START_OR_RETURN(GetParam());
  Package("zImage", 63, 0x24000);
  Plan();
  // The first attempt writes the whole image and fails its verify at once;
  // the retries fail at their erase.
  Fault("fault corrupt-next-write " + Mtd("zImage"));
  Fault("fault erase " + Mtd("zImage") + " nth=2 errno=EIO");
  Fault("fault erase " + Mtd("zImage") + " nth=3 errno=EIO");

  EXPECT_EQ(-1, UPDTDoPatch(records_.data(), count_));
  EXPECT_EQ("P:80", Progress());
}

TEST_P(FlashPatchTest, FailedExtentEndsThePatchWithoutRetry) {
  START_OR_RETURN(GetParam());
  Package("zImage", 71, 0x20000);
  Package("rd.bin", 72, 0x20000);
  Plan();
  Fault("fault set-extent " + Mtd("zImage") + " every errno=EINVAL");
  Mark("patch");

  EXPECT_EQ(-1, UPDTDoPatch(records_.data(), count_));

  EXPECT_TRUE(Logged(LOG_ERR, "UPDTDoPatch: VELTMTDModifyPartitionSize() fail"));
  EXPECT_EQ(1u, Operations("patch", "set-extent", Mtd("zImage")).size());
  for (const std::string& line : TraceSince("patch")) {
    const std::string op = line.substr(0, line.find(' '));
    EXPECT_TRUE(op == "open" || op == "getinfo" || op == "unlock" || op == "set-extent") << line;
  }
  EXPECT_EQ(std::vector<std::string>(), LogLinesWith({"Try to"}));
  Finish();
  ExpectUnlocked();
  ExpectChip();
}

TEST_P(FlashPatchTest, FailedDirectoryEntryEndsThePatchWithoutRetry) {
  START_OR_RETURN(GetParam());
  const PartitionLayout& kernel = Part("zImage");
  const std::string new_kernel = Package("zImage", 81, 0x20000 + 99);
  Package("rd.bin", 82, 0x20000);
  Plan();
  Fault("fault set-fis " + FisMtd() + " nth=1 errno=EIO");
  Mark("patch");

  EXPECT_EQ(-1, UPDTDoPatch(records_.data(), count_));

  EXPECT_TRUE(Logged(LOG_ERR, "UPDTDoPatch: VELTMTDModifyFISEntry() fail"));
  EXPECT_EQ(1u, Operations("patch", "erase", Mtd("zImage")).size());
  EXPECT_EQ(1u, Operations("patch", "set-fis", FisMtd()).size());
  EXPECT_EQ(std::vector<std::string>(), Operations("patch", "erase", Mtd("rd.gz")));
  EXPECT_EQ(std::vector<std::string>(), LogLinesWith({"Finish updating"}));
  Finish();
  ExpectRewritten(kernel.base, kernel.size, new_kernel);
  ExpectUnlocked();
  ExpectChip();
}

// ---- roll-back ----

// Backs up, then patches RedBoot (succeeds), zImage (fails on a worn block
// at its start) and never reaches rd.gz; the worn block is gone again
// before the roll-back.
class FlashPatchRollBackTest : public FlashPatchTest {
 protected:
  void PatchThatFails() {
    ASSERT_EQ(0, UPDTBackupOldPartition(records_.data(), count_));
    patched_boot_loader_ = Package("RedBoot.msys", 91, 0x20000 + 5);
    patched_kernel_ = Package("zImage", 92, 0x30000);
    Package("rd.bin", 93, 0x18000);
    Plan();
    Fault("fault worn-block " + Mtd("zImage") + " 0x0");
    ASSERT_EQ(-1, UPDTDoPatch(records_.data(), count_));
    // The patch did change the directory (RedBoot's entry) before it failed.
    const std::vector<DirectoryEntry> now = DirectoryNow();
    ASSERT_NE(Entries(initial_records_), now);
    records_ = initial_records_;
    count_ = static_cast<int>(records_.size() / flashsim::kFisRecordSize);
    Fault("fault clear");
    testing_support::SyslogRecords().clear();
  }

  std::string patched_boot_loader_;
  std::string patched_kernel_;
};

TEST_P(FlashPatchRollBackTest, RestoresThePartitionsThePatchTouchedAndTheOldDirectory) {
  START_OR_RETURN(GetParam());
  PatchThatFails();
  if (HasFatalFailure()) return;
  Mark("rollback");

  ASSERT_EQ(0, UPDTRollBack(records_.data(), count_));

  const std::string backup = std::string(gszWorkDir) + "/" + UPDT_BACKUP_DIR;
  std::vector<std::string> expected_log;
  for (int i = 0; i < gPartitionCount; ++i) {
    const std::string part = gPartitionTable[i].part;
    if (part == "RedBoot" || part == "zImage") {
      const std::string device = Device(part);
      expected_log.push_back("flash_patch.cpp:N(UPDTRollBack) VELTMTDErasePartition(" + device +
                             ")...");
      expected_log.push_back("UPDTRollBack(N): command=[/bin/dd if=\"" + backup + "/mtd_" + part +
                             "\" of=\"" + device + "\" bs=131072]");
    } else {
      expected_log.push_back("UPDTRollBack: skip recoverying [" + part + "]");
    }
  }
  EXPECT_EQ(expected_log, LogLinesWith({"UPDTRollBack"}));
  // rd.gz was never reached by the patch: nothing to restore.
  EXPECT_EQ(std::vector<std::string>(), Operations("rollback", "erase", Mtd("rd.gz")));
  EXPECT_EQ(Entries(initial_records_), DirectoryNow());

  Finish();
  ExpectUnlocked();
  ExpectChip();
  EXPECT_EQ(Extents(initial_.layout), Extents(final_.layout));
}

TEST_P(FlashPatchRollBackTest, GoesOnPastAPartitionThatCannotBeErased) {
  START_OR_RETURN(GetParam());
  PatchThatFails();
  if (HasFatalFailure()) return;
  Fault("fault erase " + Mtd("RedBoot") + " every errno=EIO");
  Mark("rollback");

  EXPECT_EQ(-1, UPDTRollBack(records_.data(), count_));

  EXPECT_TRUE(Logged(LOG_ERR, "UPDTRollBack: VELTMTDErasePartition() fail"));
  EXPECT_TRUE(Logged(LOG_ERR, "flash_patch.cpp:N(UPDTRollBack) Try to Recover [" +
                                  Device("RedBoot") + "] 3 counts failed ..."));
  EXPECT_EQ(3u, Operations("rollback", "erase", Mtd("RedBoot")).size());
  // The kernel after it is restored all the same, and both directory
  // entries are the old ones again; RedBoot keeps what the patch wrote.
  EXPECT_EQ(Entries(initial_records_), DirectoryNow());
  Finish();
  const PartitionLayout& boot_loader = Part("RedBoot");
  ExpectRewritten(boot_loader.base, boot_loader.size, patched_boot_loader_);
  ExpectUnlocked();
  ExpectChip();
}

TEST_P(FlashPatchTest, RollBackCommandThatDoesNotFitItsBufferIsNotRun) {
  START_OR_RETURN(GetParam());
  // A working directory of 220 characters: the restore command needs more
  // than 256 bytes.
  const std::string work = dir_->path() + "/" + std::string(220 - dir_->path().size() - 1, 'w');
  SetWorkDir(work);
  const PartitionLayout& kernel = Part("zImage");
  const std::string backup = work + "/" + UPDT_BACKUP_DIR;
  ASSERT_EQ(0, mkdir(backup.c_str(), 0755));
  const std::vector<uint8_t> old = Bytes(initial_.image, kernel.base, kernel.size);
  testing_support::WriteFile(backup + "/mtd_zImage", std::string(old.begin(), old.end()));
  const std::string new_kernel = Package("zImage", 101, 0x20000);
  Plan();
  // The kernel is rewritten, then its directory entry fails.
  Fault("fault set-fis " + FisMtd() + " every errno=EIO");
  ASSERT_EQ(-1, UPDTDoPatch(records_.data(), count_));
  Fault("fault clear");
  testing_support::SyslogRecords().clear();

  EXPECT_EQ(-1, UPDTRollBack(records_.data(), count_));

  const std::string command =
      "/bin/dd if=\"" + backup + "/mtd_zImage\" of=\"" + Device("zImage") + "\" bs=131072";
  ASSERT_GE(command.size(), 256u);
  EXPECT_TRUE(Logged(LOG_ERR, "UPDTRollBack(N): command too long [" + command + "]"));
  EXPECT_EQ(std::vector<std::string>(), LogLinesWith({"command=["}));
  Finish();
  // Nothing is erased for a copy that cannot run.
  ExpectRewritten(kernel.base, kernel.size, new_kernel);
  ExpectUnlocked();
  ExpectChip();
}

// ---- rebalancing ----

class FlashPatchRebalanceTest : public FlashPatchTest {};

TEST_F(FlashPatchRebalanceTest, Nor8GrowingKernelTakesABlockFromTheRamdiskWhichMovesUp) {
  START_OR_RETURN(kNor8);
  const PartitionLayout& kernel = Part("zImage");
  const PartitionLayout& ramdisk = Part("rd.gz");
  // 25 blocks where the kernel partition has 24; the ramdisk image leaves
  // the ramdisk partition the most blocks to give.
  const std::string new_kernel = Package("zImage", 111, kernel.size + 0x1234);
  const std::string new_ramdisk = Package("rd.bin", 112, ramdisk.data_length + 5);
  Plan();
  Mark("patch");

  ASSERT_EQ(0, UPDTDoPatch(records_.data(), count_));

  EXPECT_TRUE(Logged(LOG_ERR, "UPDTDoPatch(N): NEED RESIZE THE PARTITION"));
  const uint32_t block = initial_.layout.erase_size;
  Finish();
  std::vector<Extent> extents = Extents(initial_.layout);
  extents[1] = {"zImage", kernel.base, kernel.size + block};
  extents[2] = {"rd.gz", ramdisk.base + block, ramdisk.size - block};
  EXPECT_EQ(extents, Extents(final_.layout));
  ExpectRewritten(kernel.base, kernel.size + block, new_kernel);
  ExpectRewritten(ramdisk.base + block, ramdisk.size - block, new_ramdisk);
  ExpectFisEntry("zImage", kernel.base, kernel.size + block,
                 static_cast<uint32_t>(new_kernel.size()));
  ExpectFisEntry("rd.gz", ramdisk.base + block, ramdisk.size - block,
                 static_cast<uint32_t>(new_ramdisk.size()));
  ExpectUnlocked();
  ExpectChip();
}

// A partition that only moves has no image in the package: it is marked
// for rewriting, its old contents are erased at the new place and its
// image file cannot be opened, so the patch fails; the roll-back puts the
// whole chip back.
TEST_F(FlashPatchRebalanceTest,
       Nor8MovedPartitionWithoutPackageFileFailsAndRollBackRestoresTheChip) {
  START_OR_RETURN(kNor8);
  const PartitionLayout& kernel = Part("zImage");
  ASSERT_EQ(0, UPDTBackupOldPartition(records_.data(), count_));
  const std::vector<unsigned char> old_records = records_;
  const std::string new_kernel = Package("zImage", 121, kernel.size + 0x10);
  Plan();
  Mark("patch");

  EXPECT_EQ(-1, UPDTDoPatch(records_.data(), count_));

  const std::string source = std::string(gszWorkDir) + "/rd.bin";
  EXPECT_EQ(3u, LogLinesWith({"open [" + source + "] error"}).size());
  EXPECT_TRUE(Logged(LOG_ERR,
                     "flash_patch.cpp:N(UPDTDoPatch) Try to Update [/dev/mtd2] 3 counts "
                     "failed ..."));
  EXPECT_EQ(3u, Operations("patch", "erase", "mtd2").size());
  EXPECT_EQ(std::vector<std::string>(), Operations("patch", "write", "mtd2"));
  const uint32_t block = initial_.layout.erase_size;
  std::vector<DirectoryEntry> directory = Entries(old_records);
  directory[1] = {"zImage", kernel.base, kernel.size + block,
                  static_cast<uint32_t>(new_kernel.size())};
  EXPECT_EQ(directory, DirectoryNow());

  records_ = old_records;
  ASSERT_EQ(0, UPDTRollBack(records_.data(), count_));
  EXPECT_EQ(Entries(old_records), DirectoryNow());
  Finish();
  ExpectUnlocked();
  ExpectChip();
  EXPECT_EQ(Extents(initial_.layout), Extents(final_.layout));
}

// On the junior board the table order is not the flash order: the kernel
// (second in the table, first on the flash) grows over the vendor
// partition, which the shift passes over.
TEST_F(FlashPatchRebalanceTest, Junior6KernelGrowingPastItsEndOverwritesTheVendorPartition) {
  START_OR_RETURN(kJunior6);
  const PartitionLayout& kernel = Part("zImage");
  const PartitionLayout& ramdisk = Part("rd.gz");
  const PartitionLayout& vendor = Part("vendor");
  const std::string new_kernel = Package("zImage", 131, kernel.size + 0x800);
  const std::string new_ramdisk = Package("rd.bin", 132, 0x50000);
  Plan();
  Mark("patch");

  ASSERT_EQ(0, UPDTDoPatch(records_.data(), count_));

  const uint32_t block = initial_.layout.erase_size;
  ASSERT_EQ(kernel.base + kernel.size, vendor.base);
  const std::vector<std::string> trace = TraceSince("patch");
  EXPECT_NE(trace.end(), std::find(trace.begin(), trace.end(), "overlap mtd1 mtd3"));
  Finish();
  ExpectRewritten(kernel.base, kernel.size + block, new_kernel);
  ExpectRewritten(ramdisk.base + block, ramdisk.size - block, new_ramdisk);
  ExpectFisEntry("zImage", kernel.base, kernel.size + block,
                 static_cast<uint32_t>(new_kernel.size()));
  ExpectFisEntry("rd.gz", ramdisk.base + block, ramdisk.size - block,
                 static_cast<uint32_t>(new_ramdisk.size()));
  ExpectUnlocked();
  ExpectChip();
}

// ---- FIS directory repair ----

// The repaired directory: six records, then erased flash.
std::vector<uint8_t> RepairedDirectory(uint32_t size) {
  struct Row {
    const char* name;
    uint32_t base, size, length;
  };
  const Row rows[] = {
      {"RedBoot", 0xFFF00000, 0x40000, 0x3A448},
      {"zImage", 0xFFE00000, 0xD0000, 0xC5EDA},
      {"rd.gz", 0xFFF40000, 0xB0000, 0xAEE2C},
      {"vendor", 0xFFED0000, 0x10000, 0x10000},
      {"RedBoot Config", 0xFFEE0000, 0x10000, 0x10000},
      {"FIS Directory", 0xFFFF0000, 0x10000, 0x600},
  };
  std::vector<uint8_t> bytes(size, 0xFF);
  for (size_t i = 0; i < 6; ++i) {
    flashsim::FisRecord record;
    record.name = rows[i].name;
    record.flash_base = rows[i].base;
    record.mem_base = rows[i].base;
    record.size = rows[i].size;
    record.data_length = rows[i].length;
    flashsim::EncodeFisRecord(record, &bytes[i * flashsim::kFisRecordSize]);
  }
  return bytes;
}

// Garbage over the whole directory partition: nothing of it survives.
void DamageDirectory(ChipState* state) {
  const PartitionLayout& directory = *state->layout.Find(state->layout.fis_device);
  const std::string garbage = ImageBytes(77, directory.size);
  std::copy(garbage.begin(), garbage.end(),
            state->image.begin() + (directory.base - state->layout.chip_base));
}

TEST_P(FlashPatchTest, RecoverWritesTheBuiltInDirectoryAndLocksItsPartition) {
  START_OR_RETURN(GetParam(), DamageDirectory, false);
  const PartitionLayout& directory = *initial_.layout.Find(board_.fis_device);

  EXPECT_EQ(0, RecoverFISDirTable_K77GPlus_V284());

  EXPECT_EQ(0, SLIBCErrGet());
  Finish();
  const std::vector<uint8_t> repaired = RepairedDirectory(directory.size);
  std::copy(repaired.begin(), repaired.end(), expected_.begin() + Offset(directory.base));
  ExpectLocks(directory, 1);
  ExpectChip();
}

TEST(FlashPatchRepair, BuiltInDirectoryIsTheJuniorBoardsOwn) {
  // The junior layout's directory, as filebay-flash writes it, is the one the
  // repair restores: the first 1536 bytes agree, the rest is erased.
  if (std::string(FLASH_TOOL).empty()) GTEST_SKIP() << "filebay-flash was not built";
  testing_support::TempDir dir;
  const std::string state = dir.File("state");
  ASSERT_EQ("", sim_test::CreateChipState(state, sim_test::BoardLayout(kJunior6.layout)));
  ChipState chip;
  std::string error;
  ASSERT_TRUE(flashsim::LoadState(state, &chip, &error)) << error;
  const PartitionLayout& directory = *chip.layout.Find(chip.layout.fis_device);
  const size_t at = directory.base - chip.layout.chip_base;
  EXPECT_TRUE(
      std::vector<uint8_t>(chip.image.begin() + at, chip.image.begin() + at + directory.size) ==
      RepairedDirectory(directory.size));
}

TEST_P(FlashPatchTest, RecoverWriteFailureSetsTheReadErrorCodeAndLocksAgain) {
  START_OR_RETURN(GetParam(), DamageDirectory, false);
  const PartitionLayout& directory = *initial_.layout.Find(board_.fis_device);
  Fault("fault write " + FisMtd() + " every errno=EIO");

  EXPECT_EQ(-1, RecoverFISDirTable_K77GPlus_V284());

  EXPECT_EQ(SLIB_ERR_READ, SLIBCErrGet());
  EXPECT_TRUE(Logged(LOG_ERR, "flash_patch.cpp:N(RecoverFISDirTable_K77GPlus_V284) write(" +
                                  std::string(gszDevMtdPartition) + ") fail"));
  Finish();
  ExpectRewritten(directory.base, directory.size, "");
  ExpectLocks(directory, 1);
  ExpectChip();
}

TEST_P(FlashPatchTest, RecoverOpenFailureSetsTheOpenErrorCodeAndLocksAgain) {
  START_OR_RETURN(GetParam(), DamageDirectory, false);
  const PartitionLayout& directory = *initial_.layout.Find(board_.fis_device);
  // The unlock and the erase open the device first.
  Fault("fault open " + FisMtd() + " nth=3 errno=EIO");

  EXPECT_EQ(-1, RecoverFISDirTable_K77GPlus_V284());

  EXPECT_EQ(SLIB_ERR_OPEN, SLIBCErrGet());
  EXPECT_TRUE(Logged(LOG_ERR, "flash_patch.cpp:N(RecoverFISDirTable_K77GPlus_V284) open(" +
                                  std::string(gszDevMtdPartition) + ") fail"));
  Finish();
  ExpectRewritten(directory.base, directory.size, "");
  ExpectLocks(directory, 1);
  ExpectChip();
}

TEST_P(FlashPatchTest, RecoverEraseFailureLeavesTheDirectoryAndLocksAgain) {
  START_OR_RETURN(GetParam(), DamageDirectory, false);
  const PartitionLayout& directory = *initial_.layout.Find(board_.fis_device);
  Fault("fault erase " + FisMtd() + " every errno=EIO");

  EXPECT_EQ(-1, RecoverFISDirTable_K77GPlus_V284());

  EXPECT_EQ(0, SLIBCErrGet());
  EXPECT_TRUE(
      Logged(LOG_ERR, "flash_patch.cpp:N(RecoverFISDirTable_K77GPlus_V284) VELTMTDErasePartition(" +
                          std::string(gszDevMtdPartition) + ") fail"));
  Finish();
  ExpectLocks(directory, 1);
  ExpectChip();
}

INSTANTIATE_TEST_SUITE_P(Boards, FlashPatchTest, ::testing::Values(kNor8, kJunior6),
                         [](const ::testing::TestParamInfo<Board>& info) {
                           return std::string(info.param.name);
                         });
INSTANTIATE_TEST_SUITE_P(Boards, FlashPatchRollBackTest, ::testing::Values(kNor8, kJunior6),
                         [](const ::testing::TestParamInfo<Board>& info) {
                           return std::string(info.param.name);
                         });

}  // namespace
