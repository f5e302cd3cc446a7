#include "sim/sandbox_namespaces.h"

#include <linux/ethtool.h>
#include <linux/if_tun.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sched.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <utility>

#include "sim/sandbox_root.h"

namespace sandbox {
namespace internal {
namespace {

constexpr int kNamespaceFlags =
    CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWPID | CLONE_NEWUTS | CLONE_NEWIPC;

bool WriteProcFile(const std::string& path, const std::string& text, std::string* error) {
  UniqueFd fd(open(path.c_str(), O_WRONLY | O_CLOEXEC));
  if (fd.get() < 0 || !WriteAll(fd.get(), text)) {
    *error = ErrnoText("cannot write " + path);
    return false;
  }
  return true;
}

bool BindMount(const std::string& source, const std::string& target, bool read_only,
               std::string* error) {
  if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
    *error = ErrnoText("cannot bind " + source + " on " + target);
    return false;
  }
  if (!read_only) return true;
  // A remount must keep the flags the source mount is locked with (in a user
  // namespace a remount that drops them fails).
  struct statvfs info;
  unsigned long flags = MS_BIND | MS_REMOUNT | MS_RDONLY;
  if (statvfs(source.c_str(), &info) == 0) {
    const std::pair<unsigned long, unsigned long> locked[] = {
        {ST_NOSUID, MS_NOSUID},   {ST_NODEV, MS_NODEV},           {ST_NOEXEC, MS_NOEXEC},
        {ST_NOATIME, MS_NOATIME}, {ST_NODIRATIME, MS_NODIRATIME}, {ST_RELATIME, MS_RELATIME},
    };
    for (const auto& [statvfs_flag, mount_flag] : locked) {
      if (info.f_flag & statvfs_flag) flags |= mount_flag;
    }
  }
  if (mount(nullptr, target.c_str(), nullptr, flags, nullptr) != 0) {
    *error = ErrnoText("cannot make " + target + " read-only");
    return false;
  }
  return true;
}

void SetInterfaceFlags(int sock, const char* name, short flags) {
  struct ifreq request;
  memset(&request, 0, sizeof request);
  strncpy(request.ifr_name, name, IFNAMSIZ - 1);
  if (ioctl(sock, SIOCGIFFLAGS, &request) == 0) {
    request.ifr_flags |= flags;
    ioctl(sock, SIOCSIFFLAGS, &request);
  }
}

}  // namespace

bool EnterNamespaces(std::string* error) {
  std::string direct;
  if (geteuid() == 0) {
    if (unshare(kNamespaceFlags) == 0) return true;
    direct = ErrnoText("unshare") + "; ";
  }
  const uid_t uid = geteuid();
  const gid_t gid = getegid();
  if (unshare(CLONE_NEWUSER | kNamespaceFlags) != 0) {
    *error = direct + ErrnoText("user namespace");
    return false;
  }
  return WriteProcFile("/proc/self/setgroups", "deny", error) &&
         WriteProcFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1", error) &&
         WriteProcFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1", error);
}

// Single-line report from the namespaces to the caller.
void Report(int fd, const std::string& kind, const std::string& text) {
  std::string line = kind + " " + text;
  for (char& c : line) {
    if (c == '\n') c = ' ';
  }
  WriteAll(fd, line + "\n");
}
bool MountRoot(const std::string& root, std::string* error) {
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    *error = ErrnoText("cannot make the mounts private");
    return false;
  }
  const std::string proc = root + "/proc";
  if (mount("proc", proc.c_str(), "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
    *error = ErrnoText("cannot mount proc on " + proc);
    return false;
  }
  struct stat st;
  for (const char* device : kDevices) {
    const std::string host = std::string("/dev/") + device;
    const std::string inside = root + "/dev/" + device;
    if (stat(host.c_str(), &st) != 0 || lstat(inside.c_str(), &st) != 0) continue;
    if (!BindMount(host, inside, false, error)) return false;
  }
  for (const char* dir : kLibraryDirs) {
    const std::string inside = root + dir;
    struct stat host_st;
    if (lstat(dir, &host_st) != 0 || !S_ISDIR(host_st.st_mode)) continue;
    if (lstat(inside.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) continue;
    if (!BindMount(dir, inside, true, error)) return false;
  }
  return true;
}

bool SetUpNetwork(int eth0_speed, std::string* error) {
  UniqueFd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (sock.get() < 0) {
    *error = ErrnoText("socket");
    return false;
  }
  SetInterfaceFlags(sock.get(), "lo", IFF_UP);
  if (eth0_speed == 0) return true;
  UniqueFd tun(open("/dev/net/tun", O_RDWR | O_CLOEXEC));
  struct ifreq request;
  memset(&request, 0, sizeof request);
  strncpy(request.ifr_name, "eth0", IFNAMSIZ - 1);
  request.ifr_flags = IFF_TAP | IFF_NO_PI;
  if (tun.get() < 0 || ioctl(tun.get(), TUNSETIFF, &request) != 0 ||
      ioctl(tun.get(), TUNSETPERSIST, 1) != 0) {
    *error = ErrnoText("cannot create eth0 (/dev/net/tun)");
    return false;
  }
  struct ethtool_cmd link;
  memset(&link, 0, sizeof link);
  link.cmd = ETHTOOL_SSET;
  ethtool_cmd_speed_set(&link, static_cast<uint32_t>(eth0_speed));
  link.duplex = DUPLEX_FULL;
  link.autoneg = AUTONEG_DISABLE;
  link.port = PORT_TP;
  request.ifr_data = reinterpret_cast<char*>(&link);
  if (ioctl(sock.get(), SIOCETHTOOL, &request) != 0) {
    *error = ErrnoText("cannot set the speed of eth0");
    return false;
  }
  request.ifr_mtu = 1500;
  if (ioctl(sock.get(), SIOCSIFMTU, &request) != 0) {
    *error = ErrnoText("cannot set the MTU of eth0");
    return false;
  }
  SetInterfaceFlags(sock.get(), "eth0", IFF_UP);
  return true;
}

// The availability probe: what a run does first, without a root.
int Probe(bool need_flash, int report_fd) {
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    Report(report_fd, "error", ErrnoText("cannot make the mounts private"));
    return 1;
  }
  if (mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
    Report(report_fd, "error", ErrnoText("cannot mount proc"));
    return 1;
  }
  if (need_flash) {
    UniqueFd fuse(open("/dev/fuse", O_RDWR | O_CLOEXEC));
    if (fuse.get() < 0) {
      Report(report_fd, "error", ErrnoText("/dev/fuse"));
      return 1;
    }
  }
  Report(report_fd, "ok", "");
  return 0;
}

}  // namespace internal
}  // namespace sandbox
