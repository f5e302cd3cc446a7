#include "lib/velt_log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "lib/slib_error.h"
#include "test_support.h"

using testing_support::FileExists;
using testing_support::ReadFile;
using testing_support::WriteFile;

namespace {

constexpr char kConf[] = "/etc/veltlog.conf";
constexpr char kSysLog[] = "/var/log/veltsys.log";
constexpr char kConnLog[] = "/var/log/veltconn.log";
constexpr char kCopyLog[] = "/var/log/veltcopy.log";
constexpr char kTexts[] = "/usr/velt/veltsdk/texts/";
constexpr unsigned long kSeqEvent = 0x11800E02;

const char kCreatedConf[] =
    "syslogfile\t=\t\"/var/log/veltsys.log\"\n"
    "syslogfilesize_MAX\t=\t\"65536\"\n"
    "manlogfile\t=\t\"/var/log/veltman1.log\"\n"
    "manlogfilesize_MAX\t=\t\"65536\"\n"
    "connlogfile\t=\t\"/var/log/veltconn.log\"\n"
    "connlogfilesize_MAX\t=\t\"65536\"\n"
    "bkplogfile\t=\t\"/var/log/veltbackup.log\"\n"
    "bkplogfilesize_MAX\t=\t\"65536\"\n"
    "copylogfile\t=\t\"/var/log/veltcopy.log\"\n"
    "copylogfilesize_MAX\t=\t\"65536\"\n"
    "netbkplogfile\t=\t\"/var/log/veltnetbkp.log\"\n"
    "netbkplogfilesize_MAX\t=\t\"65536\"\n";

std::string Be16(uint32_t value) {
  return {static_cast<char>(value >> 8), static_cast<char>(value & 0xFF)};
}

std::string Be32(uint32_t value) { return Be16(value >> 16) + Be16(value & 0xFFFF); }

uint32_t At32(const std::string& bytes, size_t offset) {
  uint32_t value = 0;
  for (size_t i = 0; i < 4; ++i) value = value << 8 | static_cast<uint8_t>(bytes.at(offset + i));
  return value;
}

struct Header {
  uint32_t start;
  uint32_t end;
};

Header ReadHeader(const std::string& path) {
  const std::string bytes = ReadFile(path);
  return {At32(bytes, 8), At32(bytes, 12)};
}

long FileSize(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 ? status.st_size : -1;
}

void WriteConf(const std::vector<std::pair<std::string, std::string>>& entries) {
  std::string text;
  for (const auto& entry : entries) text += entry.first + "\t=\t\"" + entry.second + "\"\n";
  WriteFile(kConf, text);
}

// Events file of language `lang`.
void WriteTexts(const std::string& lang, const std::string& content) {
  const std::string dir = kTexts + lang;
  ASSERT_EQ(0, system(("mkdir -p " + dir).c_str()));
  WriteFile(dir + "/events", content);
}

const char kSequenceTexts[] =
    "[11000000]\n11000000=General\n11000001=System\n11000002=Kernel\n11000003=Connection\n"
    "[11800000]\n11800E02=seq @1\n";

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream in(text);
  for (std::string part; std::getline(in, part, separator);) parts.push_back(part);
  return parts;
}

// Runs the export; the result and the lines of the output file.
std::pair<int, std::vector<std::string>> Export(int log_class, const std::string& lang) {
  const char out[] = "/tmp/export.txt";
  unlink(out);
  const int result = VELTLogExport(log_class, lang.c_str(), out);
  return {result, FileExists(out) ? Split(ReadFile(out), '\n') : std::vector<std::string>()};
}

// The numbers N of "seq N" event texts of the exported lines, in order.
std::vector<int> ExportedSequence(int log_class, const std::string& lang) {
  std::vector<int> sequence;
  for (const std::string& line : Export(log_class, lang).second) {
    const std::vector<std::string> fields = Split(line, '\t');
    if (fields.size() == 6 && fields[3].rfind("seq ", 0) == 0) {
      sequence.push_back(atoi(fields[3].c_str() + 4));
    }
  }
  return sequence;
}

// Writes records numbered `from`..`to` - 1 ("seq N" with a `pad`-byte second
// argument); false at the first failing write.
bool WriteSequence(int log_class, int from, int to, size_t pad) {
  const std::string padding(pad, 'p');
  for (int i = from; i < to; ++i) {
    if (VELTLogWrite(log_class, 1, kSeqEvent, std::to_string(i).c_str(), padding.c_str(), nullptr,
                     nullptr) != 0) {
      return false;
    }
  }
  return true;
}

// Consecutive numbers ending at `last`.
::testing::AssertionResult EndsConsecutivelyAt(const std::vector<int>& sequence, int last) {
  if (sequence.empty()) return ::testing::AssertionFailure() << "no records";
  for (size_t i = 0; i < sequence.size(); ++i) {
    const int expected = last - static_cast<int>(sequence.size() - 1 - i);
    if (sequence[i] != expected) {
      return ::testing::AssertionFailure()
             << "record " << i << " is " << sequence[i] << ", expected " << expected;
    }
  }
  return ::testing::AssertionSuccess();
}

