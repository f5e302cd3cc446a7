#include "lib/velt_log.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>

#include <random>
#include <sstream>

#include "test_support.h"

namespace {

using testing_support::InOrder;
using testing_support::ReadFile;
using testing_support::WriteFile;

constexpr char kConf[] = "/etc/veltlog.conf";
constexpr char kConnLog[] = "/var/log/veltconn.log";
constexpr char kCopyLog[] = "/var/log/veltcopy.log";
constexpr unsigned long kSeq = 0x11800E02;

std::string Be16(uint32_t v) { return {static_cast<char>(v >> 8), static_cast<char>(v & 0xFF)}; }
std::string Be32(uint32_t v) { return Be16(v >> 16) + Be16(v & 0xFFFF); }
const std::string kEmptyRing = std::string("VELT") + std::string(4, '\0') + Be32(16) + Be32(16);

// The big-endian u32 at `offset` of the file.
uint32_t At32(const std::string& path, size_t offset) {
  const std::string bytes = ReadFile(path);
  uint32_t value = 0;
  for (size_t i = 0; i < 4; ++i) value = value << 8 | static_cast<uint8_t>(bytes.at(offset + i));
  return value;
}

void WriteConf(const std::string& key, const std::string& value) {
  WriteFile(kConf, key + "\t=\t\"" + value + "\"\n");
}

bool Logged(int priority, const std::string& text) {
  const auto& all = testing_support::SyslogRecords();
  return std::count(all.begin(), all.end(), std::make_pair(priority, text)) > 0;
}

// Record N: "seq N" with a `pad`-byte second argument; 44 bytes + digits + pad.
bool Write(int log_class, int n, size_t pad = 0) {
  return VELTLogWrite(log_class, 1, kSeq, std::to_string(n).c_str(), std::string(pad, 'p').c_str(),
                      nullptr, nullptr) == 0;
}

std::vector<int> Range(int first, int last) {
  std::vector<int> numbers;
  for (int n = first; n <= last; ++n) numbers.push_back(n);
  return numbers;
}

class VeltLog : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string why = testing_support::EnterThrowawayRoot();
    if (!why.empty()) GTEST_SKIP() << why;
    ASSERT_EQ(0,
              system(("rm -rf /etc/veltlog.conf /var/log/velt* /usr/velt/veltsdk/texts; mkdir -p " +
                      texts_.substr(0, texts_.size() - 7))
                         .c_str()));
    WriteFile(
        texts_,
        "[11000000]\n11000000=General\n11000001=System\n11000002=Kernel\n11000003=Connection\n"
        "[11800000]\n11800E02=seq @1\n11801E02=Chain @1 @2\n11800D01=Twice @1 and @1\n"
        "11800D03=\n[12900000]\n12900012=User @1 changed @2 to @3 (@4)\n");
    setenv("USERNAME", "tester", 1);
    setenv("TZ", "UTC", 1);
    tzset();
    testing_support::SyslogRecords().clear();
  }

  // A language of its own per test: texts stay cached for the process.
  const std::string lang_ = ::testing::UnitTest::GetInstance()->current_test_info()->name();
  const std::string texts_ = "/usr/velt/veltsdk/texts/" + lang_ + "/events";

  // The export's result and lines.
  std::pair<int, std::vector<std::string>> Export(int log_class) {
    unlink("/tmp/export.txt");
    const int result = VELTLogExport(log_class, lang_.c_str(), "/tmp/export.txt");
    std::vector<std::string> lines;
    std::istringstream in(ReadFile("/tmp/export.txt"));
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return {result, lines};
  }

  // The numbers N of the exported "seq N" lines, in order.
  std::vector<int> Sequence(int log_class) {
    std::vector<int> numbers;
    for (const std::string& line : Export(log_class).second) {
      const size_t at = line.find("\tseq ");
      if (at != std::string::npos) numbers.push_back(atoi(line.c_str() + at + 5));
    }
    return numbers;
  }

  std::string Text(unsigned long event, const char* a1, const char* a2 = "") {
    char* text = VELTLogGetEventText(lang_.c_str(), event, a1, a2, "", "");
    const std::string result = text != nullptr ? text : "<null>";
    free(text);
    return result;
  }
};

