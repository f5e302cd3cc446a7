#include "updater/file_copy.h"

#include <signal.h>
#include <stdio.h>
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

// The files live in a private /tmp, where the progress record goes too.
constexpr char kImage[] = "/tmp/image";
constexpr char kDevice[] = "/tmp/device";

class FileCopy : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string why = testing_support::EnterPrivateTmp();
    if (!why.empty()) GTEST_SKIP() << why;
    UPDTResetRunState();  // gullUpdateTotal 0: no progress record is written
    for (const char* path : {kImage, kDevice}) remove(path);  // a file or an empty directory
    testing_support::SyslogRecords().clear();
  }
  int Copy(uint64_t count, unsigned block) { return UPDTCopyFile(kImage, kDevice, count, block); }
  int Verify(uint64_t count, unsigned block) {
    return UPDTVerifyFile(kImage, kDevice, count, block);
  }
  // `result` and the lines logged since the last call, "|"-separated, with
  // "file_copy.cpp:N(" shown as "(".
  std::string Outcome(int result) {
    std::string text = std::to_string(result);
    for (std::string line : testing_support::LoggedMessages()) {
      text += "|" + (line.compare(0, 16, "file_copy.cpp:N(") == 0 ? line.substr(15) : line);
    }
    testing_support::SyslogRecords().clear();
    return text;
  }
};

TEST_F(FileCopy, CopiesTheWholeSourceOverTheStartOfTheDestination) {
  const std::string image = Image(3 * 4096 + 100), old(30000, 'o');
  WriteFile(kImage, image);
  WriteFile(kDevice, old);
  EXPECT_EQ("0", Outcome(Copy(image.size(), 4096)));
  EXPECT_EQ(image + old.substr(image.size()), ReadFile(kDevice));
  EXPECT_EQ(image.size(), gullUpdateDone);
  EXPECT_EQ(
      "0|(UPDTCopyFile) read file [/tmp/image] only 12388 bytes, 4096 bytes needed: (0) Success.",
      Outcome(Copy(4096, 4096)));
}

TEST_F(FileCopy, FailedOpenReadOrWriteFailsTheCopy) {
  WriteFile(kImage, Image(8192));
  EXPECT_EQ("-1|(UPDTCopyFile) open [/tmp/device] error: (2) No such file or directory.",
            Outcome(Copy(3, 16)));
  EXPECT_FALSE(testing_support::FileExists(kDevice));  // never created
  WriteFile(kDevice, "");
  // A file size limit cuts the write that crosses it short.
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
  EXPECT_EQ("-1|(UPDTCopyFile) write file [/tmp/device] error: (0) Success.",
            copy_under_limit(5000));
  EXPECT_EQ(Image(5000), ReadFile(kDevice));
  ASSERT_EQ(0, testing_support::InOrder({unlink(kImage), mkdir(kImage, 0755)}));
  EXPECT_EQ("-1|(UPDTCopyFile) read file [/tmp/image] error: (21) Is a directory.",
            Outcome(Copy(3, 16)));
  EXPECT_EQ(Image(5000), ReadFile(kDevice));
}

TEST_F(FileCopy, VerifyComparesTheSourceWithTheStartOfTheDestination) {
  const std::string image = Image(3 * 8192 + 17);
  WriteFile(kImage, image);
  WriteFile(kDevice, image + std::string(5000, '\xFF'));  // the rest of the partition
  EXPECT_EQ("0", Outcome(Verify(image.size(), 8192)));
  EXPECT_EQ(image.size(), gullUpdateDone);
  std::string device = image;
  device[2 * 8192 - 1] ^= 0x10;  // the last byte of the second block
  WriteFile(kDevice, device);
  gullUpdateDone = 0;
  EXPECT_EQ("-1|(UPDTVerifyFile) compare file [/tmp/image] vs [/tmp/device] error at offset 0x2000",
            Outcome(Verify(image.size(), 8192)));
  EXPECT_EQ(8192u, gullUpdateDone);  // the block before the difference counted
  WriteFile(kDevice, image.substr(0, 2 * 8192 + 10));
  EXPECT_EQ("-1|(UPDTVerifyFile) read file [/tmp/device] error: (0) Success.",
            Outcome(Verify(image.size(), 8192)));
}

TEST_F(FileCopy, ProgressRunsFromSixtyToExactlyOneHundredOverTheRecountedBytes) {
  const std::string image = Image(5 * 16384 + 3);  // an uneven last block
  WriteFile(kImage, image);
  WriteFile(kDevice, "");
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
