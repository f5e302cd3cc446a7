#include "sdk/velt_user.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <new>
#include <string>
#include <vector>

#include "lib/file_mode.h"
#include "lib/slib_error.h"
#include "lib/slib_lock.h"

namespace {

constexpr int kLockTimeoutSeconds = 5;
constexpr int kExclusiveNoWait = SLIB_LOCK_EX | SLIB_LOCK_NB;
constexpr char kPlaceholderMember[] = "nobody";
constexpr size_t kUserFieldCount = 7;  // name:password:uid:gid:gecos:home:shell

int Fail(int code) {
  SLIBCErrSet(code);
  return -1;
}

bool Refuse(int code) {
  SLIBCErrSet(code);
  return false;
}

// Holds a set of account locks for the scope of one change.
class AccountLock {
 public:
  explicit AccountLock(int mask) : mask_(mask) {
    held_ = ErrSLIBFileLock(mask | kExclusiveNoWait, kLockTimeoutSeconds) == 0;
  }
  ~AccountLock() {
    if (held_) ErrSLIBFileUnlock(mask_);
  }
  AccountLock(const AccountLock&) = delete;
  AccountLock& operator=(const AccountLock&) = delete;

  bool held() const { return held_; }

 private:
  int mask_;
  bool held_ = false;
};

struct FileCloser {
  void operator()(FILE* file) const { fclose(file); }
};

// The lines of a file, each with its line feed (the last may lack it).
bool ReadLines(const char* path, std::vector<std::string>* lines) {
  std::unique_ptr<FILE, FileCloser> file(fopen(path, "r"));
  if (!file) {
    SLIBCErrSet(SLIB_ERR_OPEN);
    return false;
  }
  lines->clear();
  std::string line;
  int c;
  while ((c = getc(file.get())) != EOF) {
    line.push_back(static_cast<char>(c));
    if (c == '\n') {
      lines->push_back(line);
      line.clear();
    }
  }
  if (ferror(file.get())) {
    SLIBCErrSet(SLIB_ERR_READ);
    return false;
  }
  if (!line.empty()) lines->push_back(line);
  return true;
}

std::string WithoutNewline(const std::string& line) {
  if (!line.empty() && line.back() == '\n') return line.substr(0, line.size() - 1);
  return line;
}

// A line's name: everything before its first ':'.
std::string NameOf(const std::string& line) {
  const std::string text = WithoutNewline(line);
  return text.substr(0, text.find(':'));
}

// Index of the line of `name`, or -1.
int FindLine(const std::vector<std::string>& lines, const std::string& name) {
  for (size_t i = 0; i < lines.size(); ++i) {
    if (NameOf(lines[i]) == name) return static_cast<int>(i);
  }
  return -1;
}

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (;;) {
    const size_t end = text.find(separator, start);
    parts.push_back(text.substr(start, end - start));
    if (end == std::string::npos) return parts;
    start = end + 1;
  }
}

bool ParseId(const std::string& text, int* id) {
  if (text.empty() || text.size() > 10) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  const long value = strtol(text.c_str(), nullptr, 10);
  if (value > 0x7FFFFFFF) return false;
  *id = static_cast<int>(value);
  return true;
}

bool ValidName(const char* name) {
  if (name == nullptr || name[0] == '\0') return false;
  if (strnlen(name, VELT_NAME_SIZE) >= VELT_NAME_SIZE) return false;
  return strpbrk(name, ":,\n") == nullptr;
}

bool ValidField(const char* text) { return text == nullptr || strpbrk(text, ":\n") == nullptr; }

bool IsUserLine(const std::vector<std::string>& fields) { return fields.size() == kUserFieldCount; }

// name:password:gid, with or without the member list.
bool IsGroupLine(const std::vector<std::string>& fields) {
  return fields.size() == 3 || fields.size() == 4;
}

// Fields of the line of `name` in `path`; false with the error code set.
template <typename Check>
bool FieldsOf(const char* path, const char* name, Check well_formed,
              std::vector<std::string>* fields) {
  std::vector<std::string> lines;
  if (!ReadLines(path, &lines)) return false;
  const int index = FindLine(lines, name);
  if (index < 0) return Refuse(SLIB_ERR_NOT_FOUND);
  *fields = Split(WithoutNewline(lines[index]), ':');
  if (!well_formed(*fields)) return Refuse(SLIB_ERR_READ);
  return true;
}

// Copies `text` with its NUL to `*cursor` and advances the cursor.
char* Place(char** cursor, const std::string& text) {
  char* placed = *cursor;
  memcpy(placed, text.c_str(), text.size() + 1);
  *cursor += text.size() + 1;
  return placed;
}

