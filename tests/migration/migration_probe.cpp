// Runs migration steps by name inside an appliance sandbox, so that a test can
// look at the files, logs and stub calls they leave behind.
//
//   migration_probe WORD...
//
// The words are taken in order:
//   set NAME VALUE              sets a run flag (gblCfgAtalk, ..., gPhotoDbUpgrade,
//                               gblPhotoDbReset) to the number VALUE, or gszVolume
//   UPDTUpdateConfig | UPDTAddFtpUserGroup | UpdateFTPPassivePortRange |
//   UpdateRsyncdConf | UpdatePhotoDB
//   UPDTRenameConflictUser NAME
//   VELTLogExport CLASS LANG PATH
// Each call prints "<name> <result>" on its own line. Exit status 0, or 2 for
// words it does not know.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "lib/velt_log.h"
#include "updater/ftp_accounts.h"
#include "updater/update_config.h"
#include "updater/update_run.h"

namespace {

struct Flag {
  const char* name;
  int* value;
};

const Flag kFlags[] = {
    {"gblCfgAtalk", &gblCfgAtalk},
    {"gblCfgPapd", &gblCfgPapd},
    {"gblCfgFtpUser", &gblCfgFtpUser},
    {"gblCfgProfile", &gblCfgProfile},
    {"gblCfgJumboFrame", &gblCfgJumboFrame},
    {"gblCfgRcFstab", &gblCfgRcFstab},
    {"gblCfgMTU", &gblCfgMTU},
    {"gblNeedFtpPassivePort", &gblNeedFtpPassivePort},
    {"gblNeedRsyncdFix", &gblNeedRsyncdFix},
    {"gPhotoDbUpgrade", &gPhotoDbUpgrade},
    {"gblPhotoDbReset", &gblPhotoDbReset},
};

struct Call {
  const char* name;
  int (*run)(void);
};

const Call kCalls[] = {
    {"UPDTUpdateConfig", UPDTUpdateConfig},
    {"UPDTAddFtpUserGroup", UPDTAddFtpUserGroup},
    {"UpdateFTPPassivePortRange", UpdateFTPPassivePortRange},
    {"UpdateRsyncdConf", UpdateRsyncdConf},
    {"UpdatePhotoDB", UpdatePhotoDB},
};

bool Set(const char* name, const char* value) {
  if (strcmp(name, "gszVolume") == 0) {
    snprintf(gszVolume, sizeof gszVolume, "%s", value);
    return true;
  }
  for (const Flag& flag : kFlags) {
    if (strcmp(flag.name, name) == 0) {
      *flag.value = atoi(value);
      return true;
    }
  }
  return false;
}

void Report(const char* name, int result) {
  printf("%s %d\n", name, result);
  fflush(stdout);
}

// Runs the word at argv[*i] (with its arguments); false for an unknown word.
bool RunWord(int argc, char** argv, int* i) {
  const std::string word = argv[*i];
  const int left = argc - *i - 1;
  if (word == "set" && left >= 2) {
    *i += 2;
    return Set(argv[*i - 1], argv[*i]);
  }
  if (word == "UPDTRenameConflictUser" && left >= 1) {
    *i += 1;
    Report(word.c_str(), UPDTRenameConflictUser(argv[*i]));
    return true;
  }
  if (word == "VELTLogExport" && left >= 3) {
    *i += 3;
    Report(word.c_str(), VELTLogExport(atoi(argv[*i - 2]), argv[*i - 1], argv[*i]));
    return true;
  }
  for (const Call& call : kCalls) {
    if (word == call.name) {
      Report(call.name, call.run());
      return true;
    }
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  UPDTResetRunState();
  for (int i = 1; i < argc; ++i) {
    if (!RunWord(argc, argv, &i)) {
      fprintf(stderr, "migration_probe: unknown or incomplete word [%s]\n", argv[i]);
      return 2;
    }
  }
  return 0;
}
