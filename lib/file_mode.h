// Giving a replacement file the mode and owner of the file it replaces.
#ifndef LIB_FILE_MODE_H_
#define LIB_FILE_MODE_H_

#include <sys/stat.h>
#include <unistd.h>

// Gives the open file `fd` the permission bits and owner of `original`,
// before anything is written to it, so that a secret never lies readable in
// a temporary file. The owner is kept where this process may set it (root);
// true when the mode was set.
inline bool TakeModeAndOwner(int fd, const struct stat& original) {
  const int ignored = fchown(fd, original.st_uid, original.st_gid);
  (void)ignored;
  return fchmod(fd, original.st_mode & 07777) == 0;
}

#endif  // LIB_FILE_MODE_H_
