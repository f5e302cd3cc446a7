#include "sdk/platform_identity.h"

#include <stdio.h>
#include <string.h>

#include <memory>

#include "lib/slib_file.h"

namespace {

constexpr char kFactorySettings[] = "/etc.defaults/veltinfo.conf";
constexpr char kHardwareVersionFile[] = "/proc/sys/kernel/velt_hw_version";

struct FileCloser {
  void operator()(FILE* file) const { fclose(file); }
};

struct PipeCloser {
  void operator()(FILE* pipe) const { pclose(pipe); }
};

bool EndsWith(const char* text, const char* suffix) {
  const size_t length = strlen(text);
  const size_t suffix_length = strlen(suffix);
  return length >= suffix_length && strcmp(text + length - suffix_length, suffix) == 0;
}

// A hardware version such as "2.0-j" marks a junior board.
int HardwareVersionIsJunior() {
  std::unique_ptr<FILE, FileCloser> file(fopen(kHardwareVersionFile, "r"));
  if (!file) return 0;
  char line[100] = {0};
  if (fgets(line, sizeof(line), file.get()) == nullptr || line[0] == '\0') return 0;
  line[strlen(line) - 1] = '\0';  // the line feed
  return strlen(line) > 1 && EndsWith(line, "-j") ? 1 : 0;
}

}  // namespace

int VELTIsJunior(void) {
  char unique[100] = {0};
  if (SLIBFileGetKeyValue(kFactorySettings, "unique", unique, sizeof(unique), 0) <= 0) return 0;
  if (strlen(unique) <= 6) return 0;
  if (strncmp(unique, "sdkdebug", 8) == 0) return 1;
  if (EndsWith(unique, "_junior")) return 1;
  return HardwareVersionIsJunior();
}

int SLIBIsProcessRunning(const char* name) {
  if (name == nullptr) return 0;
  char command[1024];
  snprintf(command, sizeof(command), "/bin/ps | /bin/grep %s | /bin/grep -v grep", name);
  std::unique_ptr<FILE, PipeCloser> pipe(popen(command, "r"));
  if (!pipe) return 0;
  char line[1024];
  if (fgets(line, sizeof(line), pipe.get()) == nullptr) return 0;
  return strstr(line, name) != nullptr ? 1 : 0;
}
