// Minimal stand-ins for appliance modules that the network service control
// (sdk/velt_service.h) calls but whose real versions are not part of this
// library: the AppleTalk file server check, the web file manager's share list,
// the network backup daemons and the download settings. Each does only what
// the service control and the update run need, as stated per function.
#ifndef SDK_VELT_MINIMAL_MODULES_H_
#define SDK_VELT_MINIMAL_MODULES_H_

#ifdef __cplusplus
extern "C" {
#endif

// Settings file of the download service; its switch is `download_enabled`.
#define VELT_DOWNLOAD_CONF "/usr/velt/etc/download.conf"

// 1 when the AppleTalk file server is configured and running. Stand-in: the
// server is always reported as not running (0).
int VELTAppleTalkIsRunning(void);

// Makes the web file manager re-read the share list. Stand-in: does nothing;
// returns 0.
int VELTWebFileManagerRefreshShares(void);

// Stops (op 1) or starts (op 2) the network backup daemons: runs
// "/usr/velt/etc/rc.d/S84rsyncd.sh", "/usr/velt/etc/rc.d/S85veltnetbkpd.sh"
// and, when `supportssh` of "/etc.defaults/veltinfo.conf" is "yes",
// "/usr/velt/etc/rc.d/S95sshd.sh", in that order, each with the argument
// "stop" or "start" (through SLIBCExec). Returns 0 when every script returned
// 0; -1 when one did not (the others still run) or for any other op (0xD00,
// nothing run).
int VELTNetBackupDaemonControl(int op);

// 1 when `download_enabled` of VELT_DOWNLOAD_CONF is exactly "yes", else 0;
// the error code is left unchanged.
int VELTDownloadIsEnabled(void);

#ifdef __cplusplus
}
#endif

#endif  // SDK_VELT_MINIMAL_MODULES_H_
