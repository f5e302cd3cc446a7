// The fixed system accounts for anonymous FTP: group "ftp" (id 21) and users
// "ftp" and "anonymous" (id 21). Accounts of those names that an
// administrator created (ids above 1024) are first renamed out of the way;
// then each missing system account is added by inserting its fixed line at the
// top of "/etc/group", "/etc/passwd" and "/etc/shadow":
//   "ftp:x:21:nobody,ftp,nobody"
//   "anonymous:x:21:21:Anonymous FTP User:/nonexist:/sbin/nologin"
//   "anonymous:*:10933:0:99999:7:::"
//   "ftp:x:21:21:Anonymous FTP User:/nonexist:/sbin/nologin"
//   "ftp:*:10933:0:99999:7:::"
// Each file keeps its mode and owner through the insertion.
// A rename writes system-log event 0x11800602 (group) or 0x11800E02 (user)
// with the old and the new name. Failures are logged at error priority (see
// UPDTMigrationLog in updater/update_config.h).
#ifndef UPDATER_FTP_ACCOUNTS_H_
#define UPDATER_FTP_ACCOUNTS_H_

// Ids above this one belong to accounts an administrator created.
#define UPDT_SYSTEM_ID_MAX 1024

// Event codes of the system log: a group, a user was renamed.
#define UPDT_EVENT_GROUP_RENAMED 0x11800602UL
#define UPDT_EVENT_USER_RENAMED 0x11800E02UL

// Renames a user-created group "ftp" to the first free "ftp1".."ftp63",
// renames conflicting users "ftp" and "anonymous", then adds the missing
// system lines (group, anonymous passwd and shadow, ftp passwd and shadow,
// each at the top of its file, so the ftp lines end up above the anonymous
// ones). A failed group write-back is not a failure. Returns 0; -1 when no
// free group name is left, fetching the group fails, a user rename fails or a
// line cannot be inserted (insertions already made stay: each line is only
// added while its account is missing, so the step can run again).
int UPDTAddFtpUserGroup(void);

// When user `name` exists with an id above 1024, renames it (passwd and
// shadow) to the first free "<name>1".."<name>127". Returns 0 when there was
// nothing to do or the rename was attempted (a failed write-back is not
// reported); -1 when no free name is left or the user record cannot be
// fetched.
int UPDTRenameConflictUser(const char* name);

#endif  // UPDATER_FTP_ACCOUNTS_H_