int CountSyslog(int priority, const std::string& text) {
  const auto& records = testing_support::SyslogRecords();
  return static_cast<int>(
      std::count(records.begin(), records.end(), std::make_pair(priority, text)));
}

bool HasSyslog(int priority, const std::string& text) { return CountSyslog(priority, text) > 0; }

class VeltLog : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string why = testing_support::EnterThrowawayRoot();
    if (!why.empty()) GTEST_SKIP() << why;
    for (const char* path : {kConf, kSysLog, kConnLog, kCopyLog, "/var/log/veltbackup.log",
                             "/var/log/veltnetbkp.log", "/var/log/other.log"}) {
      unlink(path);
    }
    ASSERT_EQ(0, system("rm -rf /usr/velt/veltsdk/texts"));
    setenv("USERNAME", "tester", 1);
    setenv("TZ", "UTC", 1);
    tzset();
    testing_support::SyslogRecords().clear();
    SLIBCErrSet(0);
  }

  // A language of its own for each test: the text cache lives as long as the
  // process.
  std::string Lang() const {
    return ::testing::UnitTest::GetInstance()->current_test_info()->name();
  }
};

// ---------------------------------------------------------------- ring file

TEST_F(VeltLog, FirstWriteCreatesHeaderAndExactRecord) {
  setenv("USERNAME", "alice", 1);
  const uint32_t before = static_cast<uint32_t>(time(nullptr));
  ASSERT_EQ(0, VELTLogWrite(3, 1, kSeqEvent, "a", "bc", nullptr, ""));
  const uint32_t after = static_cast<uint32_t>(time(nullptr));

  const std::string bytes = ReadFile(kConnLog);
  ASSERT_GE(bytes.size(), 22u);
  const uint32_t when = At32(bytes, 18);
  EXPECT_GE(when, before);
  EXPECT_LE(when, after);
  const std::string record = Be16(46) + Be32(when) + Be16(1) + "\x03" + Be32(kSeqEvent) + Be16(5) +
                             "alice" + Be16(13) + "velt_log_test" + Be16(1) + "a" + Be16(2) + "bc" +
                             Be16(0) + Be16(0);
  EXPECT_EQ(std::string("VELT") + std::string(4, '\0') + Be32(16) + Be32(16 + 46) + record, bytes);

  struct stat status;
  ASSERT_EQ(0, stat(kConnLog, &status));
  EXPECT_EQ(0600u, status.st_mode & 0777);
}

TEST_F(VeltLog, NewFileHasMagicAndStartEqualEnd16EvenWhenTheRecordCannotFit) {
  WriteConf({{"connlogfilesize_MAX", "40"}});
  EXPECT_EQ(-1, VELTLogWrite(3, 1, kSeqEvent, "1", nullptr, nullptr, nullptr));
  EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
  EXPECT_EQ(std::string("VELT") + std::string(4, '\0') + Be32(16) + Be32(16), ReadFile(kConnLog));
}

TEST_F(VeltLog, ForeignFileIsInitialisedBeforeTheFirstRecord) {
  WriteTexts(Lang(), kSequenceTexts);
  WriteFile(kConnLog, "this is not an event log at all, just text\n");
  ASSERT_EQ(0, VELTLogWrite(3, 1, kSeqEvent, "7", nullptr, nullptr, nullptr));
  const std::string bytes = ReadFile(kConnLog);
  EXPECT_EQ("VELT", bytes.substr(0, 4));
  EXPECT_EQ(16u, ReadHeader(kConnLog).start);
  EXPECT_EQ(std::vector<int>{7}, ExportedSequence(3, Lang()));
}

TEST_F(VeltLog, RingNeverExceedsItsLimitAndKeepsTheNewestRecordsInOrder) {
  WriteTexts(Lang(), kSequenceTexts);
  // The created configuration gives the connection log 65536 bytes.
  bool wrapped = false;
  const int total = 3000;
  for (int i = 0; i < total; ++i) {
    ASSERT_TRUE(WriteSequence(3, i, i + 1, 40 + (i * 7) % 90)) << i;
    ASSERT_LE(FileSize(kConnLog), 65536) << i;
    const Header header = ReadHeader(kConnLog);
    ASSERT_GE(header.start, 16u);
    ASSERT_LE(header.start, 65536u - 2);
    ASSERT_GE(header.end, 16u);
    ASSERT_LE(header.end, 65536u - 2);
    wrapped = wrapped || header.end < header.start;
  }
  EXPECT_TRUE(wrapped);
  const std::vector<int> sequence = ExportedSequence(3, Lang());
  EXPECT_TRUE(EndsConsecutivelyAt(sequence, total - 1));
  // Records are 85 to 177 bytes.
  EXPECT_GT(sequence.size(), 65536u / 200);
  EXPECT_LT(sequence.size(), 65536u / 85);
}

