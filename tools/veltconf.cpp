// veltconf: reads and changes the appliance's settings files from a shell,
// through the same library calls as the firmware, and runs a command while
// holding lock files.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "lib/slib_error.h"
#include "lib/slib_file.h"
#include "lib/slib_file_line.h"
#include "lib/slib_hash.h"
#include "lib/slib_list.h"
#include "lib/slib_lock.h"

namespace {

enum ExitCode { kOk = 0, kNotFound = 1, kUsage = 2, kFailed = 3 };

const char kUsageText[] =
    "usage: veltconf COMMAND ARGS...\n"
    "\n"
    "  get FILE KEY [FLAGS]             print the value of KEY (FLAGS 0x1: last line wins)\n"
    "  set FILE KEY VALUE [FORMAT]      set KEY to VALUE (FORMAT as the library takes it)\n"
    "  getline FILE TEXT [FLAGS]        print the line matching TEXT\n"
    "  setline FILE TEXT LINE [FLAGS]   replace the line matching TEXT by LINE\n"
    "  delline FILE TEXT [FLAGS]        delete the line matching TEXT\n"
    "  addline FILE TEXT LINE [FLAGS]   insert LINE before the line matching TEXT\n"
    "                                   (FLAGS 0x200: after it; TEXT \"-\": no search text)\n"
    "  section FILE SECTION             print the key/value lines of [SECTION]\n"
    "  lock REQUEST TIMEOUT CMD [ARG...]\n"
    "                                   run CMD while holding the lock files of REQUEST\n"
    "                                   (mask bits | 1 shared, 2 exclusive, +4 non-blocking)\n"
    "\n"
    "Line FLAGS: 0x1 last match, 0x2 prefix, 0x4 suffix, 0x400 ignore case.\n"
    "Exit status: 0 done, 1 key or line not found, 2 usage, 3 failure (library error shown as "
    "(%X)).\n";

int Usage() {
  fputs(kUsageText, stderr);
  return kUsage;
}

bool ParseInt(const char* text, int* value) {
  char* end = nullptr;
  const long parsed = strtol(text, &end, 0);
  if (end == text || *end != '\0') return false;
  *value = static_cast<int>(parsed);
  return true;
}

// Optional FLAGS argument at position `index`; true when absent or valid.
bool OptionalFlags(const std::vector<const char*>& args, size_t index, int* flags) {
  *flags = 0;
  return args.size() <= index || ParseInt(args[index], flags);
}

int Failed(const char* what) {
  fprintf(stderr, "veltconf: %s failed (%X)\n", what, SLIBCErrGet());
  return SLIBCErrGet() == SLIB_ERR_NOT_FOUND ? kNotFound : kFailed;
}

int Get(const std::vector<const char*>& args) {
  int flags = 0;
  if (args.size() < 2 || !OptionalFlags(args, 2, &flags)) return Usage();
  // A value that does not fit is refused with 0x100: try again with more room.
  for (size_t size = 4096;; size *= 4) {
    std::vector<char> value(size);
    const int length =
        SLIBFileGetKeyValue(args[0], args[1], value.data(), static_cast<int>(size), flags);
    if (length > 0) {
      printf("%s\n", value.data());
      return kOk;
    }
    if (length == 0) return Failed("finding the key");
    if (SLIBCErrGet() != SLIB_ERR_BUFFER_TOO_SMALL || size > (1u << 26)) {
      return Failed("reading the key");
    }
  }
}

int Set(const std::vector<const char*>& args) {
  if (args.size() < 3 || args.size() > 4) return Usage();
  const char* format = args.size() == 4 ? args[3] : nullptr;
  return SLIBFileSetKeyValue(args[0], args[1], args[2], format) < 0 ? Failed("setting the key")
                                                                    : kOk;
}

int GetLine(const std::vector<const char*>& args) {
  int flags = 0;
  if (args.size() < 2 || !OptionalFlags(args, 2, &flags)) return Usage();
  std::vector<char> line(1 << 16);
  const int length =
      SLIBFileGetLine(args[0], args[1], line.data(), static_cast<int>(line.size()), flags);
  if (length <= 0) return Failed("finding the line");
  printf("%s\n", line.data());
  return kOk;
}

int SetLine(const std::vector<const char*>& args, bool remove) {
  const size_t fixed = remove ? 2 : 3;
  int flags = 0;
  if (args.size() < fixed || !OptionalFlags(args, fixed, &flags)) return Usage();
  const char* line = remove ? nullptr : args[2];
  return SLIBFileSetLine(args[0], args[1], line, flags) < 0 ? Failed("changing the line") : kOk;
}

int AddLine(const std::vector<const char*>& args) {
  int flags = 0;
  if (args.size() < 3 || !OptionalFlags(args, 3, &flags)) return Usage();
  const char* text = strcmp(args[1], "-") == 0 ? nullptr : args[1];
  return SLIBFileAddLine(args[0], text, args[2], flags) < 0 ? Failed("adding the line") : kOk;
}

int Section(const std::vector<const char*>& args) {
  if (args.size() != 2) return Usage();
  SLIBSZHASH* hash = PshSLIBSzHashAlloc(1024);
  SLIBSZLIST* keys = PslSLIBSzListAlloc(1024);
  int result = kOk;
  if (hash == nullptr || keys == nullptr || SLIBFileGetSection(args[0], args[1], &hash) < 0 ||
      SLIBSzHashEnumKey(hash, &keys) < 0) {
    result = Failed("reading the section");
  } else {
    for (int i = 0; i < keys->nItem; ++i) {
      const char* key = SzSLIBSzListGet(keys, i);
      printf("%s=%s\n", key, SzSLIBSzHashGetValue(hash, key));
    }
  }
  SLIBSzListFree(keys);
  SLIBSzHashFree(hash);
  return result;
}

int Lock(const std::vector<const char*>& args) {
  int request = 0;
  int timeout = 0;
  if (args.size() < 3 || !ParseInt(args[0], &request) || !ParseInt(args[1], &timeout)) {
    return Usage();
  }
  if (ErrSLIBFileLock(request, timeout) != 0) return Failed("taking the locks");
  const pid_t child = fork();
  if (child == 0) {
    std::vector<char*> argv;
    for (size_t i = 2; i < args.size(); ++i) argv.push_back(const_cast<char*>(args[i]));
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    perror(argv[0]);
    _exit(127);
  }
  int status = 0;
  const bool waited = child > 0 && waitpid(child, &status, 0) == child;
  ErrSLIBFileUnlock(request & ~SLIB_LOCK_OP_MASK);
  if (!waited) return kFailed;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return Usage();
  const std::string command = argv[1];
  const std::vector<const char*> args(argv + 2, argv + argc);
  if (command == "-h" || command == "--help") {
    fputs(kUsageText, stdout);
    return kOk;
  }
  if (command == "get") return Get(args);
  if (command == "set") return Set(args);
  if (command == "getline") return GetLine(args);
  if (command == "setline") return SetLine(args, false);
  if (command == "delline") return SetLine(args, true);
  if (command == "addline") return AddLine(args);
  if (command == "section") return Section(args);
  if (command == "lock") return Lock(args);
  return Usage();
}
