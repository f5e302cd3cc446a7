#include "sdk/slib_exec.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>

#include "test_support.h"

namespace {

using testing_support::ReadFile;

// A script that reports its arguments, $0, directory, standard streams and
// whether the caller's descriptor 57 reached it, and exits with $#.
std::string Reporter(const testing_support::TempDir& dir) {
  const std::string path = dir.File("report");
  testing_support::WriteFile(
      path,
      "#!/bin/sh\nin=$(readlink /proc/$$/fd/0) out=$(readlink /proc/$$/fd/1)\n"
      "err=$(readlink /proc/$$/fd/2) fd57=$([ -e /proc/$$/fd/57 ] && echo open)\n"
      "read -r line && in=read\necho noise; echo noise >&2\n"
      "{ printf '[%s]' \"$@\"; echo \" $0 $(pwd -P) $in $out $err $fd57\"; } >" +
          dir.File("out") + "\nexit $#\n");
  chmod(path.c_str(), 0755);
  return path;
}

TEST(SlibExec, RunsTheProgramWithItsArgumentsAloneAndReturnsItsStatus) {
  testing_support::TempDir dir;
  const std::string script = Reporter(dir);
  const std::string tail = " " + script + " / /dev/null /dev/null /dev/null \n";
  const struct {
    const char* args[4];
    const char* listed;
    int status;
  } cases[] = {{{nullptr, nullptr, nullptr, nullptr}, "[]", 0},
               {{"a b", "$HOME", "`x`;y", "*"}, "[a b][$HOME][`x`;y][*]", 4},
               {{"one", nullptr, "three", "four"}, "[one]", 1},
               {{"", "two", "3", nullptr}, "[][two][3]", 3}};
  const int inherited = dup2(open(script.c_str(), O_RDONLY), 57);
  const int stdout_copy = dup(1);
  dup2(open("/dev/null", O_WRONLY), 1);  // nothing of the child may show
  SLIBCErrSet(0x1234);
  for (const auto& c : cases) {
    EXPECT_EQ(c.status, SLIBCExec(script.c_str(), c.args[0], c.args[1], c.args[2], c.args[3]));
    EXPECT_EQ(c.listed + tail, ReadFile(dir.File("out")));
  }
  dup2(stdout_copy, 1);
  EXPECT_EQ(0x1234, SLIBCErrGet());
  EXPECT_EQ(0, fcntl(inherited, F_GETFD));
  close(inherited);
}

TEST(SlibExec, ProgramsThatCannotRunOrAreKilledFail) {
  testing_support::TempDir dir;
  testing_support::WriteFile(dir.File("plain"), "#!/bin/sh\n");
  testing_support::WriteFile(dir.File("killed"), "#!/bin/sh\nkill -9 $$\n");
  chmod(dir.File("killed").c_str(), 0755);
  for (const std::string& path : {dir.File("missing"), dir.File("plain"), dir.path(),
                                  std::string("true"), dir.File("killed")}) {
    EXPECT_EQ(testing_support::Failure(SLIB_ERR_EXEC),
              testing_support::WithError(SLIBCExec(path.c_str(), "a", nullptr, nullptr, nullptr)))
        << path;
  }
  // With SIGCHLD ignored the kernel reaps the child itself: waitpid says ECHILD.
  struct sigaction ignore = {}, saved = {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGCHLD, &ignore, &saved);
  EXPECT_EQ(0, SLIBCExec(Reporter(dir).c_str(), "1", nullptr, nullptr, nullptr));
  sigaction(SIGCHLD, &saved, nullptr);
}

}  // namespace
