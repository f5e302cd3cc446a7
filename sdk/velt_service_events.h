// System-log events (lib/velt_log.h, class 1) that record which network
// services an all-services stop or start brought down or up.
//
// Event codes: 0x11A0SSFO, where SS is the service, F is 0 when the service's
// result bits are present and 1 when they are not, and O is 1 for a stop and
// 2 for a start; so every start code is its stop code plus one. Their texts
// are in section "11A00000" of "/usr/velt/veltsdk/texts/<lang>/events".
//
//   service (SS)          result bits     switch                     done     failed
//   01 FTP                0x8             runftpd                    ..0101/2  ..0111/2
//   02 MySQL              0x10            runmysql                   ..0201/2  ..0211/2
//   03 media service      0x100 + 0x20    runmediaservice            ..0301/2  ..0311/2
//   04 download           0x40 + 0x20     download_enabled (1)       ..0401/2  ..0411/2
//   05 network backup     0x80            runnetbkp                  ..0501/2  ..0511/2
//   06 web                0x200           runweb                     ..0601/2  ..0611/2
//   07 photo              0x200 + 0x20    runphoto                   ..0701/2  ..0711/2
//
// (1) the download settings (sdk/velt_minimal_modules.h); every other switch
// is a key of "/etc/veltinfo.conf". A switch is on only when its value is
// exactly "yes"; services whose switch is off get no event. Events of done
// services are written with level VELT_SERVICE_EVENT_LEVEL_DONE, the others
// with VELT_SERVICE_EVENT_LEVEL_FAILED; no arguments.
#ifndef SDK_VELT_SERVICE_EVENTS_H_
#define SDK_VELT_SERVICE_EVENTS_H_

#ifdef __cplusplus
extern "C" {
#endif

enum {
  VELT_SERVICE_EVENT_LEVEL_DONE = 1,
  VELT_SERVICE_EVENT_LEVEL_FAILED = 2,

  VELT_EVENT_FTP_STOPPED = 0x11A00101,
  VELT_EVENT_FTP_STARTED = 0x11A00102,
  VELT_EVENT_FTP_NOT_STOPPED = 0x11A00111,
  VELT_EVENT_FTP_NOT_STARTED = 0x11A00112,
  VELT_EVENT_MYSQL_STOPPED = 0x11A00201,
  VELT_EVENT_MYSQL_STARTED = 0x11A00202,
  VELT_EVENT_MYSQL_NOT_STOPPED = 0x11A00211,
  VELT_EVENT_MYSQL_NOT_STARTED = 0x11A00212,
  VELT_EVENT_MEDIA_STOPPED = 0x11A00301,
  VELT_EVENT_MEDIA_STARTED = 0x11A00302,
  VELT_EVENT_MEDIA_NOT_STOPPED = 0x11A00311,
  VELT_EVENT_MEDIA_NOT_STARTED = 0x11A00312,
  VELT_EVENT_DOWNLOAD_STOPPED = 0x11A00401,
  VELT_EVENT_DOWNLOAD_STARTED = 0x11A00402,
  VELT_EVENT_DOWNLOAD_NOT_STOPPED = 0x11A00411,
  VELT_EVENT_DOWNLOAD_NOT_STARTED = 0x11A00412,
  VELT_EVENT_NETBKP_STOPPED = 0x11A00501,
  VELT_EVENT_NETBKP_STARTED = 0x11A00502,
  VELT_EVENT_NETBKP_NOT_STOPPED = 0x11A00511,
  VELT_EVENT_NETBKP_NOT_STARTED = 0x11A00512,
  VELT_EVENT_WEB_STOPPED = 0x11A00601,
  VELT_EVENT_WEB_STARTED = 0x11A00602,
  VELT_EVENT_WEB_NOT_STOPPED = 0x11A00611,
  VELT_EVENT_WEB_NOT_STARTED = 0x11A00612,
  VELT_EVENT_PHOTO_STOPPED = 0x11A00701,
  VELT_EVENT_PHOTO_STARTED = 0x11A00702,
  VELT_EVENT_PHOTO_NOT_STOPPED = 0x11A00711,
  VELT_EVENT_PHOTO_NOT_STARTED = 0x11A00712,
};

// Writes the events of an all-services stop (op 1) or start (op 2) whose
// result mask (see VELTNetService) is `resultMask`: one per service whose
// switch is on, in the order of the table above. Returns 0; -1 for any other
// op (nothing written) or when an event could not be written (the others are
// still written).
int VELTServiceRecordEvents(int op, int resultMask);

#ifdef __cplusplus
}
#endif

#endif  // SDK_VELT_SERVICE_EVENTS_H_
