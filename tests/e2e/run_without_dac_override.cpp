// run_without_dac_override PROGRAM [ARGS...]: runs PROGRAM as the same user
// but without the capabilities that let root pass over file permissions
// (CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH), dropped from the bounding set so
// that neither PROGRAM nor its children regain them. Root then meets the
// owner's permission bits like any other user: a directory of mode 0 owned
// by root can no longer be entered.
#include <errno.h>
#include <linux/capability.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <initializer_list>

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: run_without_dac_override PROGRAM [ARGS...]\n");
    return 127;
  }
  for (const int capability : {CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH}) {
    if (prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) != 0) {
      fprintf(stderr, "run_without_dac_override: cannot drop capability %d: %s\n", capability,
              strerror(errno));
      return 127;
    }
  }
  execv(argv[1], argv + 1);
  fprintf(stderr, "run_without_dac_override: cannot run %s: %s\n", argv[1], strerror(errno));
  return 127;
}