TEST_F(VeltLog, SmallRingStaysConsistentThroughManyWrapsWithVaryingSizes) {
  WriteTexts(Lang(), kSequenceTexts);
  WriteConf({{"copylogfilesize_MAX", "700"}});
  std::mt19937 random(12345);
  for (int i = 0; i < 400; ++i) {
    ASSERT_TRUE(WriteSequence(6, i, i + 1, random() % 300)) << i;
    ASSERT_LE(FileSize(kCopyLog), 700);
    const std::vector<int> sequence = ExportedSequence(6, Lang());
    ASSERT_TRUE(EndsConsecutivelyAt(sequence, i)) << "after write " << i;
  }
}

TEST_F(VeltLog, RecordsThatFillTheRingExactlyStillWrapCorrectly) {
  WriteTexts(Lang(), kSequenceTexts);
  // Records of 100 bytes: 25 fixed, "tester", "velt_log_test", "N" and 55 bytes
  // of padding; the ring holds exactly three with the wrap mark.
  WriteConf({{"copylogfilesize_MAX", "318"}});
  for (int i = 0; i < 10; ++i) {
    ASSERT_TRUE(WriteSequence(6, i, i + 1, 55)) << i;
    const int kept = i < 3 ? i + 1 : (i % 3 == 2 ? 3 : 2);
    std::vector<int> expected;
    for (int n = i - kept + 1; n <= i; ++n) expected.push_back(n);
    EXPECT_EQ(expected, ExportedSequence(6, Lang())) << i;
    EXPECT_LE(FileSize(kCopyLog), 318);
  }
}

struct RefusedClass {
  int log_class;
  bool logs_class_error;
};

TEST_F(VeltLog, ClassesWithoutALogAreRefused) {
  const RefusedClass cases[] = {{4, false}, {0, true}, {8, true}, {-1, true}, {255, true}};
  for (const RefusedClass& c : cases) {
    testing_support::SyslogRecords().clear();
    EXPECT_EQ(-1, VELTLogWrite(c.log_class, 1, kSeqEvent, "x", nullptr, nullptr, nullptr))
        << c.log_class;
    EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
    EXPECT_EQ(c.logs_class_error, HasSyslog(LOG_ERR, "logclass error!")) << c.log_class;
  }
  EXPECT_FALSE(FileExists(kConf));
}

TEST_F(VeltLog, MissingConfigurationIsCreatedWithTheTwelveLines) {
  ASSERT_EQ(0, VELTLogWrite(1, 1, kSeqEvent, "x", nullptr, nullptr, nullptr));
  EXPECT_EQ(kCreatedConf, ReadFile(kConf));
  EXPECT_TRUE(FileExists(kSysLog));
}

TEST_F(VeltLog, SizeKeysMissingFallBackTo131072ForSystemAnd65536ForOthers) {
  WriteTexts(Lang(), kSequenceTexts);
  WriteConf({{"syslogfile", kSysLog}});
  // 1000 records of about 140 bytes: more than either limit holds.
  ASSERT_TRUE(WriteSequence(1, 0, 500, 100));
  ASSERT_TRUE(WriteSequence(2, 500, 1000, 100));
  EXPECT_GT(FileSize(kSysLog), 131072 - 300);
  EXPECT_LE(FileSize(kSysLog), 131072);
  EXPECT_TRUE(EndsConsecutivelyAt(ExportedSequence(1, Lang()), 999));
  // The fallback limit does not shrink the log: the missing log is not looked at.
  EXPECT_EQ(0,
            CountSyslog(LOG_INFO, "VELTLogChangeSize : logfile /var/log/veltsys.log not existed"));

  ASSERT_TRUE(WriteSequence(3, 0, 1000, 100));
  EXPECT_GT(FileSize(kConnLog), 65536 - 300);
  EXPECT_LE(FileSize(kConnLog), 65536);
}

TEST_F(VeltLog, FirstWriteAfterCreatingTheConfigurationUsesTheFallbackLimit) {
  WriteTexts(Lang(), kSequenceTexts);
  WriteConf({{"syslogfilesize_MAX", "131072"}});
  ASSERT_TRUE(WriteSequence(1, 0, 800, 100));
  ASSERT_GT(FileSize(kSysLog), 100000);
  unlink(kConf);
  ASSERT_TRUE(WriteSequence(1, 800, 801, 100));
  EXPECT_GT(FileSize(kSysLog), 100000);  // 131072 for this write
  ASSERT_TRUE(WriteSequence(1, 801, 802, 100));
  EXPECT_LE(FileSize(kSysLog), 65536);  // the created file's 65536 from now on
  EXPECT_TRUE(EndsConsecutivelyAt(ExportedSequence(1, Lang()), 801));
}

TEST_F(VeltLog, FileKeyChoosesTheLogFileAndOpeningIsAnnouncedForConnectionLogs) {
  WriteConf({{"connlogfile", "/var/log/other.log"}, {"syslogfile", kSysLog}});
  ASSERT_EQ(0, VELTLogWrite(3, 1, kSeqEvent, "x", nullptr, nullptr, nullptr));
  EXPECT_TRUE(FileExists("/var/log/other.log"));
  EXPECT_FALSE(FileExists(kConnLog));
  EXPECT_EQ(1, CountSyslog(LOG_INFO, "VELT : log file /etc/veltlog.conf opened"));
  ASSERT_EQ(0, VELTLogWrite(1, 1, kSeqEvent, "x", nullptr, nullptr, nullptr));
  EXPECT_EQ(1, CountSyslog(LOG_INFO, "VELT : log file /etc/veltlog.conf opened"));
}

