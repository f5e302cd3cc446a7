// A driver for the appliance modules, run inside the appliance sandbox by the
// sandbox tests: every call named on the command line is made in order and
// its result printed as one line "<call> <args...>: result <r> error <code>",
// where the library error code is reset to 0 before the call and printed in
// hex afterwards.
//
//   netservice MASK OP      VELTNetService (numbers in C notation: -1, 0x20)
//   control OP              VELTServiceNetControl
//   stop | start            ErrNetServiceStop | ErrNetServiceStart
//   events OP MASK          VELTServiceRecordEvents
//   killall NAME            VELTServiceKillAll
//   terminate NAME FORCE    VELTServiceTerminate
//   findpids NAME           VELTServiceFindPids (also prints "pids <n> ...")
//   mtu VALUE               VELTNetSetMTUValue
//   setkey KEY VALUE        VELTINFOSetKeyValue
//   export LANG PATH        VELTLogExport of the system log
//   holdlock MASK SECONDS MARKER   takes ErrSLIBFileLock(MASK | 6, 0), creates
//                           the file MARKER and sleeps SECONDS with the lock
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "lib/slib_error.h"
#include "lib/slib_lock.h"
#include "lib/velt_log.h"
#include "sdk/velt_net.h"
#include "sdk/velt_service.h"
#include "sdk/velt_service_events.h"

namespace {

int Number(const char* text) { return static_cast<int>(strtol(text, nullptr, 0)); }

int FindPids(const char* name) {
  std::vector<int> pids(VELT_SERVICE_MAX_PIDS);
  const int count = VELTServiceFindPids(name, pids.data(), VELT_SERVICE_MAX_PIDS);
  printf("pids %d", count);
  for (int i = 0; i < count; ++i) printf(" %d", pids[i]);
  printf("\n");
  return count;
}

int HoldLock(int mask, int seconds, const char* marker) {
  if (ErrSLIBFileLock(mask | SLIB_LOCK_EX | SLIB_LOCK_NB, 0) != 0) return -1;
  const int fd = open(marker, O_WRONLY | O_CREAT, 0644);
  if (fd >= 0) close(fd);
  sleep(static_cast<unsigned>(seconds));
  return ErrSLIBFileUnlock(mask);
}

struct Call {
  const char* name;
  int arguments;
};

const Call kCalls[] = {
    {"netservice", 2}, {"control", 1},  {"stop", 0}, {"start", 0},  {"events", 2}, {"killall", 1},
    {"terminate", 2},  {"findpids", 1}, {"mtu", 1},  {"setkey", 2}, {"export", 2}, {"holdlock", 3},
};

int Run(const std::string& call, char** args) {
  if (call == "netservice") return VELTNetService(Number(args[0]), Number(args[1]));
  if (call == "control") return VELTServiceNetControl(Number(args[0]));
  if (call == "stop") return ErrNetServiceStop();
  if (call == "start") return ErrNetServiceStart();
  if (call == "events") return VELTServiceRecordEvents(Number(args[0]), Number(args[1]));
  if (call == "killall") return VELTServiceKillAll(args[0]);
  if (call == "terminate") return VELTServiceTerminate(args[0], Number(args[1]));
  if (call == "findpids") return FindPids(args[0]);
  if (call == "mtu") return VELTNetSetMTUValue(args[0]);
  if (call == "setkey") return VELTINFOSetKeyValue(args[0], args[1]);
  if (call == "export") return VELTLogExport(1, args[0], args[1]);
  return HoldLock(Number(args[0]), Number(args[1]), args[2]);
}

}  // namespace

int main(int argc, char** argv) {
  openlog("sdk_probe", 0, LOG_USER);
  int i = 1;
  while (i < argc) {
    const Call* call = nullptr;
    for (const Call& candidate : kCalls) {
      if (strcmp(argv[i], candidate.name) == 0) call = &candidate;
    }
    if (call == nullptr || call->arguments > argc - i - 1) {
      fprintf(stderr, "sdk_probe: bad call at \"%s\"\n", argv[i]);
      return 2;
    }
    std::string line = argv[i];
    for (int a = 1; a <= call->arguments; ++a) line += std::string(" ") + argv[i + a];
    SLIBCErrSet(0);
    const int result = Run(call->name, argv + i + 1);
    printf("%s: result %d error %X\n", line.c_str(), result, SLIBCErrGet());
    fflush(stdout);
    i += 1 + call->arguments;
  }
  return 0;
}
