#include "test_support.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace testing_support {

TempDir::TempDir() : path_(std::string(getenv("TMPDIR") ?: "/tmp") + "/updater-test-XXXXXX") {
  if (mkdtemp(&path_[0]) == nullptr) abort();
}

TempDir::~TempDir() {
  std::error_code ignored;
  // A test may have taken write permission away; give it back first.
  std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                               std::filesystem::perm_options::add, ignored);
  std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::File(const std::string& name) const { return path_ + "/" + name; }

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return in ? std::string(std::istreambuf_iterator<char>(in), {}) : "<missing>";
}

void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!(out << content).flush()) abort();
}

bool FileExists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

std::string LongText(size_t length, char first) {
  std::string text(length, 'x');
  for (size_t i = 0; i < length; ++i) text[i] = static_cast<char>(first + i % 26);
  return text;
}

namespace {

std::string MountOrWhy(const char* source, const std::string& target, const char* type,
                       unsigned long flags, const char* data) {
  if (mount(source, target.c_str(), type, flags, data) == 0) return "";
  return "cannot mount " + target + ": " + strerror(errno);
}

// Tests run as root: a private mount namespace of their own is all they need.
std::string EnterMountNamespace() {
  if (unshare(CLONE_NEWNS) != 0) return std::string("unshare(CLONE_NEWNS): ") + strerror(errno);
  return MountOrWhy(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
}

// The host's devices `names` bound onto files of the same names in `root`/dev.
std::string BindDevices(const std::string& root, std::initializer_list<const char*> names) {
  for (const char* name : names) {
    const std::string host = std::string("/dev/") + name, target = root + host;
    if (access(host.c_str(), F_OK) != 0) continue;
    const int fd = open(target.c_str(), O_WRONLY | O_CREAT, 0600);
    if (fd < 0) return "cannot create " + target + ": " + strerror(errno);
    close(fd);
    const std::string why = MountOrWhy(host.c_str(), target, nullptr, MS_BIND, nullptr);
    if (!why.empty()) return why;
  }
  return "";
}

std::string MountOverlay(const std::string& lower, const std::string& upper_base,
                         const std::string& target) {
  const std::string upper = upper_base + "/upper", work = upper_base + "/work";
  for (const std::string& dir : {upper_base, upper, work}) mkdir(dir.c_str(), 0755);
  const std::string options = "lowerdir=" + lower + ",upperdir=" + upper + ",workdir=" + work;
  return MountOrWhy("overlay", target, "overlay", 0, options.c_str());
}

// The root and /tmp are copy-on-write views of the host's: programs and data
// of the build (which may live under /tmp) stay visible, and nothing written
// reaches the host.
std::string BuildThrowawayRoot() {
  std::string why = EnterMountNamespace();
  if (!why.empty()) return why;
  // The host's /tmp, reached through this descriptor once the staging tmpfs
  // covers it.
  const int host_tmp = open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (host_tmp < 0) return std::string("cannot open /tmp: ") + strerror(errno);
  const std::string base = "/tmp/.throwaway", root = base + "/root";
  why = MountOrWhy("tmpfs", "/tmp", "tmpfs", 0, "mode=1777");
  mkdir(base.c_str(), 0755);
  mkdir(root.c_str(), 0755);
  const std::string host_tmp_path = "/proc/self/fd/" + std::to_string(host_tmp);
  const std::function<std::string()> steps[] = {
      [&] { return MountOverlay("/", base + "/rootfs", root); },
      [&] { return MountOverlay(host_tmp_path, base + "/tmpfs", root + "/tmp"); },
      [&] { return MountOrWhy("tmpfs", root + "/dev", "tmpfs", 0, "mode=755"); },
      [&] { return MountOrWhy("/proc", root + "/proc", nullptr, MS_BIND | MS_REC, nullptr); },
      [&] {
        return BindDevices(root, {"null", "zero", "urandom", "fuse"});
      }};
  for (const auto& step : steps) why = why.empty() ? step() : why;
  close(host_tmp);
  if (!why.empty()) return why;
  if (chroot(root.c_str()) != 0 || chdir("/") != 0) {
    return std::string("cannot enter the throwaway root: ") + strerror(errno);
  }
  return "";
}

}  // namespace

std::string EnterPrivateTmp() {
  static const std::string why = EnterMountNamespace();
  static const std::string result =
      why.empty() ? MountOrWhy("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") : why;
  return result;
}

std::string EnterThrowawayRoot() {
  static const std::string why = BuildThrowawayRoot();
  return why;
}

std::vector<SyslogRecord>& SyslogRecords() {
  static std::vector<SyslogRecord> records;
  return records;
}

}  // namespace testing_support

extern "C" void vsyslog(int priority, const char* format, va_list args) {
  char text[16384];
  vsnprintf(text, sizeof(text), format, args);
  testing_support::SyslogRecords().emplace_back(priority, text);
}

#define FORWARD_TO_VSYSLOG         \
  va_list args;                    \
  va_start(args, format);          \
  vsyslog(priority, format, args); \
  va_end(args)
extern "C" void syslog(int priority, const char* format, ...) { FORWARD_TO_VSYSLOG; }
// With _FORTIFY_SOURCE, syslog calls are compiled to this one.
extern "C" void __syslog_chk(int priority, int, const char* format, ...) { FORWARD_TO_VSYSLOG; }