// A file rewritten through "<path>.tmp": Write() fills the temporary file
// with the original's mode and owner; Commit() renames it over the file.
// Until then the destructor removes the temporary file.
class Rewrite {
 public:
  explicit Rewrite(const char* path) : path_(path), tmp_path_(path_ + ".tmp") {}
  ~Rewrite() {
    if (written_ && !committed_) unlink(tmp_path_.c_str());
  }
  Rewrite(const Rewrite&) = delete;
  Rewrite& operator=(const Rewrite&) = delete;

  bool Write(const std::vector<std::string>& lines) {
    struct stat original;
    if (stat(path_.c_str(), &original) != 0) return Refuse(SLIB_ERR_OPEN);
    const int fd = open(tmp_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return Refuse(SLIB_ERR_OPEN);
    written_ = true;
    FILE* file = fdopen(fd, "w");
    if (file == nullptr) {
      close(fd);
      return Refuse(SLIB_ERR_OPEN);
    }
    bool ok = TakeModeAndOwner(fd, original);
    for (const std::string& line : lines) {
      ok = ok && fwrite(line.data(), 1, line.size(), file) == line.size();
    }
    ok = fflush(file) == 0 && ok;
    ok = fsync(fd) == 0 && ok;
    ok = fclose(file) == 0 && ok;
    return ok || Refuse(SLIB_ERR_WRITE);
  }

  bool Commit() {
    if (rename(tmp_path_.c_str(), path_.c_str()) != 0) return Refuse(SLIB_ERR_WRITE);
    committed_ = true;
    return true;
  }

 private:
  std::string path_;
  std::string tmp_path_;
  bool written_ = false;
  bool committed_ = false;
};

// The line of `oldName` after the change, and a check that the new name is
// not another line's; -1 with the error code set, else the line's index.
int PrepareChange(const std::vector<std::string>& lines, const char* oldName, const char* newName) {
  const int index = FindLine(lines, oldName);
  if (index < 0) return Fail(SLIB_ERR_NOT_FOUND);
  if (strcmp(oldName, newName) != 0 && FindLine(lines, newName) >= 0) {
    return Fail(SLIB_ERR_BAD_ARGUMENT);
  }
  return index;
}

std::string GroupLine(const VELTGROUP& group) {
  std::string members;
  for (int i = 0; i < group.memberCount; ++i) members += std::string(group.members[i]) + ",";
  return std::string(group.szName) + ":x:" + std::to_string(group.gid) + ":" + kPlaceholderMember +
         "," + members + kPlaceholderMember + "\n";
}

bool ValidGroup(const VELTGROUP& group) {
  if (!ValidName(group.szName) || group.gid < 0 || group.memberCount < 0) return false;
  if (group.memberCount > 0 && group.members == nullptr) return false;
  for (int i = 0; i < group.memberCount; ++i) {
    if (!ValidName(group.members[i])) return false;
  }
  return true;
}

int GroupGet(const char* name, VELTGROUP* group, int size) {
  std::vector<std::string> fields;
  if (!FieldsOf(VELT_GROUP_FILE, name, IsGroupLine, &fields)) return -1;
  int gid = 0;
  if (!ParseId(fields[2], &gid)) return Fail(SLIB_ERR_READ);
  std::vector<std::string> members;
  if (fields.size() == 4) {
    for (const std::string& member : Split(fields[3], ',')) {
      if (!member.empty() && member != kPlaceholderMember) members.push_back(member);
    }
  }
  size_t needed = sizeof(VELTGROUP) + members.size() * sizeof(char*);
  for (const std::string& member : members) needed += member.size() + 1;
  if (needed > 0x7FFFFFFF) return Fail(SLIB_ERR_READ);
  if (group == nullptr) return static_cast<int>(needed);
  if (size < 0 || static_cast<size_t>(size) < needed) return Fail(SLIB_ERR_BUFFER_TOO_SMALL);

  memset(group, 0, sizeof(VELTGROUP));
  snprintf(group->szName, sizeof group->szName, "%s", name);
  group->gid = gid;
  group->memberCount = static_cast<int>(members.size());
  char** pointers = reinterpret_cast<char**>(reinterpret_cast<char*>(group) + sizeof(VELTGROUP));
  char* cursor = reinterpret_cast<char*>(pointers + members.size());
  group->members = members.empty() ? nullptr : pointers;
  for (size_t i = 0; i < members.size(); ++i) pointers[i] = Place(&cursor, members[i]);
  return static_cast<int>(needed);
}

int GroupSet(const char* oldName, const VELTGROUP& group) {
  AccountLock lock(SLIB_LOCK_GR);
  if (!lock.held()) return -1;
  std::vector<std::string> lines;
  if (!ReadLines(VELT_GROUP_FILE, &lines)) return -1;
  const int index = PrepareChange(lines, oldName, group.szName);
  if (index < 0) return -1;
  lines[index] = GroupLine(group);
  Rewrite rewrite(VELT_GROUP_FILE);
  if (!rewrite.Write(lines) || !rewrite.Commit()) return -1;
  return 1;
}

int UserGet(const char* name, VELTUSER* user, int size) {
  std::vector<std::string> fields;
  if (!FieldsOf(VELT_PASSWD_FILE, name, IsUserLine, &fields)) return -1;
  int uid = 0;
  int gid = 0;
  if (!ParseId(fields[2], &uid) || !ParseId(fields[3], &gid)) return Fail(SLIB_ERR_READ);
  const size_t needed =
      sizeof(VELTUSER) + fields[4].size() + 1 + fields[5].size() + 1 + fields[6].size() + 1;
  if (needed > 0x7FFFFFFF) return Fail(SLIB_ERR_READ);
  if (user == nullptr) return static_cast<int>(needed);
  if (size < 0 || static_cast<size_t>(size) < needed) return Fail(SLIB_ERR_BUFFER_TOO_SMALL);

  memset(user, 0, sizeof(VELTUSER));
  snprintf(user->szName, sizeof user->szName, "%s", name);
  user->uid = uid;
  user->gid = gid;
  char* cursor = reinterpret_cast<char*>(user) + sizeof(VELTUSER);
  user->szGecos = Place(&cursor, fields[4]);
  user->szHome = Place(&cursor, fields[5]);
  user->szShell = Place(&cursor, fields[6]);
  return static_cast<int>(needed);
}

std::string PasswdLine(const std::vector<std::string>& old, const VELTUSER& user) {
  const std::string gecos = user.szGecos != nullptr ? user.szGecos : old[4];
  const std::string home = user.szHome != nullptr ? user.szHome : old[5];
  const std::string shell = user.szShell != nullptr ? user.szShell : old[6];
  return std::string(user.szName) + ":" + old[1] + ":" + std::to_string(user.uid) + ":" +
         std::to_string(user.gid) + ":" + gecos + ":" + home + ":" + shell + "\n";
}

int UserSet(const char* oldName, const VELTUSER& user) {
  AccountLock lock(SLIB_LOCK_PW);
  if (!lock.held()) return -1;
  std::vector<std::string> passwd;
  if (!ReadLines(VELT_PASSWD_FILE, &passwd)) return -1;
  const int index = PrepareChange(passwd, oldName, user.szName);
  if (index < 0) return -1;
  const std::vector<std::string> old = Split(WithoutNewline(passwd[index]), ':');
  if (!IsUserLine(old)) return Fail(SLIB_ERR_READ);
  passwd[index] = PasswdLine(old, user);

  // The shadow line follows the name; a user without one keeps none.
  const bool renamed = strcmp(oldName, user.szName) != 0;
  std::vector<std::string> shadow;
  int shadow_index = -1;
  if (renamed) {
    if (!ReadLines(VELT_SHADOW_FILE, &shadow)) return -1;
    shadow_index = FindLine(shadow, oldName);
    if (shadow_index >= 0) {
      const std::string& line = shadow[shadow_index];
      const size_t colon = line.find(':');
      shadow[shadow_index] =
          std::string(user.szName) + (colon == std::string::npos ? "\n" : line.substr(colon));
    }
  }

  Rewrite passwd_rewrite(VELT_PASSWD_FILE);
  Rewrite shadow_rewrite(VELT_SHADOW_FILE);
  if (!passwd_rewrite.Write(passwd)) return -1;
  if (shadow_index >= 0 && !shadow_rewrite.Write(shadow)) return -1;
  if (!passwd_rewrite.Commit()) return -1;
  if (shadow_index >= 0 && !shadow_rewrite.Commit()) return -1;
  return 1;
}

template <typename Body>
int WithoutExceptions(Body body) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return Fail(SLIB_ERR_OUT_OF_MEMORY);
  }
}

}  // namespace

