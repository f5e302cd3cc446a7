#include "updater/file_copy.h"

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

using testing_support::LoggedMessages;
using testing_support::ReadFile;
using testing_support::WriteFile;
using Lines = std::vector<std::string>;

// Bytes that differ from their neighbours and from every other block.
std::string Image(size_t length) {
  std::string image(length, '\0');
  for (size_t i = 0; i < length; ++i) image[i] = static_cast<char>((i * 31 + (i >> 9)) & 0xFF);
  return image;
}

class FileCopy : public ::testing::Test {
 protected:
  void SetUp() override {
    UPDTResetRunState();  // gullUpdateTotal 0: no progress record is written
    testing_support::SyslogRecords().clear();
  }
  void TearDown() override { UPDTResetRunState(); }

  int Copy(uint64_t count, unsigned block) { return UPDTCopyFile(image_, device_, count, block); }
  int Verify(uint64_t count, unsigned block) {
    return UPDTVerifyFile(image_, device_, count, block);
  }
  std::string Head(const std::string& function) { return "file_copy.cpp:N(" + function + ") "; }

  // The progress record goes to a fixed path under /tmp: never the host's.
  const std::string private_tmp_ = testing_support::EnterPrivateTmp();
  testing_support::TempDir dir_;
  const std::string image_path_ = dir_.File("image");
  const std::string device_path_ = dir_.File("device");
  const char* image_ = image_path_.c_str();
  const char* device_ = device_path_.c_str();
};

TEST_F(FileCopy, CopiesWholeSourceOverTheStartOfTheDestinationWarningOfAnotherLength) {
  const struct {
    size_t length;
    uint64_t count;
    unsigned block;
  } kCases[] = {{3 * 4096 + 100, 3 * 4096 + 100, 4096}, {20000, 30000, 16384}, {5000, 4096, 4096}};
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.count);
    SetUp();
    const std::string image = Image(row.length), old(30000, 'o');
    WriteFile(image_, image);
    WriteFile(device_, old);
    EXPECT_EQ(0, Copy(row.count, row.block));
    EXPECT_EQ(image + old.substr(row.length), ReadFile(device_));
    EXPECT_EQ(row.length, gullUpdateDone);
    Lines warning = {Head("UPDTCopyFile") + "read file [" + image_ + "] only " +
                     std::to_string(row.length) + " bytes, " + std::to_string(row.count) +
                     " bytes needed: (0) Success."};
    EXPECT_EQ(row.length == row.count ? Lines() : warning, LoggedMessages());
  }
}

TEST_F(FileCopy, OpenAndReadFailuresLeaveTheDestinationAlone) {
  WriteFile(image_, "abc");
  EXPECT_EQ(-1, Copy(3, 16));  // a missing destination is not created
  EXPECT_FALSE(testing_support::FileExists(device_));
  WriteFile(device_, "kept");
  ASSERT_EQ(0, unlink(image_));
  EXPECT_EQ(-1, Copy(3, 16));
  ASSERT_EQ(0, mkdir(image_, 0755));
  EXPECT_EQ(-1, Copy(3, 16));
  EXPECT_EQ("kept", ReadFile(device_));
  EXPECT_EQ((Lines{Head("UPDTCopyFile") + "open [" + device_ + "] error: (2) No such file or "
                                                               "directory.",
                   Head("UPDTCopyFile") + "open [" + image_ + "] error: (2) No such file or "
                                                              "directory.",
                   Head("UPDTCopyFile") + "read file [" + image_ + "] error: (21) Is a directory."}),
            LoggedMessages());
}

TEST_F(FileCopy, RefusedOrShortWriteFailsTheCopy) {
  // A file size limit refuses the write that starts at it and cuts the one
  // that crosses it short.
  const struct {
    rlim_t limit;
    const char* error;
  } kCases[] = {{0, "(27) File too large."}, {5000, "(0) Success."}};
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.limit);
    SetUp();
    WriteFile(image_, Image(8192));
    WriteFile(device_, "");
    rlimit saved;
    ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &saved));
    const sighandler_t old_handler = signal(SIGXFSZ, SIG_IGN);
    rlimit limited = saved;
    limited.rlim_cur = row.limit;
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limited));
    const int result = Copy(8192, 4096);
    setrlimit(RLIMIT_FSIZE, &saved);
    signal(SIGXFSZ, old_handler);
    EXPECT_EQ(-1, result);
    EXPECT_EQ(Image(row.limit), ReadFile(device_));
    EXPECT_EQ(Lines{Head("UPDTCopyFile") + "write file [" + device_ + "] error: " + row.error},
              LoggedMessages());
  }
}