TEST_F(VeltLog, FirstWriteCreatesTheConfigurationAndAnExactPrivateRecord) {
  WriteFile(kConnLog, "");
  chmod(kConnLog, 0644);
  setenv("USERNAME", "alice", 1);
  ASSERT_EQ(0, VELTLogWrite(3, 1, kSeq, "a", "bc", nullptr, ""));
  const uint32_t when = At32(kConnLog, 18);
  EXPECT_LE(time(nullptr) - when, 2u);
  EXPECT_EQ(std::string("VELT") + std::string(4, '\0') + Be32(16) + Be32(16 + 46) + Be16(46) +
                Be32(when) + Be16(1) + "\x03" + Be32(kSeq) + Be16(5) + "alice" + Be16(13) +
                "velt_log_test" + Be16(1) + "a" + Be16(2) + "bc" + Be16(0) + Be16(0),
            ReadFile(kConnLog));
  struct stat st;
  EXPECT_EQ(0600u, stat(kConnLog, &st) == 0 ? st.st_mode & 0777 : 0);
  std::string conf;  // the six logs in their order, "man" in file "veltman1", "bkp" in "veltbackup"
  for (std::string log : {"sys", "man", "conn", "bkp", "copy", "netbkp"}) {
    const std::string file = log == "man" ? "man1" : log == "bkp" ? "backup" : log;
    conf += log + "logfile\t=\t\"/var/log/velt" + file + ".log\"\n" + log +
            "logfilesize_MAX\t=\t\"65536\"\n";
  }
  EXPECT_EQ(conf, ReadFile(kConf));
}

TEST_F(VeltLog, ClassesWithoutALogAreRefused) {
  for (int log_class : {4, 0, 8}) {
    testing_support::SyslogRecords().clear();
    EXPECT_EQ(-1, VELTLogWrite(log_class, 1, kSeq, "x", nullptr, nullptr, nullptr));
    EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
    EXPECT_EQ(log_class != 4, Logged(LOG_ERR, "logclass error!")) << log_class;
    EXPECT_EQ(-1, VELTLogChangeSize(1000, log_class));
  }
  EXPECT_EQ("<missing>", ReadFile(kConf));
}

TEST_F(VeltLog, RingKeepsTheNewestRecordsInOrderThroughManyWraps) {
  WriteConf("copylogfilesize_MAX", "700");
  std::mt19937 random(12345);
  for (int i = 0; i < 300; ++i) {
    ASSERT_TRUE(Write(6, i, random() % 300)) << i;
    ASSERT_LE(ReadFile(kCopyLog).size(), 700u);
    const std::vector<int> kept = Sequence(6);
    ASSERT_EQ(Range(i + 1 - static_cast<int>(kept.size()), i), kept) << i;
  }
  // Records of 100 bytes: three fill a 318-byte ring exactly with the wrap mark.
  WriteConf("copylogfilesize_MAX", "318");
  unlink(kCopyLog);
  for (int i = 0; i < 10; ++i) {
    ASSERT_TRUE(Write(6, i, 55));
    const int kept = i < 3 ? i + 1 : (i % 3 == 2 ? 3 : 2);
    EXPECT_EQ(Range(i - kept + 1, i), Sequence(6)) << i;
  }
  for (const auto& record : testing_support::SyslogRecords()) EXPECT_NE(LOG_ERR, record.first);
}

TEST_F(VeltLog, DamagedLogsAreRefusedByExportAndRepairedByTheNextWrite) {
  // Three records of 65 bytes; the second starts at 81. {offset, bytes, bad record}
  const std::tuple<size_t, std::string, int> cases[] = {
      {8, Be32(0x7FFFFFF0), 0}, {12, Be32(70000), 0}, {8, Be32(3), 0},
      {81, Be16(0xFFFF), 2},    {81, Be16(5), 2},     {81, Be16(64), 2},
      {81 + 13, Be16(0x100), 2}};
  for (const auto& c : cases) {
    unlink(kConnLog);
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(Write(3, i, 20));
    WriteFile(kConnLog,
              ReadFile(kConnLog).replace(std::get<0>(c), std::get<1>(c).size(), std::get<1>(c)));
    const int bad = std::get<2>(c);
    EXPECT_EQ(std::make_pair(-1, Range(0, bad - 2)), std::make_pair(Export(3).first, Sequence(3)));
    EXPECT_TRUE(Logged(LOG_ERR, "Log format error line" + std::to_string(bad)));
    // A damaged header restarts the log; a damaged record is left to the reader.
    ASSERT_TRUE(Write(3, 9));
    EXPECT_EQ(bad == 0 ? 16u + 45 : 16u + 3 * 65 + 45, At32(kConnLog, 12)) << std::get<0>(c);
  }
  // An oldest record of impossible length met while making room empties the log.
  WriteConf("copylogfilesize_MAX", "300");
  ASSERT_TRUE(Write(6, 0, 60) && Write(6, 1, 60));
  WriteFile(kCopyLog, ReadFile(kCopyLog).replace(16, 2, Be16(3)));
  ASSERT_TRUE(Write(6, 2, 60));
  EXPECT_EQ(std::vector<int>{2}, Sequence(6));
  EXPECT_TRUE(Logged(LOG_ERR, "event log record at 16 out of range: log restarted"));
}

