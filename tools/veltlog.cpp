// veltlog: writes, shows and exports the appliance's event logs from a shell,
// through the same library calls as the firmware.
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "lib/slib_error.h"
#include "lib/velt_log.h"

namespace {

enum ExitCode { kOk = 0, kFailed = 1 };

const char kUsageText[] =
    "usage: veltlog COMMAND ARGS...\n"
    "\n"
    "  export CLASS LANG OUT            write the log's lines to the file OUT\n"
    "  show CLASS [LANG]                print the log's lines (LANG defaults to enu)\n"
    "  write CLASS LEVEL EVENT [ARG...] add one record (EVENT in hexadecimal, up to four ARGs)\n"
    "\n"
    "CLASS: 1 or 2 system, 3 connection, 5 backup, 6 copy, 7 network backup.\n"
    "Lines: level, source, time, event text, user, program, separated by tabs.\n"
    "Exit status: 0 done, 1 failure (library error shown as (%X)).\n";

int Usage(FILE* stream, int status) {
  fputs(kUsageText, stream);
  return status;
}

bool ParseNumber(const char* text, int base, unsigned long* value) {
  char* end = nullptr;
  *value = strtoul(text, &end, base);
  return end != text && *end == '\0';
}

bool ParseClass(const char* text, int* log_class) {
  unsigned long value;
  if (!ParseNumber(text, 10, &value) || value > 255) return false;
  *log_class = static_cast<int>(value);
  return true;
}

int Failed(const char* what) {
  fprintf(stderr, "veltlog: %s failed (%X)\n", what, SLIBCErrGet());
  return kFailed;
}

int Export(const std::vector<const char*>& args) {
  int log_class;
  if (args.size() != 3 || !ParseClass(args[0], &log_class)) return Usage(stderr, kFailed);
  const int lines = VELTLogExport(log_class, args[1], args[2]);
  if (lines < 0) return Failed("export");
  return kOk;
}

bool CopyToStdout(const char* path) {
  FILE* file = fopen(path, "r");
  if (file == nullptr) return false;
  char buffer[8192];
  size_t count;
  bool copied = true;
  while ((count = fread(buffer, 1, sizeof(buffer), file)) > 0) {
    if (fwrite(buffer, 1, count, stdout) != count) copied = false;
  }
  if (ferror(file)) copied = false;
  fclose(file);
  return fflush(stdout) == 0 && copied;
}

// Exports to a private temporary file, then copies it to standard output,
// which may be a pipe or a file opened for appending.
int Show(const std::vector<const char*>& args) {
  int log_class;
  if (args.empty() || args.size() > 2 || !ParseClass(args[0], &log_class)) {
    return Usage(stderr, kFailed);
  }
  const char* lang = args.size() == 2 ? args[1] : "enu";
  const char* tmp_dir = getenv("TMPDIR");
  std::string path = std::string(tmp_dir != nullptr ? tmp_dir : "/tmp") + "/veltlog.XXXXXX";
  const int fd = mkstemp(&path[0]);
  if (fd < 0) {
    perror("veltlog: temporary file");
    return kFailed;
  }
  close(fd);
  const int lines = VELTLogExport(log_class, lang, path.c_str());
  const bool copied = lines >= 0 && CopyToStdout(path.c_str());
  unlink(path.c_str());
  if (lines < 0) return Failed("export");
  if (!copied) {
    fputs("veltlog: writing to standard output failed\n", stderr);
    return kFailed;
  }
  return kOk;
}

int Write(const std::vector<const char*>& args) {
  int log_class;
  unsigned long level;
  unsigned long event;
  if (args.size() < 3 || args.size() > 7 || !ParseClass(args[0], &log_class) ||
      !ParseNumber(args[1], 10, &level) || level > 0xFFFF || !ParseNumber(args[2], 16, &event) ||
      event > 0xFFFFFFFFUL) {
    return Usage(stderr, kFailed);
  }
  const char* strings[4] = {nullptr, nullptr, nullptr, nullptr};
  for (size_t i = 3; i < args.size(); ++i) strings[i - 3] = args[i];
  if (VELTLogWrite(log_class, static_cast<int>(level), event, strings[0], strings[1], strings[2],
                   strings[3]) != 0) {
    return Failed("write");
  }
  return kOk;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return Usage(stderr, kFailed);
  const std::string command = argv[1];
  const std::vector<const char*> args(argv + 2, argv + argc);
  if (command == "--help" || command == "-h") return Usage(stdout, kOk);
  if (command == "export") return Export(args);
  if (command == "show") return Show(args);
  if (command == "write") return Write(args);
  fprintf(stderr, "veltlog: unknown command %s\n", command.c_str());
  return Usage(stderr, kFailed);
}
