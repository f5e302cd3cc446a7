#include "updater/file_copy.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "log_lines.h"
#include "test_support.h"
#include "updater/update_run.h"
#include "updater/update_status.h"

namespace {

using testing_support::LoggedRecords;
using testing_support::ReadFile;
using testing_support::SyslogRecord;
using testing_support::WriteFile;

SyslogRecord Error(const std::string& text) { return {LOG_ERR, text}; }

// Bytes that differ from their neighbours and from every other block.
std::string Image(size_t length, unsigned seed) {
  std::string image(length, '\0');
  for (size_t i = 0; i < length; ++i)
    image[i] = static_cast<char>((i * 31 + seed + (i >> 9)) & 0xFF);
  return image;
}

class FileCopy : public ::testing::Test {
 protected:
  void SetUp() override {
    // The progress record goes to a fixed path under /tmp: never the host's.
    private_tmp_ = testing_support::EnterPrivateTmp();
    dir_ = std::make_unique<testing_support::TempDir>();
    UPDTResetRunState();  // gullUpdateTotal 0: no progress record is written
    testing_support::SyslogRecords().clear();
  }
  void TearDown() override { UPDTResetRunState(); }

  std::string File(const std::string& name) const { return dir_->File(name); }

  std::string private_tmp_;
  std::unique_ptr<testing_support::TempDir> dir_;
};

TEST_F(FileCopy, CopiesEveryBlockIntoTheExistingDestination) {
  const std::string image = Image(3 * 16384 + 100, 1);
  WriteFile(File("image"), image);
  WriteFile(File("device"), std::string(image.size(), '\xFF'));
  EXPECT_EQ(0, UPDTCopyFile(File("image").c_str(), File("device").c_str(), image.size(), 16384));
  EXPECT_EQ(image, ReadFile(File("device")));
  EXPECT_TRUE(LoggedRecords().empty());
  EXPECT_EQ(image.size(), gullUpdateDone);
}

TEST_F(FileCopy, ShortSourceIsCopiedWholeWithAWarningAndSucceeds) {
  const std::string image = Image(20000, 2);
  WriteFile(File("image"), image);
  WriteFile(File("device"), "");
  EXPECT_EQ(0, UPDTCopyFile(File("image").c_str(), File("device").c_str(), 30000, 16384));
  EXPECT_EQ(image, ReadFile(File("device")));
  EXPECT_EQ(
      std::vector<SyslogRecord>{Error("file_copy.cpp:N(UPDTCopyFile) read file [" + File("image") +
                                      "] only 20000 bytes, 30000 bytes needed: (0) Success.")},
      LoggedRecords());
}

TEST_F(FileCopy, CopyGoesOnToTheEndOfALongerSource) {
  const std::string image = Image(5000, 3);
  WriteFile(File("image"), image);
  WriteFile(File("device"), "");
  EXPECT_EQ(0, UPDTCopyFile(File("image").c_str(), File("device").c_str(), 4096, 4096));
  EXPECT_EQ(image, ReadFile(File("device")));
  EXPECT_EQ(
      std::vector<SyslogRecord>{Error("file_copy.cpp:N(UPDTCopyFile) read file [" + File("image") +
                                      "] only 5000 bytes, 4096 bytes needed: (0) Success.")},
      LoggedRecords());
}

TEST_F(FileCopy, DestinationIsNeverTruncated) {
  const std::string image = Image(1000, 4);
  const std::string old = std::string(4096, 'o');
  WriteFile(File("image"), image);
  WriteFile(File("device"), old);
  EXPECT_EQ(0, UPDTCopyFile(File("image").c_str(), File("device").c_str(), 1000, 16384));
  EXPECT_EQ(image + old.substr(1000), ReadFile(File("device")));
}

TEST_F(FileCopy, MissingDestinationIsNotCreated) {
  WriteFile(File("image"), Image(100, 5));
  EXPECT_EQ(-1, UPDTCopyFile(File("image").c_str(), File("device").c_str(), 100, 16384));
  EXPECT_FALSE(testing_support::FileExists(File("device")));
  EXPECT_EQ(
      std::vector<SyslogRecord>{Error("file_copy.cpp:N(UPDTCopyFile) open [" + File("device") +
                                      "] error: (2) No such file or directory.")},
      LoggedRecords());
}

TEST_F(FileCopy, MissingSourceFailsAtOpenAndLeavesTheDestination) {
  WriteFile(File("device"), "kept");
  EXPECT_EQ(-1, UPDTCopyFile(File("image").c_str(), File("device").c_str(), 100, 16384));
  EXPECT_EQ("kept", ReadFile(File("device")));
  EXPECT_EQ(std::vector<SyslogRecord>{Error("file_copy.cpp:N(UPDTCopyFile) open [" + File("image") +
                                            "] error: (2) No such file or directory.")},
            LoggedRecords());
}

TEST_F(FileCopy, UnreadableSourceIsAReadError) {
  ASSERT_EQ(0, mkdir(File("image").c_str(), 0755));
  WriteFile(File("device"), "kept");
  EXPECT_EQ(-1, UPDTCopyFile(File("image").c_str(), File("device").c_str(), 100, 16384));
  EXPECT_EQ("kept", ReadFile(File("device")));
  EXPECT_EQ(std::vector<SyslogRecord>{Error("file_copy.cpp:N(UPDTCopyFile) read file [" +
                                            File("image") + "] error: (21) Is a directory.")},
            LoggedRecords());
}

TEST_F(FileCopy, RefusedWriteIsAWriteError) {
  WriteFile(File("image"), Image(8192, 6));
  WriteFile(File("device"), "");
  // A file size limit of 0 makes every write to the destination fail.
  rlimit saved;
  ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &saved));
  const sighandler_t old_handler = signal(SIGXFSZ, SIG_IGN);
  rlimit limited = saved;
  limited.rlim_cur = 0;
  ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limited));
  const int result = UPDTCopyFile(File("image").c_str(), File("device").c_str(), 8192, 4096);
  setrlimit(RLIMIT_FSIZE, &saved);
  signal(SIGXFSZ, old_handler);
  EXPECT_EQ(-1, result);
  EXPECT_EQ("", ReadFile(File("device")));
  EXPECT_EQ(std::vector<SyslogRecord>{Error("file_copy.cpp:N(UPDTCopyFile) write file [" +
                                            File("device") + "] error: (27) File too large.")},
            LoggedRecords());
}