TEST_F(VeltLog, CorruptedOldestRecordMetWhileMakingRoomRestartsTheLog) {
  WriteTexts(Lang(), kSequenceTexts);
  WriteConf({{"copylogfilesize_MAX", "300"}});
  ASSERT_TRUE(WriteSequence(6, 0, 2, 60));
  std::string bytes = ReadFile(kCopyLog);
  bytes[16] = 0;
  bytes[17] = 3;  // shorter than any record
  WriteFile(kCopyLog, bytes);
  ASSERT_TRUE(WriteSequence(6, 2, 3, 60));
  EXPECT_EQ(std::vector<int>{2}, ExportedSequence(6, Lang()));
  EXPECT_TRUE(HasSyslog(LOG_ERR, "event log record at 16 out of range: log restarted"));
}

struct Corruption {
  const char* name;
  size_t offset;
  std::string bytes;
  int bad_record;  // reported by the export
  size_t lines_before;
};

TEST_F(VeltLog, CorruptedFilesAreRefusedByExportAndRepairedByWrite) {
  WriteTexts(Lang(), kSequenceTexts);
  const Corruption cases[] = {
      {"start beyond the file", 8, Be32(0x7FFFFFF0), 0, 0},
      {"end beyond the file", 12, Be32(70000), 0, 0},
      {"start below the header", 8, Be32(3), 0, 0},
      {"second record runs past the end", 16 + 65, Be16(0xFFFF), 2, 1},
      {"second record too short", 16 + 65, Be16(5), 2, 1},
      {"string runs past its record", 16 + 65 + 13, Be16(0x0100), 2, 1},
  };
  for (const Corruption& c : cases) {
    SCOPED_TRACE(c.name);
    unlink(kConnLog);
    // Three records of 65 bytes each: "tester", "velt_log_test", "N", 20 x 'p'.
    ASSERT_TRUE(WriteSequence(3, 0, 3, 20));
    ASSERT_EQ(16u + 3 * 65, ReadHeader(kConnLog).end);
    std::string bytes = ReadFile(kConnLog);
    bytes.replace(c.offset, c.bytes.size(), c.bytes);
    WriteFile(kConnLog, bytes);

    testing_support::SyslogRecords().clear();
    const auto exported = Export(3, Lang());
    EXPECT_EQ(-1, exported.first);
    EXPECT_EQ(c.lines_before, exported.second.size());
    EXPECT_TRUE(HasSyslog(LOG_ERR, "Log format error line" + std::to_string(c.bad_record)));

    ASSERT_EQ(0, VELTLogWrite(3, 1, kSeqEvent, "9", nullptr, nullptr, nullptr));
    if (c.bad_record == 0) {
      EXPECT_EQ(std::vector<int>{9}, ExportedSequence(3, Lang()));
    } else {
      EXPECT_EQ(16u + 3 * 65 + 45, ReadHeader(kConnLog).end);  // appended after the others
    }
  }
}

TEST_F(VeltLog, RandomDamageNeverLeadsOutOfBounds) {
  WriteTexts(Lang(), kSequenceTexts);
  WriteConf({{"copylogfilesize_MAX", "2000"}});
  std::mt19937 random(777);
  for (int round = 0; round < 300; ++round) {
    ASSERT_TRUE(WriteSequence(6, round, round + 1, random() % 200));
    std::string bytes = ReadFile(kCopyLog);
    for (int flips = 1 + random() % 4; flips > 0; --flips) {
      bytes[4 + random() % (bytes.size() - 4)] = static_cast<char>(random());
    }
    if (random() % 3 == 0) bytes.resize(4 + random() % (bytes.size() - 4));
    WriteFile(kCopyLog, bytes);
    Export(6, Lang());
    ASSERT_EQ(0, VELTLogWrite(6, 1, kSeqEvent, "x", nullptr, nullptr, nullptr)) << round;
    EXPECT_LE(FileSize(kCopyLog), 2000);
  }
}

TEST_F(VeltLog, OpenFailureIsReportedAfterTenTries) {
  WriteConf({{"connlogfile", "/missing/dir/x.log"}});
  const time_t before = time(nullptr);
  EXPECT_EQ(-1, VELTLogWrite(3, 1, kSeqEvent, "x", nullptr, nullptr, nullptr));
  EXPECT_GE(time(nullptr) - before, 8);
  EXPECT_EQ(SLIB_ERR_OPEN, SLIBCErrGet());
  EXPECT_TRUE(HasSyslog(LOG_ERR, "logfile /missing/dir/x.log open error while writing!"));
}

