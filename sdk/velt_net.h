// The Ethernet interface's MTU and single keys of the system settings file
// "/etc/veltinfo.conf".
//
// Both writers store the key as the line KEY="value" (a new key is appended,
// an existing key's first line is replaced and its other lines dropped),
// holding the settings lock 0x800 (ErrSLIBFileLock(0x806, 5)) around the
// write only. The lock is part of the service lock set: do not call these
// while VELTNetService runs in the same process.
#ifndef SDK_VELT_NET_H_
#define SDK_VELT_NET_H_

#ifdef __cplusplus
extern "C" {
#endif

// Sets the MTU of "eth0" to `value` (decimal text, e.g. "1500") and stores it
// as `MTUValue`. The link is asked for its speed and duplex (SIOCETHTOOL
// ETHTOOL_GSET; a driver without it, EOPNOTSUPP, leaves them unknown) and its
// current MTU (SIOCGIFMTU, must be at least 1). Only on a 1000 Mbit/s link is
// "/sbin/ifconfig eth0 mtu <value>" run (through SLIBCExec), followed by a
// 5-second pause; on a slower or unknown link (taken as 100 Mbit/s) only the
// setting is stored.
//
// Returns 0, or -1 when anything failed; the value is still stored when only
// the link facts or ifconfig failed. Messages at error priority:
//   "VELTNetSetMTUValue(<line>): Can not get EthInfo(<code>)."  link facts
//       unreadable (0x900 no socket, 0xA00 a request failed or the MTU < 1)
//   "VELTNetSetMTUValue(<line>): Speed is Unknown(<code>)."  speed not 10,
//       100 or 1000
//   "sdk/veltnet1 (<line>) Failed to ifconfig MTU Value" and the same with
//       "(<code>)" after it: ifconfig could not be run
//   "sdk/veltnet1 (<line>) Failed to lock veltinfo(<code>)"  (nothing stored)
//   "sdk/veltnet1 (<line>) Failed to set MTU value(<code>)"
//   "sdk/veltnet1 (<line>) Failed to unlock veltinfo(<code>)"
// A null value returns -1 with 0xD00 before anything else.
int VELTNetSetMTUValue(const char* value);

// Stores `key` = `value` in "/etc/veltinfo.conf" under lock 0x800. Returns 0;
// -1 with 0xD00 for a null key or value, -1 when the lock or the write failed
// (the file is then unchanged).
int VELTINFOSetKeyValue(const char* key, const char* value);

#ifdef __cplusplus
}
#endif

#endif  // SDK_VELT_NET_H_
