#include "sdk/velt_net.h"

#include <errno.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <string>

#include "lib/slib_error.h"
#include "lib/slib_file.h"
#include "lib/slib_lock.h"
#include "lib/unique_fd.h"
#include "sdk/slib_exec.h"

namespace {

constexpr char kSettings[] = "/etc/veltinfo.conf";
constexpr char kInterface[] = "eth0";
constexpr char kSource[] = "sdk/veltnet1";
constexpr int kSettingsLockRequest = 0x806;
constexpr int kSettingsLock = 0x800;
constexpr int kLockTimeoutSeconds = 5;
constexpr int kUnknown = -1;
constexpr int kAssumedSpeed = 100;
constexpr unsigned kIfconfigPauseSeconds = 5;

struct EthInfo {
  int speed = kUnknown;   // 10, 100 or 1000 Mbit/s
  int duplex = kUnknown;  // 0 half, 1 full
  int mtu = 0;
};

bool Fail(int code) {
  SLIBCErrSet(code);
  return false;
}

bool ReadEthInfo(EthInfo* info) {
  UniqueFd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (sock.get() < 0) return Fail(SLIB_ERR_OPEN);
  struct ifreq request;
  memset(&request, 0, sizeof request);
  strncpy(request.ifr_name, kInterface, IFNAMSIZ - 1);
  struct ethtool_cmd link;
  memset(&link, 0, sizeof link);
  link.cmd = ETHTOOL_GSET;
  request.ifr_data = reinterpret_cast<char*>(&link);
  if (ioctl(sock.get(), SIOCETHTOOL, &request) == 0) {
    const unsigned speed = ethtool_cmd_speed(&link);
    if (speed == 10 || speed == 100 || speed == 1000) info->speed = static_cast<int>(speed);
    if (link.duplex == 0 || link.duplex == 1) info->duplex = link.duplex;
  } else if (errno != EOPNOTSUPP) {
    return Fail(SLIB_ERR_READ);
  }
  if (ioctl(sock.get(), SIOCGIFMTU, &request) != 0 || request.ifr_mtu < 1) {
    return Fail(SLIB_ERR_READ);
  }
  info->mtu = request.ifr_mtu;
  return true;
}

// SLIBFileSetKeyValue gives a caller's format the old line (not the key) when
// it replaces a line, so a format such as "%s=\"%s\"\n" would keep the old
// line and add a broken one. The quotes therefore go into the value, and the
// library's own "%s=%s\n" writes KEY="value" for new and existing keys alike.
int StoreSetting(const char* key, const char* value) {
  const std::string quoted = std::string("\"") + value + "\"";
  return SLIBFileSetKeyValue(kSettings, key, quoted.c_str(), nullptr);
}

}  // namespace

int VELTNetSetMTUValue(const char* value) {
  if (value == nullptr) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  int result = 0;
  EthInfo info;
  if (!ReadEthInfo(&info)) {
    syslog(LOG_ERR, "%s(%d): Can not get EthInfo(%X).", __func__, __LINE__, SLIBCErrGet());
    result = -1;
    info.speed = kAssumedSpeed;
  } else if (info.speed == kUnknown) {
    syslog(LOG_ERR, "%s(%d): Speed is Unknown(%X).", __func__, __LINE__, SLIBCErrGet());
    result = -1;
    info.speed = kAssumedSpeed;
  }

  if (info.speed == 1000) {
    if (SLIBCExec("/sbin/ifconfig", kInterface, "mtu", value, nullptr) < 0) {
      syslog(LOG_ERR, "%s (%d) Failed to ifconfig MTU Value", kSource, __LINE__);
      syslog(LOG_ERR, "%s (%d) Failed to ifconfig MTU Value(%X)", kSource, __LINE__, SLIBCErrGet());
      result = -1;
    }
    sleep(kIfconfigPauseSeconds);
  }

  if (ErrSLIBFileLock(kSettingsLockRequest, kLockTimeoutSeconds) != 0) {
    syslog(LOG_ERR, "%s (%d) Failed to lock veltinfo(%X)", kSource, __LINE__, SLIBCErrGet());
    return -1;
  }
  if (StoreSetting("MTUValue", value) < 0) {
    syslog(LOG_ERR, "%s (%d) Failed to set MTU value(%X)", kSource, __LINE__, SLIBCErrGet());
    result = -1;
  }
  if (ErrSLIBFileUnlock(kSettingsLock) != 0) {
    syslog(LOG_ERR, "%s (%d) Failed to unlock veltinfo(%X)", kSource, __LINE__, SLIBCErrGet());
    result = -1;
  }
  return result;
}

int VELTINFOSetKeyValue(const char* key, const char* value) {
  if (key == nullptr || value == nullptr) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  if (ErrSLIBFileLock(kSettingsLockRequest, kLockTimeoutSeconds) != 0) return -1;
  const int stored = StoreSetting(key, value);
  ErrSLIBFileUnlock(kSettingsLock);
  return stored < 0 ? -1 : 0;
}
