// The kernel interface answered by the flash simulator: each request is one
// command line written to the simulator's control file, whose answer is read
// back from offset 0 of the same open file.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "lib/unique_fd.h"
#include "sdk/kernel.h"

namespace {

const char kDefaultControlPath[] = "/dev/flash/.control";

std::string ControlPath() {
  const char* path = getenv("FILEBAY_FLASH_CONTROL");
  return path != nullptr && *path != '\0' ? path : kDefaultControlPath;
}

// Sends `command` and returns the answer's values ("OK <values>") in
// *values: 0, or -1 with errno set from "ERR <errno>" or from the failing
// file operation.
int Ask(const std::string& command, std::string* values) {
  UniqueFd control(open(ControlPath().c_str(), O_RDWR | O_CLOEXEC));
  if (control.get() < 0) return -1;
  std::string line = command + "\n";
  ssize_t written = write(control.get(), line.data(), line.size());
  if (written != static_cast<ssize_t>(line.size())) {
    if (written >= 0) errno = EIO;
    return -1;
  }
  char answer[256];
  ssize_t length = pread(control.get(), answer, sizeof(answer) - 1, 0);
  if (length < 0) return -1;
  answer[length] = '\0';
  if (strncmp(answer, "OK", 2) == 0 && (answer[2] == '\n' || answer[2] == ' ')) {
    if (values != nullptr) {
      std::string rest(answer + 2);
      size_t start = rest.find_first_not_of(' ');
      size_t end = rest.find('\n');
      *values = start == std::string::npos || start >= end ? "" : rest.substr(start, end - start);
    }
    return 0;
  }
  int error = 0;
  if (sscanf(answer, "ERR %d", &error) != 1 || error <= 0) error = EIO;
  errno = error;
  return -1;
}

}  // namespace

extern "C" int VELTKernelFlashType(uint32_t* type) {
  if (type == nullptr) {
    errno = EFAULT;
    return -1;
  }
  std::string values;
  if (Ask("flash-type", &values) != 0) return -1;
  char* end = nullptr;
  errno = 0;
  unsigned long word = strtoul(values.c_str(), &end, 0);
  if (values.empty() || *end != '\0' || errno != 0 || word > UINT32_MAX) {
    errno = EIO;
    return -1;
  }
  *type = static_cast<uint32_t>(word);
  return 0;
}

extern "C" int VELTKernelMtdDriverBuffer(int take) {
  return Ask(take != 0 ? "driver-buffer take" : "driver-buffer give", nullptr);
}

// The simulator owns the whole chip, so the device descriptor is not needed
// to address it.
extern "C" int VELTKernelMSysFormat(int /*fd*/, uint32_t units) {
  return Ask("msys-format " + std::to_string(units), nullptr);
}

extern "C" int VELTKernelMSysPartition(int /*fd*/, const uint32_t counts[8]) {
  if (counts == nullptr) {
    errno = EFAULT;
    return -1;
  }
  std::string command = "msys-partition";
  for (int i = 0; i < 8; ++i) command += " " + std::to_string(counts[i]);
  return Ask(command, nullptr);
}