TEST_F(VeltLog, OpeningAndLockingAreTriedTenTimesASecondApart) {
  WriteConf("connlogfile", "/missing/dir/x.log");
  testing_support::PauseRecorder recorder;
  EXPECT_EQ(-1, VELTLogWrite(3, 1, kSeq, "x", nullptr, nullptr, nullptr));
  EXPECT_EQ(SLIB_ERR_OPEN, SLIBCErrGet());
  EXPECT_TRUE(Logged(LOG_ERR, "logfile /missing/dir/x.log open error while writing!"));
  unlink(kConf);
  ASSERT_TRUE(Write(3, 0));
  const int holder = open(kConnLog, O_RDONLY);
  ASSERT_EQ(0, flock(holder, LOCK_EX));
  EXPECT_TRUE(Write(3, 1));  // without the lock after the tenth try
  close(holder);
  EXPECT_EQ(std::vector<unsigned int>(18, 1000000), recorder.pauses);
  EXPECT_EQ(Range(0, 1), Sequence(3));
}

TEST_F(VeltLog, FailedRecordWriteIsLoggedAndLeavesTheHeaderAlone) {
  WriteConf("connlogfilesize_MAX", "4096");
  WriteFile(kConnLog, kEmptyRing);
  signal(SIGXFSZ, SIG_IGN);
  rlimit saved, limit = {16, RLIM_INFINITY};
  getrlimit(RLIMIT_FSIZE, &saved);
  setrlimit(RLIMIT_FSIZE, &limit);
  EXPECT_FALSE(Write(3, 1));
  setrlimit(RLIMIT_FSIZE, &saved);
  EXPECT_EQ(SLIB_ERR_WRITE, SLIBCErrGet());
  EXPECT_TRUE(Logged(LOG_ERR, "VELTLogWriteByte(): write() error!, input count is [45]") &&
              Logged(LOG_ERR, "sdk/veltlog1.c : lline 410"));
  EXPECT_EQ(kEmptyRing, ReadFile(kConnLog));
}

TEST_F(VeltLog, ExportLinesCarryLevelSourceTimeTextUserAndProgram) {
  const std::pair<const char*, std::string> users[] = {
      {"root", "admin"}, {"", ""}, {nullptr, "admin"}, {"bob", "bob"}};
  for (const auto& user : users) {
    user.first != nullptr ? setenv("USERNAME", user.first, 1) : unsetenv("USERNAME");
    ASSERT_EQ(0, VELTLogWrite(1, 7, 0x12900012, "bob", "quota", "5 GB", "share1"));
  }
  setenv("USERNAME", std::string(300, 'u').c_str(), 1);
  ASSERT_EQ(0, VELTLogWrite(3, 2, 0x12900012, "x", nullptr, nullptr, nullptr));
  ASSERT_EQ(0, VELTLogWrite(3, 2, 0x11800602, "a", "b", nullptr, "d"));  // no text
  const auto exported = Export(1);
  ASSERT_EQ(4, exported.first);
  for (size_t i = 0; i < 4; ++i) {
    const std::string line = exported.second.at(i);
    struct tm parsed = {};
    EXPECT_EQ(line.c_str() + 28, strptime(line.c_str() + 9, "%Y/%m/%d %H:%M:%S", &parsed));
    EXPECT_LE(time(nullptr) - timegm(&parsed), 2);
    EXPECT_EQ("7\tSystem\t" + line.substr(9, 19) + "\tUser bob changed quota to 5 GB (share1)\t" +
                  users[i].second + "\tvelt_log_test",
              line);
  }
  const auto connection = Export(3);
  EXPECT_EQ(1, connection.first);
  EXPECT_EQ("\tUser x changed @2 to @3 (@4)\t" + std::string(255, 'u') + "\tvelt_log_test",
            connection.second.at(0).substr(32));
  EXPECT_TRUE(Logged(LOG_ERR, "Can not get the log szEvent id = 11800602, szLang = " + lang_ +
                                  ", szArg1 = [a], szArg2 = [b], szArg3 = [], szArg4 = [d], "
                                  "szSource = Connection"));
}

