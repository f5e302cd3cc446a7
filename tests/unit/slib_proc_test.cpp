#include "lib/slib_proc.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <filesystem>

#include "test_support.h"

namespace {

TEST(SlibProc, PidFilesAndRegularFiles) {
  testing_support::TempDir dir;
  const pid_t child = fork();
  if (child == 0) _exit(0);
  waitpid(child, nullptr, 0);
  const std::tuple<std::string, int, int> cases[] = {// {content, pid, alive}
                                                     {std::to_string(getpid()) + "\n", getpid(), 1},
                                                     {"  99999999 trailing\n", 99999999, 0},
                                                     {std::to_string(child), child, 0},
                                                     {"0\n", 0, 0},
                                                     {"", 0, 0},
                                                     {"abc\n", 0, 0}};
  const std::string path = dir.File("daemon.pid");
  for (const auto& c : cases) {
    testing_support::WriteFile(path, std::get<0>(c));
    EXPECT_EQ(std::make_pair(std::get<1>(c), std::get<2>(c)),
              std::make_pair(SLIBProcReadPid(path.c_str()), SLIBProcIsAlive(path.c_str())));
  }
  EXPECT_EQ(testing_support::Failure(SLIB_ERR_OPEN),
            testing_support::WithError(SLIBProcReadPid(dir.File("missing").c_str())));
  EXPECT_EQ(0, SLIBProcIsAlive(dir.File("missing").c_str()));
  ASSERT_EQ(0, symlink("daemon.pid", dir.File("link").c_str()) +
                   symlink(".", dir.File("dir").c_str()) + mkfifo(dir.File("fifo").c_str(), 0600));
  for (const std::string name : {"daemon.pid", "link", "dir", "fifo", "missing"}) {
    EXPECT_EQ(name == "daemon.pid" || name == "link", SLIBFileIsRegular(dir.File(name).c_str()));
  }
}

TEST(SlibProc, CountByNameSeesRunningProcessesButNotItsOwnSearch) {
  const std::string why = testing_support::EnterPrivateTmp();
  if (!why.empty()) GTEST_SKIP() << why;
  EXPECT_EQ(-2, testing_support::InOrder({SLIBProcCountByName(""), SLIBProcCountByName("it's")}));
  const std::string name = "slibproctest_sleeper_" + std::to_string(getpid());
  const std::string program = "/tmp/" + name;
  std::filesystem::copy_file("/bin/sleep", program);
  EXPECT_EQ(0, SLIBProcCountByName(name.c_str()));
  int ready[2];
  ASSERT_EQ(0, pipe2(ready, O_CLOEXEC));
  const pid_t sleeper = fork();
  if (sleeper == 0) execl(program.c_str(), program.c_str(), "300", static_cast<char*>(nullptr));
  char ignored;
  ASSERT_EQ(0, testing_support::InOrder(
                   {close(ready[1]),
                    static_cast<int>(read(ready[0], &ignored, 1))}));  // closed by the exec
  // A link planted at the listing's old fixed name is not followed.
  ASSERT_EQ(0, symlink("/tmp/planted", ("/tmp/tempSLIBPs" + std::to_string(getpid())).c_str()));
  EXPECT_EQ(1, SLIBProcCountByName(name.c_str()));
  kill(sleeper, SIGKILL);
  waitpid(sleeper, nullptr, 0);
  EXPECT_EQ(0, SLIBProcCountByName(name.c_str()));
  EXPECT_FALSE(testing_support::FileExists("/tmp/planted"));
  EXPECT_EQ(2, std::distance(std::filesystem::directory_iterator("/tmp"), {}));  // no listing left
  ASSERT_EQ(0, mount(nullptr, "/tmp", nullptr, MS_REMOUNT | MS_RDONLY, nullptr));
  EXPECT_EQ(testing_support::Failure(SLIB_ERR_READ),
            testing_support::WithError(SLIBProcCountByName("init")));
  ASSERT_EQ(0, testing_support::InOrder({mount(nullptr, "/tmp", nullptr, MS_REMOUNT, nullptr),
                                         unlink(program.c_str())}));
}

}  // namespace
