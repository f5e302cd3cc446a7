#include "updater/ftp_accounts.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "lib/slib_file_line.h"
#include "lib/velt_log.h"
#include "sdk/velt_user.h"
#include "updater/update_config.h"

namespace {

constexpr char kSource[] = "updater";
constexpr char kGroupFile[] = "/etc/group";
constexpr char kPasswdFile[] = "/etc/passwd";
constexpr char kShadowFile[] = "/etc/shadow";
constexpr char kFtpName[] = "ftp";
constexpr char kAnonymousName[] = "anonymous";
constexpr char kFtpGroupLine[] = "ftp:x:21:nobody,ftp,nobody";
constexpr char kAnonymousPasswdLine[] =
    "anonymous:x:21:21:Anonymous FTP User:/nonexist:/sbin/nologin";
constexpr char kAnonymousShadowLine[] = "anonymous:*:10933:0:99999:7:::";
constexpr char kFtpPasswdLine[] = "ftp:x:21:21:Anonymous FTP User:/nonexist:/sbin/nologin";
constexpr char kFtpShadowLine[] = "ftp:*:10933:0:99999:7:::";

constexpr int kNameSize = 64;
constexpr int kGroupSuffixMax = 63;
constexpr int kUserSuffixMax = 127;
constexpr int kSystemLogClass = 1;
constexpr int kEventLevel = 1;

struct FreeDeleter {
  void operator()(void* block) const { free(block); }
};

struct FcloseDeleter {
  void operator()(FILE* file) const { fclose(file); }
};

// The accounts are looked up in "/etc/group" and "/etc/passwd" themselves,
// not through getgrnam/getpwnam: the appliance's static program must not need
// the C library's name-service modules at run time. An unreadable file has no
// accounts, as for the name service.
template <typename Entry, typename Id>
bool FindAccount(const char* path, Entry* (*next)(FILE*), char* Entry::*name_of, Id Entry::*id_of,
                 const char* name, Id* id) {
  std::unique_ptr<FILE, FcloseDeleter> file(fopen(path, "r"));
  if (!file) return false;
  while (const Entry* entry = next(file.get())) {
    if (strcmp(entry->*name_of, name) == 0) {
      *id = entry->*id_of;
      return true;
    }
  }
  return false;
}

bool FindGroup(const char* name, gid_t* gid) {
  return FindAccount(kGroupFile, fgetgrent, &group::gr_name, &group::gr_gid, name, gid);
}

bool FindUser(const char* name, uid_t* uid) {
  return FindAccount(kPasswdFile, fgetpwent, &passwd::pw_name, &passwd::pw_uid, name, uid);
}

bool GroupExists(const char* name) {
  gid_t gid;
  return FindGroup(name, &gid);
}

bool UserExists(const char* name) {
  uid_t uid;
  return FindUser(name, &uid);
}

// The first "<base><n>" (n from 1 to `last`) that `taken` does not know, in
// a `kNameSize` buffer; false when all are taken.
bool FirstFreeName(const char* base, int last, bool (*taken)(const char*), char* name) {
  for (int n = 1; n <= last; ++n) {
    const int length = snprintf(name, kNameSize, "%s%d", base, n);
    if (length < 0 || length >= kNameSize) return false;
    if (!taken(name)) return true;
  }
  return false;
}

// Renames the user-created group "ftp" out of the way. -1 only when no name
// is free or the group cannot be fetched.
int RenameConflictGroup() {
  gid_t gid;
  if (!FindGroup(kFtpName, &gid) || gid <= UPDT_SYSTEM_ID_MAX) return 0;
  char new_name[kNameSize] = {0};
  if (!FirstFreeName(kFtpName, kGroupSuffixMax, GroupExists, new_name)) return -1;

  const int size = VELTGroupGet(kFtpName, nullptr, 0);
  if (size <= 0) {
    UPDTMigrationLog("%s (%d) Failed to VELTGroupGet() group [ftp].", kSource, __LINE__);
    return -1;
  }
  std::unique_ptr<void, FreeDeleter> block(malloc(size));
  if (!block) {
    UPDTMigrationLog("%s (%d) Failed VELTMalloc(%d).", kSource, __LINE__, size);
    return -1;
  }
  VELTGROUP* group = static_cast<VELTGROUP*>(block.get());
  if (VELTGroupGet(kFtpName, group, size) <= 0) {
    UPDTMigrationLog("%s (%d) Failed to VELTGroupGet() group [ftp].", kSource, __LINE__);
    return -1;
  }
  snprintf(group->szName, sizeof group->szName, "%s", new_name);
  if (VELTGroupSet(kFtpName, group) > 0) {
    VELTLogWrite(kSystemLogClass, kEventLevel, UPDT_EVENT_GROUP_RENAMED, kFtpName, new_name,
                 nullptr, nullptr);
  }
  return 0;
}

// Inserts `line` as the first line of `path`; false (logged) on failure. An
// existing file keeps its mode and owner through the rewrite; a missing one
// is created with `new_mode` first (0: as any new file), so that a new
// "/etc/shadow" is never readable by others.
bool InsertFirstLine(const char* path, const char* line, mode_t new_mode = 0) {
  if (new_mode != 0) {
    const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, new_mode);
    if (fd >= 0) {
      fchmod(fd, new_mode);
      close(fd);
    }
  }
  if (SLIBFileAddLine(path, nullptr, line, 0) > 0) return true;
  // The message names the shadow file whichever file it was.
  UPDTMigrationLog("%s (%d) Failed to SLIBFileAddLine in to /etc/shadow.", kSource, __LINE__);
  return false;
}