TEST_F(VeltLog, EventTextsFillPlaceholdersAndAreCachedPerLanguage) {
  EXPECT_EQ("Chain two two", Text(0x11801E02, "@2", "two"));  // first: reads its section
  EXPECT_EQ("seq 5", Text(kSeq, "5"));
  EXPECT_EQ("Twice x and x", Text(0x11800D01, "x"));
  EXPECT_EQ("<null>", Text(0x11800D03, "a"));
  EXPECT_EQ("<null>", Text(0x13000001, "a"));
  EXPECT_EQ(SLIB_ERR_NOT_FOUND, SLIBCErrGet());
  EXPECT_TRUE(Logged(LOG_ERR, "section 13000000 not found in " + texts_) &&
              Logged(LOG_ERR, "event 13000001 not found in " + texts_));
  const char* sources[] = {"General", "System", "Kernel", "Connection", "Unknown", "General"};
  for (int source = 0; source <= 5; ++source) {
    char* text = VELTLogGetSourceText(source, source == 4 ? "nosuchlanguage" : lang_.c_str());
    EXPECT_STREQ(sources[source], text);
    free(text);
  }
  WriteFile(texts_, "[11800000]\n11800E02=changed @1\n11800E99=now there\n");
  EXPECT_EQ("seq 6", Text(kSeq, "6"));
  EXPECT_EQ("<null>", Text(0x11800E99, ""));
}

TEST_F(VeltLog, ChangeSizeKeepsTheNewestRecordsThatFit) {
  for (int i = 0; i < 100; ++i) ASSERT_TRUE(Write(6, i, 50));
  // 10 records of 95 bytes, then 96 each: 49 and the wrap mark fit exactly.
  ASSERT_EQ(0, VELTLogChangeSize(16 + 49 * 96 + 2, 6));
  EXPECT_EQ(Be32(16) + Be32(16 + 49 * 96), ReadFile(kCopyLog).substr(8, 8));
  EXPECT_EQ(Range(51, 99), Sequence(6));
  WriteConf("copylogfilesize_MAX", "3000");
  for (int i = 100; i < 140; ++i) ASSERT_TRUE(Write(6, i, 50));
  ASSERT_LT(At32(kCopyLog, 12), At32(kCopyLog, 8));  // wrapped
  ASSERT_EQ(0, VELTLogChangeSize(1000, 6));
  EXPECT_EQ(Range(130, 139), Sequence(6));
  EXPECT_EQ(-1, InOrder({VELTLogChangeSize(15, 6), VELTLogChangeSize(16, 6)}));
  EXPECT_EQ(kEmptyRing, ReadFile(kCopyLog));
  unlink(kCopyLog);
  EXPECT_EQ(0, VELTLogChangeSize(1000, 6));
  EXPECT_TRUE(Logged(LOG_INFO, "VELTLogChangeSize : logfile /var/log/veltcopy.log not existed"));
}

TEST_F(VeltLog, SetSizeWritesTheKey) {
  ASSERT_EQ(0, VELTLogSetSize("connlogfilesize_MAX", "4096"));
  EXPECT_TRUE(Logged(LOG_INFO, "logconf file not exist! created one!"));
  const std::string conf = ReadFile(kConf);
  EXPECT_NE(std::string::npos, conf.find("\nconnlogfilesize_MAX=\t\"4096\"\nbkplogfile\t"));
  ASSERT_EQ(0, VELTLogSetSize("newkey_MAX", "1"));
  EXPECT_EQ(conf + "newkey_MAX=\t\"1\"\n", ReadFile(kConf));
  ASSERT_EQ(0, InOrder({unlink(kConf), mkdir(kConf, 0755)}));
  EXPECT_EQ(-1, VELTLogSetSize("syslogfilesize_MAX", "100"));
  EXPECT_TRUE(Logged(LOG_ERR, "error occured in setkeyvalue in /etc/veltlog.conf."));
  rmdir(kConf);
}

#ifdef VELTLOG_TOOL
TEST_F(VeltLog, CommandWritesShowsAndExportsTheLog) {
  ASSERT_EQ(0, rename(texts_.substr(0, texts_.size() - 7).c_str(), "/usr/velt/veltsdk/texts/enu"));
  std::string results;
  for (const char* arguments : {"write 3 2 11800E02 7", "show 3 >/tmp/shown", "--help >/dev/null",
                                "export 3 enu /tmp/exported", "write 4 1 11800E02", "show 5",
                                "frobnicate", "write 3 1 nothex"}) {
    const int status =
        system((std::string(VELTLOG_TOOL) + " " + arguments + " 2>>/tmp/err").c_str());
    results += std::to_string(WEXITSTATUS(status));
  }
  EXPECT_EQ("00001111", results);
  const std::string shown = ReadFile("/tmp/shown");
  EXPECT_EQ("2\tConnection\t" + shown.substr(13, 19) + "\tseq 7\ttester\tveltlog\n", shown);
  EXPECT_EQ(shown, ReadFile("/tmp/exported"));
  EXPECT_NE(
      std::string::npos,
      ReadFile("/tmp/err").find("veltlog: write failed (D00)\nveltlog: export failed (900)\n"));
}
#endif

}  // namespace
