// The local user and group database as far as the account migration needs
// it: fetch one user or group record by name, and write it back under its
// old name with changed fields (a rename, for example).
//
// Files:
//   "/etc/passwd"  name:password:uid:gid:gecos:home:shell
//   "/etc/shadow"  name:the rest (only the name is ever changed here)
//   "/etc/group"   name:password:gid:member,member,...
// A line's name is everything before its first ':'. The group database
// brackets its member lists with the placeholder "nobody": a group is written
// as "%s:x:%d:nobody,%s,nobody" (the members joined by ","), or without
// members as "%s:x:%d:nobody,nobody". When a group is read, every "nobody"
// and every empty entry of its list is left out, so reading and writing a
// group back gives the same line.
//
// Every change rewrites the whole file to "<path>.tmp" with the file's mode
// and owner, flushes, fsyncs and closes it and renames it over the file; a
// failure before the rename leaves the file byte for byte as it was. Writers
// hold the lock of the files (lib/slib_lock.h): users the password lock
// (SLIB_LOCK_PW), groups the group lock (SLIB_LOCK_GR), exclusive and not
// blocking, with a time-out of 5 seconds.
//
// Failures set the library error code (lib/slib_error.h): 0x100 buffer too
// small, 0x400 lock not obtained, 0x900 open failed, 0xA00 read failed or the
// name's line is malformed (a passwd line has seven fields, a group line three
// or four, ids are decimal), 0xB00 write, flush, sync, close or rename failed,
// 0xD00 bad argument, 0x2000 no such user or group.
#ifndef SDK_VELT_USER_H_
#define SDK_VELT_USER_H_

#ifdef __cplusplus
extern "C" {
#endif

#define VELT_PASSWD_FILE "/etc/passwd"
#define VELT_SHADOW_FILE "/etc/shadow"
#define VELT_GROUP_FILE "/etc/group"

// Size of a name buffer; names are at most VELT_NAME_SIZE - 1 bytes.
enum { VELT_NAME_SIZE = 64 };

// A group record as VELTGroupGet lays it out in the caller's buffer:
//   this structure, then `memberCount` char pointers (`members` points at the
//   first; null when there are none), then the member names, each
//   NUL-terminated.
// The pointers point into the same buffer: the record is used where it was
// filled, not copied.
typedef struct VELTGROUP {
  char szName[VELT_NAME_SIZE];
  int gid;
  int memberCount;
  char** members;
} VELTGROUP;

// A user record as VELTUserGet lays it out in the caller's buffer:
//   this structure, then the gecos, home and shell texts, each
//   NUL-terminated, which the three pointers point at.
// For VELTUserSet a null text means "keep the field as it is in the file".
typedef struct VELTUSER {
  char szName[VELT_NAME_SIZE];
  int uid;
  int gid;
  char* szGecos;
  char* szHome;
  char* szShell;
} VELTUSER;

// Fetches group `name` from "/etc/group" in two calls: with a null `group`
// it returns the number of bytes the record needs; with a buffer of at
// least that many bytes (`size`) it fills the record and returns the same
// number. Returns -1 with 0x2000 (no such group), 0x100 (`size` too small),
// 0xD00, 0x900, 0xA00.
int VELTGroupGet(const char* name, VELTGROUP* group, int size);

// Replaces the line of group `oldName` in "/etc/group" by the record
// (name, gid, members, in the form above); only that line changes. The
// record's name may differ from `oldName` (a rename) but must not be taken
// by another group. Names and members must be non-empty, shorter than
// VELT_NAME_SIZE and free of ':', ',' and line feeds. Returns 1; -1 with
// 0xD00 (bad record, or the new name is taken), 0x2000 (no group `oldName`),
// 0x400, 0x900, 0xA00, 0xB00.
int VELTGroupSet(const char* oldName, const VELTGROUP* group);

// Fetches user `name` from "/etc/passwd", with the two-call protocol of
// VELTGroupGet.
int VELTUserGet(const char* name, VELTUSER* user, int size);

// Rewrites the "/etc/passwd" line of user `oldName` with the record's name,
// ids and (when not null) gecos, home and shell; the password field is kept.
// When the name changes, the user's "/etc/shadow" line (if any) is renamed
// too, the rest of it kept; both files are written before either is renamed
// into place. The new name must not be taken by another user. Returns 1; -1
// with the codes of VELTGroupSet (0xD00 also for a text with ':' or a line
// feed).
int VELTUserSet(const char* oldName, const VELTUSER* user);

#ifdef __cplusplus
}
#endif

#endif  // SDK_VELT_USER_H_