// Adds the passwd and shadow lines of a system user that does not exist.
bool AddSystemUser(const char* name, const char* passwd_line, const char* shadow_line) {
  if (UserExists(name)) return true;
  return InsertFirstLine(kPasswdFile, passwd_line) &&
         InsertFirstLine(kShadowFile, shadow_line, 0600);
}

}  // namespace

int UPDTRenameConflictUser(const char* name) {
  if (name == nullptr) return -1;
  uid_t uid;
  if (!FindUser(name, &uid) || uid <= UPDT_SYSTEM_ID_MAX) return 0;
  char new_name[kNameSize] = {0};
  if (!FirstFreeName(name, kUserSuffixMax, UserExists, new_name)) return -1;

  const int size = VELTUserGet(name, nullptr, 0);
  if (size <= 0) {
    UPDTMigrationLog("%s (%d) Failed to run VELTUserGet() for user %s", kSource, __LINE__, name);
    return -1;
  }
  std::unique_ptr<void, FreeDeleter> block(malloc(size));
  if (!block) {
    UPDTMigrationLog("%s (%d) Failed VELTMalloc(%d).", kSource, __LINE__, size);
    return -1;
  }
  VELTUSER* user = static_cast<VELTUSER*>(block.get());
  if (VELTUserGet(name, user, size) <= 0) {
    UPDTMigrationLog("%s (%d) Failed to VELTUserGet() user [%s].", kSource, __LINE__, name);
    return -1;
  }

  // The change: the new name with the record's ids; the other fields stay.
  VELTUSER change;
  memset(&change, 0, sizeof change);
  snprintf(change.szName, sizeof change.szName, "%s", new_name);
  change.uid = user->uid;
  change.gid = user->gid;
  if (VELTUserSet(name, &change) > 0) {
    VELTLogWrite(kSystemLogClass, kEventLevel, UPDT_EVENT_USER_RENAMED, name, new_name, nullptr,
                 nullptr);
  }
  return 0;
}

int UPDTAddFtpUserGroup(void) {
  if (RenameConflictGroup() < 0) return -1;
  if (UPDTRenameConflictUser(kFtpName) < 0) return -1;
  if (UPDTRenameConflictUser(kAnonymousName) < 0) return -1;

  if (!GroupExists(kFtpName) && !InsertFirstLine(kGroupFile, kFtpGroupLine)) return -1;
  if (!AddSystemUser(kAnonymousName, kAnonymousPasswdLine, kAnonymousShadowLine)) return -1;
  if (!AddSystemUser(kFtpName, kFtpPasswdLine, kFtpShadowLine)) return -1;
  return 0;
}