TEST_F(FileCopy, NullPathsAndZeroSizesFailSilently) {
  WriteFile(File("image"), "x");
  WriteFile(File("device"), "y");
  const std::string device = File("device");
  const std::string image_path = File("image");
  for (auto operation : {UPDTCopyFile, UPDTVerifyFile}) {
    EXPECT_EQ(-1, operation(nullptr, device.c_str(), 1, 16));
    EXPECT_EQ(-1, operation(image_path.c_str(), nullptr, 1, 16));
    EXPECT_EQ(-1, operation(image_path.c_str(), device.c_str(), 0, 16));
    EXPECT_EQ(-1, operation(image_path.c_str(), device.c_str(), 1, 0));
  }
  EXPECT_EQ("y", ReadFile(File("device")));
  EXPECT_TRUE(LoggedRecords().empty());
}

TEST_F(FileCopy, VerifyAcceptsEqualContentsFollowedByMore) {
  const std::string image = Image(3 * 8192 + 17, 7);
  WriteFile(File("image"), image);
  WriteFile(File("device"), image + std::string(5000, '\xFF'));  // the rest of the partition
  EXPECT_EQ(0, UPDTVerifyFile(File("image").c_str(), File("device").c_str(), image.size(), 8192));
  EXPECT_TRUE(LoggedRecords().empty());
  EXPECT_EQ(image.size(), gullUpdateDone);
}

TEST_F(FileCopy, VerifyReportsTheOffsetOfTheDifferingBlock) {
  const std::string image = Image(4 * 8192, 8);
  std::string device = image;
  device[0x2000 + 4321] ^= 0x10;
  WriteFile(File("image"), image);
  WriteFile(File("device"), device);
  EXPECT_EQ(-1, UPDTVerifyFile(File("image").c_str(), File("device").c_str(), image.size(), 8192));
  EXPECT_EQ(std::vector<SyslogRecord>{Error("file_copy.cpp:N(UPDTVerifyFile) compare file [" +
                                            File("image") + "] vs [" + File("device") +
                                            "] error at offset 0x2000")},
            LoggedRecords());
  EXPECT_EQ(0x2000u, gullUpdateDone);  // the block before the difference counted
}

TEST_F(FileCopy, VerifyFailsWhenTheDestinationEndsFirst) {
  const std::string image = Image(3 * 8192, 9);
  WriteFile(File("image"), image);
  WriteFile(File("device"), image.substr(0, 2 * 8192 + 10));
  EXPECT_EQ(-1, UPDTVerifyFile(File("image").c_str(), File("device").c_str(), image.size(), 8192));
  EXPECT_EQ(std::vector<SyslogRecord>{Error("file_copy.cpp:N(UPDTVerifyFile) read file [" +
                                            File("device") + "] error: (0) Success.")},
            LoggedRecords());
}

TEST_F(FileCopy, VerifyOfAShortSourceWarnsAndSucceeds) {
  const std::string image = Image(9000, 10);
  WriteFile(File("image"), image);
  WriteFile(File("device"), image);
  EXPECT_EQ(0, UPDTVerifyFile(File("image").c_str(), File("device").c_str(), 16384, 8192));
  EXPECT_EQ(std::vector<SyslogRecord>{Error("file_copy.cpp:N(UPDTVerifyFile) read file [" +
                                            File("image") +
                                            "] only 9000 bytes, 16384 bytes needed: (0) Success.")},
            LoggedRecords());
}

