// Minimal stand-ins; see the header.
#include "sdk/velt_minimal_modules.h"

#include "lib/slib_error.h"
#include "sdk/slib_exec.h"
#include "sdk/velt_service.h"

namespace {

constexpr char kFactorySettings[] = "/etc.defaults/veltinfo.conf";

bool SshSupported() { return VELTServiceSettingIsYes(kFactorySettings, "supportssh") == 1; }

}  // namespace

int VELTAppleTalkIsRunning(void) { return 0; }

int VELTWebFileManagerRefreshShares(void) { return 0; }

int VELTNetBackupDaemonControl(int op) {
  if (op != 1 && op != 2) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  const char* action = op == 1 ? "stop" : "start";
  const char* scripts[] = {"/usr/velt/etc/rc.d/S84rsyncd.sh",
                           "/usr/velt/etc/rc.d/S85veltnetbkpd.sh",
                           SshSupported() ? "/usr/velt/etc/rc.d/S95sshd.sh" : nullptr};
  int result = 0;
  for (const char* script : scripts) {
    if (script != nullptr && SLIBCExec(script, action, nullptr, nullptr, nullptr) != 0) {
      result = -1;
    }
  }
  return result;
}

int VELTDownloadIsEnabled(void) {
  return VELTServiceSettingIsYes(VELT_DOWNLOAD_CONF, "download_enabled");
}