TEST_F(VeltLog, WriterGoesOnWithoutTheLockAfterTenTries) {
  WriteTexts(Lang(), kSequenceTexts);
  ASSERT_TRUE(WriteSequence(3, 0, 1, 0));
  const int holder = open(kConnLog, O_RDONLY);
  ASSERT_GE(holder, 0);
  ASSERT_EQ(0, flock(holder, LOCK_EX));
  const time_t before = time(nullptr);
  EXPECT_TRUE(WriteSequence(3, 1, 2, 0));
  EXPECT_GE(time(nullptr) - before, 8);
  close(holder);
  EXPECT_EQ((std::vector<int>{0, 1}), ExportedSequence(3, Lang()));
}

// Writes past `bytes` fail with EFBIG while the object lives.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &saved_);
    const rlimit limit = {bytes, saved_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &saved_); }

 private:
  rlimit saved_;
};

TEST_F(VeltLog, FailedRecordWriteIsLoggedAndLeavesTheHeaderAlone) {
  WriteConf({{"connlogfilesize_MAX", "4096"}});
  WriteFile(kConnLog, std::string("VELT") + std::string(4, '\0') + Be32(16) + Be32(16));
  {
    FileSizeLimit limit(16);
    EXPECT_EQ(-1, VELTLogWrite(3, 1, kSeqEvent, "1", nullptr, nullptr, nullptr));
  }
  EXPECT_EQ(SLIB_ERR_WRITE, SLIBCErrGet());
  // 13 + six strings: "tester", "velt_log_test", "1".
  EXPECT_TRUE(HasSyslog(LOG_ERR, "VELTLogWriteByte(): write() error!, input count is [45]"));
  EXPECT_TRUE(HasSyslog(LOG_ERR, "sdk/veltlog1.c : lline 410"));
  EXPECT_EQ(std::string("VELT") + std::string(4, '\0') + Be32(16) + Be32(16), ReadFile(kConnLog));
}

// ---------------------------------------------------------------- user names

struct UserCase {
  const char* username;  // null: unset
  std::string recorded;
};

TEST_F(VeltLog, RecordedUserComesFromTheEnvironmentOrThePasswdFile) {
  WriteTexts(Lang(), kSequenceTexts);
  const UserCase cases[] = {
      {"root", "admin"},
      {"alice", "alice"},
      {"", ""},
      {nullptr, geteuid() == 0 ? "admin" : ""},
  };
  const std::string long_name(300, 'u');
  for (const UserCase& c : cases) {
    if (c.username == nullptr) {
      unsetenv("USERNAME");
      if (geteuid() != 0) continue;  // the account name of a normal uid varies
    } else {
      setenv("USERNAME", c.username, 1);
    }
    unlink(kConnLog);
    ASSERT_EQ(0, VELTLogWrite(3, 1, kSeqEvent, "1", nullptr, nullptr, nullptr));
    const std::vector<std::string> lines = Export(3, Lang()).second;
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(c.recorded, Split(lines[0], '\t').at(4)) << (c.username ? c.username : "(unset)");
  }
  setenv("USERNAME", long_name.c_str(), 1);
  unlink(kConnLog);
  ASSERT_EQ(0, VELTLogWrite(3, 1, kSeqEvent, "1", nullptr, nullptr, nullptr));
  EXPECT_EQ(long_name.substr(0, 255), Split(Export(3, Lang()).second.at(0), '\t').at(4));
}

// ---------------------------------------------------------------- texts and export

const char kEventTexts[] =
    "[11000000]\n"
    "11000000=General\n11000001=System\n11000002=Kernel\n11000003=Connection\n"
    "[11800000]\n"
    "11800E02=User @1 changed @2 to @3 (@4)\n"
    "11800D01=Twice @1 and @1\n"
    "11800D02=Chain @1 @2\n"
    "11800D03=\n"
    "[12900000]\n"
    "12900012=Backup of @1 done\n";

TEST_F(VeltLog, ExportLineCarriesLevelSourceTimeTextUserAndProgram) {
  WriteTexts(Lang(), kEventTexts);
  const time_t before = time(nullptr);
  ASSERT_EQ(0, VELTLogWrite(1, 7, 0x11800E02, "bob", "quota", "5 GB", "share1"));
  ASSERT_EQ(0, VELTLogWrite(3, 1, 0x12900012, "photos", nullptr, nullptr, nullptr));
  const time_t after = time(nullptr);

  const auto system_log = Export(1, Lang());
  EXPECT_EQ(1, system_log.first);
  ASSERT_EQ(1u, system_log.second.size());
  const std::vector<std::string> fields = Split(system_log.second[0], '\t');
  ASSERT_EQ(6u, fields.size());
  EXPECT_EQ("7", fields[0]);
  EXPECT_EQ("System", fields[1]);
  struct tm parsed = {};
  const char* rest = strptime(fields[2].c_str(), "%Y/%m/%d %H:%M:%S", &parsed);
  ASSERT_NE(nullptr, rest);
  EXPECT_EQ('\0', *rest);
  EXPECT_EQ(19u, fields[2].size());
  EXPECT_GE(timegm(&parsed), before);
  EXPECT_LE(timegm(&parsed), after);
  EXPECT_EQ("User bob changed quota to 5 GB (share1)", fields[3]);
  EXPECT_EQ("tester", fields[4]);
  EXPECT_EQ("velt_log_test", fields[5]);
  EXPECT_EQ(fields[0] + "\t" + fields[1] + "\t" + fields[2] + "\t" + fields[3] +
                "\ttester\tvelt_log_test\n",
            ReadFile("/tmp/export.txt"));

  const auto connection_log = Export(3, Lang());
  ASSERT_EQ(1u, connection_log.second.size());
  const std::vector<std::string> connection = Split(connection_log.second[0], '\t');
  EXPECT_EQ("Connection", connection.at(1));
  EXPECT_EQ("Backup of photos done", connection.at(3));
}

