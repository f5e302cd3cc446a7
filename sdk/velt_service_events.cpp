#include "sdk/velt_service_events.h"

#include "lib/velt_log.h"
#include "sdk/velt_minimal_modules.h"
#include "sdk/velt_service.h"

namespace {

constexpr char kSettings[] = "/etc/veltinfo.conf";
constexpr int kSystemLog = 1;
constexpr unsigned long kFailedFlag = 0x10;

struct ServiceEvent {
  int bits;                // result bits that must all be present
  const char* switch_key;  // key in kSettings; null: the download settings
  unsigned long stopped;   // the stop code; the start code is one more
};

const ServiceEvent kServiceEvents[] = {
    {0x8, "runftpd", VELT_EVENT_FTP_STOPPED},
    {0x10, "runmysql", VELT_EVENT_MYSQL_STOPPED},
    {0x100 | 0x20, "runmediaservice", VELT_EVENT_MEDIA_STOPPED},
    {0x40 | 0x20, nullptr, VELT_EVENT_DOWNLOAD_STOPPED},
    {0x80, "runnetbkp", VELT_EVENT_NETBKP_STOPPED},
    {0x200, "runweb", VELT_EVENT_WEB_STOPPED},
    {0x200 | 0x20, "runphoto", VELT_EVENT_PHOTO_STOPPED},
};

bool SwitchIsOn(const char* key) {
  return (key != nullptr ? VELTServiceSettingIsYes(kSettings, key) : VELTDownloadIsEnabled()) == 1;
}

}  // namespace

int VELTServiceRecordEvents(int op, int resultMask) {
  if (op != 1 && op != 2) return -1;
  int result = 0;
  for (const ServiceEvent& service : kServiceEvents) {
    if (!SwitchIsOn(service.switch_key)) continue;
    const bool done = (resultMask & service.bits) == service.bits;
    const unsigned long event = service.stopped + (done ? 0 : kFailedFlag) + (op == 2 ? 1 : 0);
    const int level = done ? VELT_SERVICE_EVENT_LEVEL_DONE : VELT_SERVICE_EVENT_LEVEL_FAILED;
    if (VELTLogWrite(kSystemLog, level, event, nullptr, nullptr, nullptr, nullptr) != 0) {
      result = -1;
    }
  }
  return result;
}