TEST_F(FileCopy, VerifyOpensBothFilesWithTheOpenRule) {
  WriteFile(File("image"), "abc");
  EXPECT_EQ(-1, UPDTVerifyFile(File("image").c_str(), File("device").c_str(), 3, 8192));
  EXPECT_EQ(-1, UPDTVerifyFile(File("none").c_str(), File("image").c_str(), 3, 8192));
  EXPECT_EQ((std::vector<SyslogRecord>{
                Error("file_copy.cpp:N(UPDTVerifyFile) open [" + File("device") +
                      "] error: (2) No such file or directory."),
                Error("file_copy.cpp:N(UPDTVerifyFile) open [" + File("none") +
                      "] error: (2) No such file or directory."),
            }),
            LoggedRecords());
}

std::string ProgressRecord() { return ReadFile(UPDT_PROGRESS_FILE); }

TEST_F(FileCopy, ProgressReachesExactlyOneHundredAtTheEndOfTheLastPass) {
  if (!private_tmp_.empty()) GTEST_SKIP() << private_tmp_;
  const std::string image = Image(5 * 16384 + 3, 11);  // an uneven last block
  WriteFile(File("image"), image);
  WriteFile(File("device"), std::string(image.size(), '\xFF'));
  gullUpdateTotal = 2 * image.size();
  gullUpdateDone = 0;

  // One block alone: 60 + 16384 * 40 / 163846, truncated.
  WriteFile(File("block"), image.substr(0, 16384));
  ASSERT_EQ(0, UPDTCopyFile(File("block").c_str(), File("device").c_str(), 16384, 16384));
  EXPECT_EQ("P:63:      ", ProgressRecord());
  gullUpdateDone = 0;

  ASSERT_EQ(0, UPDTCopyFile(File("image").c_str(), File("device").c_str(), image.size(), 16384));
  EXPECT_EQ("P:80:      ", ProgressRecord());  // half of the work
  ASSERT_EQ(0, UPDTVerifyFile(File("image").c_str(), File("device").c_str(), image.size(), 8192));
  // "P:100:" overwrote the start of the shorter record and its blanks the rest.
  EXPECT_EQ("P:100:      ", ProgressRecord());
  EXPECT_EQ(gullUpdateTotal, gullUpdateDone);
}

// With standard input closed, the source opens as descriptor 0.
void CopyWithDescriptorZeroFree(const std::string& source, const std::string& destination) {
  testing_support::SyslogRecords().clear();
  close(STDIN_FILENO);
  errno = 0;
  const int result = UPDTCopyFile(source.c_str(), destination.c_str(), 3, 16);
  const bool closed_again = fcntl(STDIN_FILENO, F_GETFD) == -1;
  const std::vector<SyslogRecord> expected = {
      Error("file_copy.cpp:N(UPDTCopyFile) open [" + source + "] error: (0) Success.")};
  exit(result == -1 && closed_again && LoggedRecords() == expected ? 0 : 1);
}

TEST_F(FileCopy, DescriptorZeroCountsAsAFailedOpen) {
  WriteFile(File("image"), "abc");
  WriteFile(File("device"), "def");
  EXPECT_EXIT(CopyWithDescriptorZeroFree(File("image"), File("device")),
              ::testing::ExitedWithCode(0), "");
  EXPECT_EQ("def", ReadFile(File("device")));
}

void CopyUnderAddressSpaceLimit(const std::string& source, const std::string& destination) {
  testing_support::SyslogRecords().clear();
  if (!testing_support::LimitAddressSpace(16 << 20)) exit(3);
  const int result = UPDTCopyFile(source.c_str(), destination.c_str(), 1, 1u << 30);
  const std::vector<SyslogRecord> logged = LoggedRecords();
  const SyslogRecord expected =
      Error("file_copy.cpp:N(UPDTCopyFile) malloc [1073741824] fail: (12) Cannot allocate memory.");
  exit(result == -1 && logged.size() == 1 && logged[0] == expected ? 0 : 1);
}

TEST_F(FileCopy, FailedAllocationIsLoggedWithItsSize) {
  const std::string unavailable = testing_support::AllocationFailureUnavailable();
  if (!unavailable.empty()) GTEST_SKIP() << unavailable;
  WriteFile(File("image"), "abc");
  WriteFile(File("device"), "def");
  EXPECT_EXIT(CopyUnderAddressSpaceLimit(File("image"), File("device")),
              ::testing::ExitedWithCode(0), "");
  EXPECT_EQ("def", ReadFile(File("device")));
}

}  // namespace