TEST_F(VeltLog, RecordWithoutEventTextIsLeftOutAndLogged) {
  WriteTexts(Lang(), kEventTexts);
  ASSERT_EQ(0, VELTLogWrite(6, 1, 0x11800602, "a", "b", nullptr, "d"));
  ASSERT_EQ(0, VELTLogWrite(6, 1, 0x11800D03, nullptr, nullptr, nullptr, nullptr));
  ASSERT_EQ(0, VELTLogWrite(6, 1, 0x12900012, "x", nullptr, nullptr, nullptr));
  const auto exported = Export(6, Lang());
  EXPECT_EQ(1, exported.first);
  ASSERT_EQ(1u, exported.second.size());
  EXPECT_EQ("General", Split(exported.second[0], '\t').at(1));
  const std::string path = kTexts + Lang() + "/events";
  EXPECT_TRUE(HasSyslog(LOG_ERR, "event 11800602 not found in " + path));
  EXPECT_TRUE(HasSyslog(LOG_ERR, "Can not get the log szEvent id = 11800602, szLang = " + Lang() +
                                     ", szArg1 = [a], szArg2 = [b], szArg3 = [], szArg4 = [d], "
                                     "szSource = General"));
  EXPECT_TRUE(HasSyslog(LOG_ERR, "Can not get the log szEvent id = 11800D03, szLang = " + Lang() +
                                     ", szArg1 = [], szArg2 = [], szArg3 = [], szArg4 = [], "
                                     "szSource = General"));
}

TEST_F(VeltLog, UnknownSectionAndEventAreLogged) {
  WriteTexts(Lang(), kEventTexts);
  const std::string path = kTexts + Lang() + "/events";
  SLIBCErrSet(0);
  EXPECT_EQ(nullptr, VELTLogGetEventText(Lang().c_str(), 0x13000001, "a", "", "", ""));
  EXPECT_EQ(SLIB_ERR_NOT_FOUND, SLIBCErrGet());
  EXPECT_TRUE(HasSyslog(LOG_ERR, "section 13000000 not found in " + path));
  EXPECT_TRUE(HasSyslog(LOG_ERR, "event 13000001 not found in " + path));
  EXPECT_EQ(nullptr, VELTLogGetEventText("nolanguage", 0x11800E02, "a", "", "", ""));
  EXPECT_TRUE(HasSyslog(
      LOG_ERR, "section 11800000 not found in " + std::string(kTexts) + "nolanguage/events"));
}

struct PlaceholderCase {
  unsigned long event;
  const char* args[4];
  std::string text;
};

TEST_F(VeltLog, PlaceholdersAreFilledInOrderWithTheNonEmptyArguments) {
  WriteTexts(Lang(), kEventTexts);
  const std::string long_arg(500, 'L');
  const PlaceholderCase cases[] = {
      {0x11800E02, {"a", "b", "c", "d"}, "User a changed b to c (d)"},
      {0x11800E02, {"a", "", nullptr, "d"}, "User a changed @2 to @3 (d)"},
      {0x11800E02, {nullptr, nullptr, nullptr, nullptr}, "User @1 changed @2 to @3 (@4)"},
      {0x11800D01, {long_arg.c_str(), "", "", ""}, "Twice " + long_arg + " and " + long_arg},
      {0x11800D02, {"@2", "two", "", ""}, "Chain two two"},
  };
  for (const PlaceholderCase& c : cases) {
    char* text =
        VELTLogGetEventText(Lang().c_str(), c.event, c.args[0], c.args[1], c.args[2], c.args[3]);
    ASSERT_NE(nullptr, text) << c.text;
    EXPECT_EQ(c.text, text);
    free(text);
  }
}

TEST_F(VeltLog, TextsAreReadOnceAndCachedForTheProcess) {
  WriteTexts(Lang(), kEventTexts);
  char* first = VELTLogGetEventText(Lang().c_str(), 0x12900012, "x", "", "", "");
  ASSERT_NE(nullptr, first);
  EXPECT_STREQ("Backup of x done", first);
  free(first);
  EXPECT_EQ(nullptr, VELTLogGetEventText(Lang().c_str(), 0x12900099, "", "", "", ""));

  WriteTexts(Lang(), "[12900000]\n12900012=Changed @1\n12900099=Now there\n");
  char* second = VELTLogGetEventText(Lang().c_str(), 0x12900012, "y", "", "", "");
  ASSERT_NE(nullptr, second);
  EXPECT_STREQ("Backup of y done", second);
  free(second);
  EXPECT_EQ(nullptr, VELTLogGetEventText(Lang().c_str(), 0x12900099, "", "", "", ""));
  const std::string path = kTexts + Lang() + "/events";
  EXPECT_EQ(1, CountSyslog(LOG_ERR, "event 12900099 not found in " + path));
}

