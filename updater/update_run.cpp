#include "updater/update_run.h"

#include <stdio.h>
#include <string.h>

char gszVolume[32] = "/volume1";
char gszWorkDir[256];
char gszDevMtdPartition[16];
int gblGroupUpdate;
int gblJunior;
int gPartitionCount;
PartitionRecord gPartitionTable[UPDT_MAX_PARTITIONS + 1];
PartitionDevice gPartitionDevices[UPDT_MAX_PARTITIONS + 1];
uint32_t gEraseBlockSize;
uint64_t gullUpdateTotal;
uint64_t gullUpdateDone;
uint64_t gullUpdateRecount;
int gblMtdDriverBuffer = 1;
int gblServicesStopped;
int gblPartialUpdate;
int gblCfgAtalk;
int gblCfgPapd;
int gblCfgFtpUser;
int gblCfgProfile;
int gblCfgJumboFrame;
int gblCfgRcFstab;
int gblNeedRecoverFIS;
int gblCfgMTU;
int gblNeedFtpPassivePort;
int gPhotoDbUpgrade;
int gblPhotoDbReset;
int gblNeedRsyncdFix;
char gcProgressLetter = 'A';

void UPDTResetRunState(void) {
  snprintf(gszVolume, sizeof(gszVolume), "%s", "/volume1");
  gszWorkDir[0] = '\0';
  gszDevMtdPartition[0] = '\0';
  gblGroupUpdate = 0;
  gblJunior = 0;
  gPartitionCount = 0;
  memset(gPartitionTable, 0, sizeof(gPartitionTable));
  memset(gPartitionDevices, 0, sizeof(gPartitionDevices));
  gEraseBlockSize = 0;
  gullUpdateTotal = 0;
  gullUpdateDone = 0;
  gullUpdateRecount = 0;
  gblMtdDriverBuffer = 1;
  gblServicesStopped = 0;
  gblPartialUpdate = 0;
  gblCfgAtalk = 0;
  gblCfgPapd = 0;
  gblCfgFtpUser = 0;
  gblCfgProfile = 0;
  gblCfgJumboFrame = 0;
  gblCfgRcFstab = 0;
  gblNeedRecoverFIS = 0;
  gblCfgMTU = 0;
  gblNeedFtpPassivePort = 0;
  gPhotoDbUpgrade = 0;
  gblPhotoDbReset = 0;
  gblNeedRsyncdFix = 0;
  gcProgressLetter = 'A';
}