TEST_F(FileCopy, VerifyComparesTheSourceWithTheStartOfTheDestination) {
  const std::string image = Image(3 * 8192 + 17);
  WriteFile(image_, image);
  WriteFile(device_, image + std::string(5000, '\xFF'));  // the rest of the partition
  EXPECT_EQ(0, Verify(image.size(), 8192));
  EXPECT_EQ(image.size(), gullUpdateDone);
  EXPECT_EQ(0, Verify(4 * 8192, 8192));  // a short source only warns

  std::string device = image;
  device[2 * 8192 - 1] ^= 0x10;  // the last byte of the second block
  WriteFile(device_, device);
  gullUpdateDone = 0;
  EXPECT_EQ(-1, Verify(image.size(), 8192));
  EXPECT_EQ(8192u, gullUpdateDone);  // the block before the difference counted
  WriteFile(device_, image.substr(0, 2 * 8192 + 10));
  EXPECT_EQ(-1, Verify(image.size(), 8192));
  ASSERT_EQ(0, unlink(device_));
  EXPECT_EQ(-1, Verify(image.size(), 8192));
  const std::string head = Head("UPDTVerifyFile");
  EXPECT_EQ((Lines{head + "read file [" + image_ + "] only 24593 bytes, 32768 bytes needed: (0) "
                                                   "Success.",
                   head + "compare file [" + image_ + "] vs [" + device_ + "] error at offset "
                                                                           "0x2000",
                   head + "read file [" + device_ + "] error: (0) Success.",
                   head + "open [" + device_ + "] error: (2) No such file or directory."}),
            LoggedMessages());
}

TEST_F(FileCopy, ProgressRunsFromSixtyToExactlyOneHundredOverTheRecountedBytes) {
  if (!private_tmp_.empty()) GTEST_SKIP() << private_tmp_;
  const std::string image = Image(5 * 16384 + 3);  // an uneven last block
  WriteFile(image_, image);
  WriteFile(device_, "");
  gullUpdateTotal = 2 * image.size();
  gullUpdateDone = gullUpdateRecount = 16384 + 1000;  // counted by an earlier, failed attempt
  ASSERT_EQ(0, Copy(image.size(), 16384));
  EXPECT_EQ(0u, gullUpdateRecount);
  EXPECT_EQ("P:80:      ", ReadFile(UPDT_PROGRESS_FILE));  // half of the work
  ASSERT_EQ(0, Verify(image.size(), 8192));
  // "P:100:" overwrote the start of the shorter record and its blanks the rest.
  EXPECT_EQ("P:100:      ", ReadFile(UPDT_PROGRESS_FILE));
  EXPECT_EQ(gullUpdateTotal, gullUpdateDone);
}

// With standard input closed, the source opens as descriptor 0: a failed open.
void CopyWithDescriptorZeroFree(const char* source, const char* destination) {
  close(STDIN_FILENO);
  const int result = UPDTCopyFile(source, destination, 3, 16);
  exit(result == -1 && fcntl(STDIN_FILENO, F_GETFD) == -1 ? 0 : 1);
}

void CopyUnderAddressSpaceLimit(const char* source, const char* destination) {
  testing_support::SyslogRecords().clear();
  if (!testing_support::LimitAddressSpace(16 << 20)) exit(3);
  const int result = UPDTCopyFile(source, destination, 1, 1u << 30);
  const Lines expected = {"file_copy.cpp:N(UPDTCopyFile) malloc [1073741824] fail: (12) Cannot "
                          "allocate memory."};
  exit(result == -1 && LoggedMessages() == expected ? 0 : 1);
}

TEST_F(FileCopy, DescriptorZeroCountsAsAFailedOpen) {
  WriteFile(image_, "abc");
  WriteFile(device_, "def");
  EXPECT_EXIT(CopyWithDescriptorZeroFree(image_, device_), ::testing::ExitedWithCode(0), "");
  EXPECT_EQ("def", ReadFile(device_));
}

TEST_F(FileCopy, FailedAllocationIsLoggedWithItsSize) {
  const std::string unavailable = testing_support::AllocationFailureUnavailable();
  if (!unavailable.empty()) GTEST_SKIP() << unavailable;
  WriteFile(image_, "abc");
  WriteFile(device_, "def");
  EXPECT_EXIT(CopyUnderAddressSpaceLimit(image_, device_), ::testing::ExitedWithCode(0), "");
  EXPECT_EQ("def", ReadFile(device_));
}

}  // namespace