struct SourceCase {
  int source;
  const char* text;
};

TEST_F(VeltLog, SourceTextsComeFromTheirOwnSection) {
  WriteTexts(Lang(), kEventTexts);
  const SourceCase cases[] = {{1, "System"},  {2, "Kernel"},  {3, "Connection"},
                              {5, "General"}, {7, "General"}, {0, "General"}};
  for (const SourceCase& c : cases) {
    char* text = VELTLogGetSourceText(c.source, Lang().c_str());
    ASSERT_NE(nullptr, text);
    EXPECT_STREQ(c.text, text) << c.source;
    free(text);
  }
  const std::string partial = Lang() + "_partial";
  WriteTexts(partial, "[11000000]\n11000001=System\n");
  for (const std::pair<int, const char*>& c :
       {std::make_pair(1, "System"), std::make_pair(2, "Unknown"), std::make_pair(6, "Unknown")}) {
    char* text = VELTLogGetSourceText(c.first, partial.c_str());
    EXPECT_STREQ(c.second, text) << c.first;
    free(text);
  }
  char* none = VELTLogGetSourceText(1, "nosuchlanguage");
  EXPECT_STREQ("Unknown", none);
  free(none);
}

TEST_F(VeltLog, ExportFailuresAreReported) {
  WriteTexts(Lang(), kEventTexts);
  EXPECT_EQ(-1, VELTLogExport(5, Lang().c_str(), "/tmp/out.txt"));
  EXPECT_TRUE(HasSyslog(LOG_ERR, "Veltara log file /var/log/veltbackup.log not exist"));
  EXPECT_FALSE(FileExists("/tmp/out.txt"));

  ASSERT_EQ(0, VELTLogWrite(5, 1, 0x12900012, "x", nullptr, nullptr, nullptr));
  EXPECT_EQ(-1, VELTLogExport(5, Lang().c_str(), "/missing/out.txt"));
  EXPECT_TRUE(HasSyslog(LOG_ERR, "output log file open failed [2].\n"));
  EXPECT_EQ(-1, VELTLogExport(9, Lang().c_str(), "/tmp/out.txt"));
  EXPECT_TRUE(HasSyslog(LOG_ERR, "logclass error!"));
}

// ---------------------------------------------------------------- sizes

TEST_F(VeltLog, ChangeSizeDropsTheOldestRecordsUntilTheFileFits) {
  WriteTexts(Lang(), kSequenceTexts);
  ASSERT_TRUE(WriteSequence(6, 0, 100, 50));
  const long full = FileSize(kCopyLog);
  // 10 records of 95 bytes and 90 of 96; half the file holds the newest 49.
  ASSERT_EQ(16 + 10 * 95 + 90 * 96, full);
  ASSERT_EQ(0, VELTLogChangeSize(static_cast<int>(full / 2), 6));
  EXPECT_EQ(16 + 49 * 96, FileSize(kCopyLog));
  EXPECT_EQ(16u, ReadHeader(kCopyLog).start);
  EXPECT_EQ(static_cast<uint32_t>(FileSize(kCopyLog)), ReadHeader(kCopyLog).end);
  const std::vector<int> sequence = ExportedSequence(6, Lang());
  EXPECT_TRUE(EndsConsecutivelyAt(sequence, 99));
  EXPECT_EQ(49u, sequence.size());

  const std::string before = ReadFile(kCopyLog);
  EXPECT_EQ(0, VELTLogChangeSize(65536, 6));
  EXPECT_EQ(before, ReadFile(kCopyLog));
}

TEST_F(VeltLog, ChangeSizeOfAWrappedLogKeepsTheNewestInOrder) {
  WriteTexts(Lang(), kSequenceTexts);
  WriteConf({{"copylogfilesize_MAX", "3000"}});
  ASSERT_TRUE(WriteSequence(6, 0, 60, 50));
  int last = 59;
  while (ReadHeader(kCopyLog).end >= ReadHeader(kCopyLog).start && last < 200) {
    ++last;
    ASSERT_TRUE(WriteSequence(6, last, last + 1, 50));
  }
  ASSERT_LT(ReadHeader(kCopyLog).end, ReadHeader(kCopyLog).start);
  ASSERT_EQ(0, VELTLogChangeSize(1000, 6));
  EXPECT_LE(FileSize(kCopyLog), 1000);
  const std::vector<int> sequence = ExportedSequence(6, Lang());
  EXPECT_TRUE(EndsConsecutivelyAt(sequence, last));
  EXPECT_EQ(10u, sequence.size());  // (1000 - 18) / 96
}

