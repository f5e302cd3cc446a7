// Which board family the program runs on, and whether a named process runs.
#ifndef SDK_PLATFORM_IDENTITY_H_
#define SDK_PLATFORM_IDENTITY_H_

#ifdef __cplusplus
extern "C" {
#endif

// 1 on a junior board (six flash partitions, FIS directory on /dev/mtd5),
// else 0. Decided by the "unique" key of /etc.defaults/veltinfo.conf
// ("sdkdebug..." or "..._junior"), else by a hardware version in
// /proc/sys/kernel/velt_hw_version that ends in "-j". Not cached.
int VELTIsJunior(void);

// 1 when the first line of "/bin/ps | /bin/grep NAME | /bin/grep -v grep"
// contains `name`, else 0.
int SLIBIsProcessRunning(const char* name);

#ifdef __cplusplus
}
#endif

#endif  // SDK_PLATFORM_IDENTITY_H_
