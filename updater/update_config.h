// The configuration migration steps: adapting the old system's settings
// files to the new firmware after (and, for the FTP and rsync steps, before)
// the flash is rewritten. Which steps run is decided by the package analysis
// through the flags of updater/update_run.h; every step is idempotent in
// effect, and no step stops the others.
//
// Messages go to syslog at error priority and, with the same text, to the
// update log (UPDTLog), since they belong to the history of the run the
// administrator reads. Messages that begin with "updater:<line>(<function>)"
// name the source "updater", the line and the function.
#ifndef UPDATER_UPDATE_CONFIG_H_
#define UPDATER_UPDATE_CONFIG_H_

#define UPDT_VELTINFO_FILE "/etc/veltinfo.conf"
#define UPDT_RSYNCD_CONF "/etc/rsyncd.conf"

// Writes one message of the migration steps: printf-style `format`, to syslog
// (priority 3) and to the update log.
void UPDTMigrationLog(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Runs the migration steps in order; each runs whatever the earlier ones did:
//   1 gblCfgAtalk: remove "/usr/velt/etc/rc.atalk"
//   2 gblCfgPapd: remove "/usr/velt/etc/papd.conf"
//   3 gblCfgFtpUser: UPDTAddFtpUserGroup (updater/ftp_accounts.h)
//   4 gblCfgProfile: remove "/etc/profile"
//   5 gblCfgJumboFrame: remove "/usr/velt/etc/rc.d/S78JumboFrame.sh"
//   6 remove "/usr/velt/etc/manutil.conf"
//   7 gblCfgRcFstab: remove "/etc/rc" and "/etc/fstab", then through the shell
//     "/bin/mkdir -p <gszVolume>/s@vedconfig" and
//     "/bin/cp -a /writeable/configs/* /writeable/logs/* <gszVolume>/s@vedconfig"
//   8 remove "/usr/velt/etc/php.ini"
//   9 filter the lines with "vacuumdb" out of "/etc/crontab"
//  10 filter the lines with "/bin/rm -f /var/log/*.html" out of "/etc/crontab"
//  11 gblCfgMTU: an MTUValue of "4074" becomes "4000", "9000" becomes "8000"
// A remove fails only when unlink fails with another error than ENOENT.
// Returns 0, or -1 when one of steps 1 to 7 failed (a non-zero shell result
// in step 7); failures of steps 8 to 11 are only logged (in 9 and 10 only a
// shell that could not be run, -1, is a failure).
int UPDTUpdateConfig(void);

// Cuts the FTP passive port range of "/etc/veltinfo.conf" (ftplowport,
// ftphighport; a missing key counts as 0) to 1024 ports: when it is wider,
// ftphighport becomes ftplowport + 1023, written with VELTINFOSetKeyValue. A
// range of 1024 ports or fewer, or an inverted one, is left alone. Returns 0;
// -1 when a key cannot be read or the new value cannot be stored.
int UpdateFTPPassivePortRange(void);

// Inserts "use chroot = no" after the line containing "lock file =" in
// "/etc/rsyncd.conf" unless a line already contains it, then sets the file's
// mode to 0644. Returns 0; -1 when the file cannot be read (no message) or
// the line cannot be inserted.
int UpdateRsyncdConf(void);

// Brings the photo database up to date as gPhotoDbUpgrade (bit 0x1: the
// timetaken type and the admin column; bit 0x2: the video tables) and
// gblPhotoDbReset (drop the media server database) ask, each statement run
// as user admin through su and psql, then rebuilds the media index
// ("/usr/velt/bin/veltindex -R all"). Results of the commands are not looked
// at. Returns 0.
int UpdatePhotoDB(void);

#endif  // UPDATER_UPDATE_CONFIG_H_