TEST_F(VeltLog, ChangeSizeOfAMissingLogIsNotAnError) {
  EXPECT_EQ(0, VELTLogChangeSize(1000, 6));
  EXPECT_TRUE(HasSyslog(LOG_INFO, "VELTLogChangeSize : logfile /var/log/veltcopy.log not existed"));
  EXPECT_FALSE(FileExists(kCopyLog));
  EXPECT_EQ(-1, VELTLogChangeSize(1000, 4));
  EXPECT_EQ(-1, VELTLogChangeSize(15, 6));
}

TEST_F(VeltLog, SetSizeReplacesTheLineAndLaterWritesObeyIt) {
  WriteTexts(Lang(), kSequenceTexts);
  WriteFile(kConf, kCreatedConf);
  ASSERT_EQ(0, VELTLogSetSize("connlogfilesize_MAX", "4096"));
  std::string expected = kCreatedConf;
  const std::string old_line = "connlogfilesize_MAX\t=\t\"65536\"\n";
  expected.replace(expected.find(old_line), old_line.size(), "connlogfilesize_MAX=\t\"4096\"\n");
  EXPECT_EQ(expected, ReadFile(kConf));

  ASSERT_TRUE(WriteSequence(3, 0, 200, 50));
  EXPECT_LE(FileSize(kConnLog), 4096);
  EXPECT_GT(FileSize(kConnLog), 4096 - 200);
}

TEST_F(VeltLog, SetSizeCreatesAMissingConfigurationFirst) {
  ASSERT_EQ(0, VELTLogSetSize("newkey_MAX", "100"));
  EXPECT_EQ(std::string(kCreatedConf) + "newkey_MAX=\t\"100\"\n", ReadFile(kConf));
  EXPECT_TRUE(HasSyslog(LOG_INFO, "logconf file not exist! created one!"));
}

TEST_F(VeltLog, SetSizeFailuresAreLogged) {
  ASSERT_EQ(0, symlink("/missing/dir/veltlog.conf", kConf));
  EXPECT_EQ(-1, VELTLogSetSize("syslogfilesize_MAX", "100"));
  EXPECT_TRUE(
      HasSyslog(LOG_ERR, "logconf file created error while set size coz the logconf not exist!"));
  unlink(kConf);

  ASSERT_EQ(0, mkdir(kConf, 0755));
  EXPECT_EQ(-1, VELTLogSetSize("syslogfilesize_MAX", "100"));
  EXPECT_TRUE(HasSyslog(LOG_ERR, "error occured in setkeyvalue in /etc/veltlog.conf."));
  rmdir(kConf);
}

// ---------------------------------------------------------------- the command

#ifdef VELTLOG_TOOL
int RunTool(const std::string& arguments) {
  const int status = system(
      (std::string(VELTLOG_TOOL) + " " + arguments + " >/tmp/tool.out 2>/tmp/tool.err").c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(VeltLog, CommandWritesShowsAndExportsTheLog) {
  WriteTexts("enu", kEventTexts);
  ASSERT_EQ(0, RunTool("write 3 2 12900012 photos"));
  ASSERT_EQ(0, RunTool("show 3"));
  const std::vector<std::string> fields = Split(ReadFile("/tmp/tool.out"), '\t');
  ASSERT_EQ(6u, fields.size());
  EXPECT_EQ("2", fields[0]);
  EXPECT_EQ("Connection", fields[1]);
  EXPECT_EQ("Backup of photos done", fields[3]);
  EXPECT_EQ("tester", fields[4]);
  EXPECT_EQ("veltlog\n", fields[5]);

  ASSERT_EQ(0, RunTool("export 3 enu /tmp/exported.txt"));
  EXPECT_EQ(ReadFile("/tmp/tool.out"), "");
  EXPECT_EQ(ReadFile("/tmp/exported.txt"), fields[0] + "\t" + fields[1] + "\t" + fields[2] + "\t" +
                                               fields[3] + "\ttester\tveltlog\n");
}

TEST_F(VeltLog, CommandReportsUsageAndFailures) {
  EXPECT_EQ(0, RunTool("--help"));
  EXPECT_EQ(0u, ReadFile("/tmp/tool.out").find("usage: veltlog COMMAND ARGS..."));
  EXPECT_EQ(1, RunTool(""));
  EXPECT_EQ(0u, ReadFile("/tmp/tool.err").find("usage: veltlog"));
  EXPECT_EQ(1, RunTool("frobnicate"));
  EXPECT_EQ(0u, ReadFile("/tmp/tool.err").find("veltlog: unknown command frobnicate\n"));
  EXPECT_EQ(1, RunTool("write 4 1 11800E02"));
  EXPECT_EQ("veltlog: write failed (D00)\n", ReadFile("/tmp/tool.err"));
  EXPECT_EQ(1, RunTool("write 3 1 nothex"));
  EXPECT_EQ(1, RunTool("show 5"));
  EXPECT_EQ("veltlog: export failed (900)\n", ReadFile("/tmp/tool.err"));
}
#endif

}  // namespace
