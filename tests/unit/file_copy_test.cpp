#include "updater/file_copy.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "gtest/gtest.h"
#include "log_lines.h"
#include "test_support.h"
#include "updater/update_run.h"

namespace {

using testing_support::ReadFile;
using testing_support::WriteFile;

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
  // `result` and the lines logged since the last call, "|"-separated, with
  // "file_copy.cpp:N(" shown as "(" and the test directory as "~".
  std::string Outcome(int result) {
    std::string text = std::to_string(result);
    for (std::string line : testing_support::LoggedMessages()) {
      if (line.compare(0, 16, "file_copy.cpp:N(") == 0) line.erase(0, 15);
      for (size_t at; (at = line.find(dir_.path())) != std::string::npos;) {
        line.replace(at, dir_.path().size(), "~");
      }
      text += "|" + line;
    }
    testing_support::SyslogRecords().clear();
    return text;
  }

  // The progress record goes to a fixed path under /tmp: never the host's.
  const std::string private_tmp_ = testing_support::EnterPrivateTmp();
  testing_support::TempDir dir_;
  const std::string image_path_ = dir_.File("image"), device_path_ = dir_.File("device");
  const char* image_ = image_path_.c_str();
  const char* device_ = device_path_.c_str();
};

TEST_F(FileCopy, CopiesTheWholeSourceOverTheStartOfTheDestination) {
  const std::string image = Image(3 * 4096 + 100), old(30000, 'o');
  WriteFile(image_, image);
  WriteFile(device_, old);
  EXPECT_EQ("0", Outcome(Copy(image.size(), 4096)));
  EXPECT_EQ(image + old.substr(image.size()), ReadFile(device_));
  EXPECT_EQ(image.size(), gullUpdateDone);
  EXPECT_EQ(
      "0|(UPDTCopyFile) read file [~/image] only 12388 bytes, 4096 bytes needed: (0) Success.",
      Outcome(Copy(4096, 4096)));
  EXPECT_EQ(image + old.substr(image.size()), ReadFile(device_));
}

TEST_F(FileCopy, FailedOpenReadOrWriteFailsTheCopy) {
  WriteFile(image_, Image(8192));
  EXPECT_EQ("-1|(UPDTCopyFile) open [~/device] error: (2) No such file or directory.",
            Outcome(Copy(3, 16)));
  EXPECT_FALSE(testing_support::FileExists(device_));  // never created
  WriteFile(device_, "");
  // A file size limit refuses the write that starts at it and cuts the one
  // that crosses it short.
  signal(SIGXFSZ, SIG_IGN);
  rlimit saved;
  ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &saved));
  const auto copy_under_limit = [&](rlim_t limit) {
    const rlimit limited = {limit, saved.rlim_max};
    EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &limited));
    const int result = Copy(8192, 4096);
    setrlimit(RLIMIT_FSIZE, &saved);
    return Outcome(result);
  };
  EXPECT_EQ("-1|(UPDTCopyFile) write file [~/device] error: (0) Success.", copy_under_limit(5000));
  EXPECT_EQ(Image(5000), ReadFile(device_));
  EXPECT_EQ("-1|(UPDTCopyFile) write file [~/device] error: (27) File too large.",
            copy_under_limit(0));
  ASSERT_EQ(0, unlink(image_));
  EXPECT_EQ("-1|(UPDTCopyFile) open [~/image] error: (2) No such file or directory.",
            Outcome(Copy(3, 16)));
  ASSERT_EQ(0, mkdir(image_, 0755));
  EXPECT_EQ("-1|(UPDTCopyFile) read file [~/image] error: (21) Is a directory.",
            Outcome(Copy(3, 16)));
  EXPECT_EQ(Image(5000), ReadFile(device_));
}

TEST_F(FileCopy, VerifyComparesTheSourceWithTheStartOfTheDestination) {
  const std::string image = Image(3 * 8192 + 17);
  WriteFile(image_, image);
  WriteFile(device_, image + std::string(5000, '\xFF'));  // the rest of the partition
  EXPECT_EQ("0", Outcome(Verify(image.size(), 8192)));
  EXPECT_EQ(image.size(), gullUpdateDone);
  EXPECT_EQ(
      "0|(UPDTVerifyFile) read file [~/image] only 24593 bytes, 32768 bytes needed: (0) "
      "Success.",
      Outcome(Verify(32768, 8192)));
  std::string device = image;
  device[2 * 8192 - 1] ^= 0x10;  // the last byte of the second block
  WriteFile(device_, device);
  gullUpdateDone = 0;
  EXPECT_EQ("-1|(UPDTVerifyFile) compare file [~/image] vs [~/device] error at offset 0x2000",
            Outcome(Verify(image.size(), 8192)));
  EXPECT_EQ(8192u, gullUpdateDone);  // the block before the difference counted
  WriteFile(device_, image.substr(0, 2 * 8192 + 10));
  EXPECT_EQ("-1|(UPDTVerifyFile) read file [~/device] error: (0) Success.",
            Outcome(Verify(image.size(), 8192)));
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
  EXPECT_EQ("P:80:      ", ReadFile("/tmp/update.progress"));  // half of the work
  ASSERT_EQ(0, Verify(image.size(), 8192));
  // "P:100:" overwrote the start of the shorter record and its blanks the rest.
  EXPECT_EQ("P:100:      ", ReadFile("/tmp/update.progress"));
  EXPECT_EQ(gullUpdateTotal, gullUpdateDone);
}

}  // namespace