int VELTGroupGet(const char* name, VELTGROUP* group, int size) {
  if (!ValidName(name)) return Fail(SLIB_ERR_BAD_ARGUMENT);
  return WithoutExceptions([&] { return GroupGet(name, group, size); });
}

int VELTGroupSet(const char* oldName, const VELTGROUP* group) {
  if (!ValidName(oldName) || group == nullptr || !ValidGroup(*group)) {
    return Fail(SLIB_ERR_BAD_ARGUMENT);
  }
  return WithoutExceptions([&] { return GroupSet(oldName, *group); });
}

int VELTUserGet(const char* name, VELTUSER* user, int size) {
  if (!ValidName(name)) return Fail(SLIB_ERR_BAD_ARGUMENT);
  return WithoutExceptions([&] { return UserGet(name, user, size); });
}

int VELTUserSet(const char* oldName, const VELTUSER* user) {
  if (!ValidName(oldName) || user == nullptr || !ValidName(user->szName) || user->uid < 0 ||
      user->gid < 0 || !ValidField(user->szGecos) || !ValidField(user->szHome) ||
      !ValidField(user->szShell)) {
    return Fail(SLIB_ERR_BAD_ARGUMENT);
  }
  return WithoutExceptions([&] { return UserSet(oldName, *user); });
}
