#include "lib/slib_proc.h"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <utility>

#include "lib/slib_error.h"

namespace {

struct FcloseDeleter {
  void operator()(FILE* file) const { fclose(file); }
};
using UniqueFile = std::unique_ptr<FILE, FcloseDeleter>;

// A getline() buffer, freed on scope exit.
struct LineBuffer {
  char* data = nullptr;
  size_t capacity = 0;
  LineBuffer() = default;
  ~LineBuffer() { free(data); }
  LineBuffer(const LineBuffer&) = delete;
  LineBuffer& operator=(const LineBuffer&) = delete;
};

// Removes the file when it goes out of scope.
class RemoveOnExit {
 public:
  explicit RemoveOnExit(std::string path) : path_(std::move(path)) {}
  ~RemoveOnExit() { unlink(path_.c_str()); }
  RemoveOnExit(const RemoveOnExit&) = delete;
  RemoveOnExit& operator=(const RemoveOnExit&) = delete;

 private:
  std::string path_;
};

bool IsSearchLine(const char* line, const std::string& name) {
  return strstr(line, ("grep " + name).c_str()) != nullptr ||
         strstr(line, ("grep '" + name + "'").c_str()) != nullptr;
}

// Counts the lines of `file` that contain `name` and are not the search's own;
// -1 with 0xA00 when reading fails.
int CountProcessLines(FILE* file, const std::string& name) {
  LineBuffer line;
  int count = 0;
  while (getline(&line.data, &line.capacity, file) >= 0) {
    if (strstr(line.data, name.c_str()) != nullptr && !IsSearchLine(line.data, name)) ++count;
  }
  if (ferror(file)) {
    SLIBCErrSet(SLIB_ERR_READ);
    return -1;
  }
  return count;
}

}  // namespace

int SLIBProcReadPid(const char* pidfile) {
  if (pidfile == nullptr) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  UniqueFile file(fopen(pidfile, "r"));
  if (!file) {
    SLIBCErrSet(SLIB_ERR_OPEN);
    return -1;
  }
  unsigned pid = 0;
  if (fscanf(file.get(), "%u\n", &pid) != 1) return 0;
  return static_cast<int>(pid);
}

int SLIBProcIsAlive(const char* pidfile) {
  const int pid = SLIBProcReadPid(pidfile);
  return pid >= 1 && kill(pid, 0) == 0 ? 1 : 0;
}

int SLIBFileIsRegular(const char* path) {
  struct stat st;
  if (path == nullptr || stat(path, &st) != 0) return 0;
  return S_ISREG(st.st_mode) ? 1 : 0;
}

int SLIBProcCountByName(const char* name) {
  if (name == nullptr || *name == '\0' || strchr(name, '\'') != nullptr) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  // A unique name, created here exclusively: a link planted in /tmp cannot
  // redirect the listing. It is read back through the descriptor made here.
  char temp_path[64];
  snprintf(temp_path, sizeof(temp_path), "/tmp/tempSLIBPs%u.XXXXXX",
           static_cast<unsigned>(getpid()));
  const int fd = mkstemp(temp_path);
  if (fd < 0) {
    SLIBCErrSet(SLIB_ERR_READ);
    return -1;
  }
  RemoveOnExit remove_temp(temp_path);
  UniqueFile file(fdopen(fd, "r"));
  if (!file) {
    close(fd);
    SLIBCErrSet(SLIB_ERR_READ);
    return -1;
  }
  const std::string command =
      std::string("/bin/ps -awx | /bin/grep '") + name + "' > " + temp_path + " 2>&1";
  // grep's status only says whether anything matched; the file tells the rest.
  if (system(command.c_str()) == -1) {
    SLIBCErrSet(SLIB_ERR_READ);
    return -1;
  }
  return CountProcessLines(file.get(), name);
}
