#include "lib/slib_proc.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "lib/slib_error.h"
#include "test_support.h"

namespace {

using testing_support::WriteFile;

TEST(SlibProc, PidFilesAndRegularFiles) {
  testing_support::TempDir dir;
  const pid_t child = fork();
  if (child == 0) _exit(0);
  waitpid(child, nullptr, 0);
  const struct {
    std::string content;
    int pid;
    int alive;
  } cases[] = {{std::to_string(getpid()) + "\n", getpid(), 1},
               {"  99999999 trailing\n", 99999999, 0},
               {std::to_string(child), child, 0},
               {"0\n", 0, 0},
               {"", 0, 0},
               {"abc\n", 0, 0}};
  const std::string path = dir.File("daemon.pid");
  for (const auto& c : cases) {
    WriteFile(path, c.content);
    EXPECT_EQ(c.pid, SLIBProcReadPid(path.c_str())) << c.content;
    EXPECT_EQ(c.alive, SLIBProcIsAlive(path.c_str())) << c.content;
  }
  EXPECT_EQ(-1, SLIBProcReadPid(dir.File("missing").c_str()));
  EXPECT_EQ(SLIB_ERR_OPEN, SLIBCErrGet());
  EXPECT_EQ(0, SLIBProcIsAlive(dir.File("missing").c_str()));
  ASSERT_EQ(0, symlink("daemon.pid", dir.File("link").c_str()));
  ASSERT_EQ(0, symlink(".", dir.File("dir-link").c_str()));
  ASSERT_EQ(0, mkfifo(dir.File("fifo").c_str(), 0600));
  for (const std::string name : {"daemon.pid", "link", "dir-link", "fifo", "missing"}) {
    EXPECT_EQ(name == "daemon.pid" || name == "link", SLIBFileIsRegular(dir.File(name).c_str()));
  }
}

TEST(SlibProc, CountByNameSeesRunningProcessesButNotItsOwnSearch) {
  const std::string why = testing_support::EnterPrivateTmp();
  if (!why.empty()) GTEST_SKIP() << why;
  for (const char* bad : {"", "it's"}) {
    EXPECT_EQ(-1, SLIBProcCountByName(bad));
    EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
  }
  const std::string name = "slibproctest_sleeper_" + std::to_string(getpid());
  const std::string program = "/tmp/" + name;
  std::filesystem::copy_file("/bin/sleep", program);
  EXPECT_EQ(0, SLIBProcCountByName(name.c_str()));
  int ready[2];
  ASSERT_EQ(0, pipe2(ready, O_CLOEXEC));
  const pid_t sleeper = fork();
  if (sleeper == 0) execl(program.c_str(), program.c_str(), "300", static_cast<char*>(nullptr));
  close(ready[1]);
  char ignored;
  ASSERT_EQ(0, read(ready[0], &ignored, 1));  // closed by the exec
  close(ready[0]);
  // A link planted at the listing's old fixed name is not followed.
  ASSERT_EQ(0, symlink("/tmp/planted", ("/tmp/tempSLIBPs" + std::to_string(getpid())).c_str()));
  EXPECT_EQ(1, SLIBProcCountByName(name.c_str()));
  kill(sleeper, SIGKILL);
  waitpid(sleeper, nullptr, 0);
  EXPECT_EQ(0, SLIBProcCountByName(name.c_str()));
  EXPECT_FALSE(testing_support::FileExists("/tmp/planted"));
  EXPECT_EQ(2, std::distance(std::filesystem::directory_iterator("/tmp"), {}));  // no listing left
  ASSERT_EQ(0, mount(nullptr, "/tmp", nullptr, MS_REMOUNT | MS_RDONLY, nullptr));
  EXPECT_EQ(-1, SLIBProcCountByName("init"));
  EXPECT_EQ(SLIB_ERR_READ, SLIBCErrGet());
  ASSERT_EQ(0, mount(nullptr, "/tmp", nullptr, MS_REMOUNT, nullptr));
  unlink(program.c_str());
}

}  // namespace
