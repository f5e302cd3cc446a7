// A driver for the appliance modules and the update's migration steps, run
// inside the appliance sandbox by the tests: every call named on the command
// line is made in order and printed as one line "<call> <args...>: <result>",
// followed for the appliance modules by " error <code>" (hex) when the call
// left a library error code.
//
//   netservice MASK OP    control OP    stop    start    killall NAME
//   terminate NAME FORCE    mtu VALUE
//   setkey KEY VALUE    export LANG PATH (the system log)
//   holdlock MASK SECONDS MARKER: takes ErrSLIBFileLock(MASK | 6, 0), creates
//       the file MARKER and sleeps SECONDS with the lock
//   set FLAG VALUE (a run flag, or gszVolume; not printed)    UPDTUpdateConfig
//   UPDTAddFtpUserGroup    UPDTRenameConflictUser NAME
//   UpdateFTPPassivePortRange    UpdateRsyncdConf    UpdatePhotoDB
// Numbers are read in C notation (-1, 0x20).
#include <ctype.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "lib/slib_error.h"
#include "lib/slib_lock.h"
#include "lib/velt_log.h"
#include "sdk/velt_net.h"
#include "sdk/velt_service.h"
#include "updater/ftp_accounts.h"
#include "updater/update_config.h"
#include "updater/update_run.h"

namespace {

int N(const char* text) { return static_cast<int>(strtol(text, nullptr, 0)); }

int HoldLock(char** a) {
  if (ErrSLIBFileLock(N(a[0]) | SLIB_LOCK_EX | SLIB_LOCK_NB, 0) != 0) return -1;
  close(open(a[2], O_WRONLY | O_CREAT, 0644));
  sleep(static_cast<unsigned>(N(a[1])));
  return ErrSLIBFileUnlock(N(a[0]));
}

int Set(char** a) {
#define FLAG(name) \
  { #name, &name }
  const struct {
    const char* name;
    int* flag;
  } kFlags[] = {FLAG(gblCfgAtalk),   FLAG(gblCfgPapd),       FLAG(gblCfgFtpUser),
                FLAG(gblCfgProfile), FLAG(gblCfgJumboFrame), FLAG(gblCfgRcFstab),
                FLAG(gblCfgMTU),     FLAG(gPhotoDbUpgrade),  FLAG(gblPhotoDbReset)};
#undef FLAG
  if (strcmp(a[0], "gszVolume") == 0) return snprintf(gszVolume, sizeof gszVolume, "%s", a[1]);
  for (const auto& flag : kFlags) {
    if (strcmp(a[0], flag.name) == 0) return *flag.flag = N(a[1]);
  }
  return -1;
}

struct Call {
  const char* name;
  int arguments;
  int (*run)(char** a);
};

const Call kCalls[] = {
    {"netservice", 2, [](char** a) { return VELTNetService(N(a[0]), N(a[1])); }},
    {"control", 1, [](char** a) { return VELTServiceNetControl(N(a[0])); }},
    {"stop", 0, [](char**) { return ErrNetServiceStop(); }},
    {"start", 0, [](char**) { return ErrNetServiceStart(); }},
    {"killall", 1, [](char** a) { return VELTServiceKillAll(a[0]); }},
    {"terminate", 2, [](char** a) { return VELTServiceTerminate(a[0], N(a[1])); }},
    {"mtu", 1, [](char** a) { return VELTNetSetMTUValue(a[0]); }},
    {"setkey", 2, [](char** a) { return VELTINFOSetKeyValue(a[0], a[1]); }},
    {"export", 2, [](char** a) { return VELTLogExport(1, a[0], a[1]); }},
    {"holdlock", 3, HoldLock},
    {"set", 2, Set},
    {"UPDTUpdateConfig", 0, [](char**) { return UPDTUpdateConfig(); }},
    {"UPDTAddFtpUserGroup", 0, [](char**) { return UPDTAddFtpUserGroup(); }},
    {"UPDTRenameConflictUser", 1, [](char** a) { return UPDTRenameConflictUser(a[0]); }},
    {"UpdateFTPPassivePortRange", 0, [](char**) { return UpdateFTPPassivePortRange(); }},
    {"UpdateRsyncdConf", 0, [](char**) { return UpdateRsyncdConf(); }},
    {"UpdatePhotoDB", 0, [](char**) { return UpdatePhotoDB(); }},
};

}  // namespace

int main(int argc, char** argv) {
  UPDTResetRunState();
  for (int i = 1; i < argc;) {
    const Call* call = nullptr;
    for (const Call& candidate : kCalls) {
      if (strcmp(argv[i], candidate.name) == 0) call = &candidate;
    }
    if (call == nullptr || call->arguments > argc - i - 1) {
      fprintf(stderr, "probe: bad call at \"%s\"\n", argv[i]);
      return 2;
    }
    std::string line = argv[i];
    for (int a = 1; a <= call->arguments; ++a) line += std::string(" ") + argv[i + a];
    SLIBCErrSet(0);
    const int result = call->run(argv + i + 1);
    const int error = SLIBCErrGet();
    // A flag set is not printed; the migration steps (upper-case names) do
    // not report through the library error code.
    if (call->run != Set) {
      const bool show_error = error != 0 && islower(static_cast<unsigned char>(call->name[0]));
      printf(show_error ? "%s: %d error %X\n" : "%s: %d\n", line.c_str(), result, error);
    }
    i += 1 + call->arguments;
  }
  return 0;
}
