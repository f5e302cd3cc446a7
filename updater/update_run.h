// The run-wide state of one update run: plain process-wide variables, one
// process, one thread. The run owns them; the stages it calls read and set
// them.
#ifndef UPDATER_UPDATE_RUN_H_
#define UPDATER_UPDATE_RUN_H_

#include <stdint.h>

#include "updater/patch_plan.h"

extern char gszVolume[32];           // data volume, "/volume1" unless -v
extern char gszWorkDir[256];         // absolute working directory (the package)
extern char gszDevMtdPartition[16];  // device of the FIS directory
extern int gblGroupUpdate;           // -g
extern int gblJunior;                // junior board family
extern int gPartitionCount;          // rows of the plan: 8, or 6 on junior boards

// The working plan and device tables (UPDTSelectLayout); each ends with an
// all-zero row.
extern PartitionRecord gPartitionTable[UPDT_MAX_PARTITIONS + 1];
extern PartitionDevice gPartitionDevices[UPDT_MAX_PARTITIONS + 1];
extern uint32_t gEraseBlockSize;  // bytes, from the FIS directory device

// Bytes all copy and verify passes of the patch move, and bytes moved so far.
// A retried partition's bytes count once: the first gullUpdateRecount bytes a
// retry moves were counted by the failed attempt and leave gullUpdateDone alone.
extern uint64_t gullUpdateTotal;
extern uint64_t gullUpdateDone;
extern uint64_t gullUpdateRecount;

// 1 (initially): the run sets the MTU to 1500 and takes the MTD driver
// buffer; 0: the old system needs the "/initrd" reboot rule instead.
extern int gblMtdDriverBuffer;
extern int gblServicesStopped;  // the stop of all services succeeded

// Set by the package analysis; all 0 until it runs.
extern int gblPartialUpdate;
extern int gblCfgAtalk;
extern int gblCfgPapd;
extern int gblCfgFtpUser;
extern int gblCfgProfile;
extern int gblCfgJumboFrame;
extern int gblCfgRcFstab;
extern int gblNeedRecoverFIS;
extern int gblCfgMTU;
extern int gblNeedFtpPassivePort;
extern int gPhotoDbUpgrade;  // bit 0x1, bit 0x2
extern int gblPhotoDbReset;
extern int gblNeedRsyncdFix;

// The stage letter last written to the progress file ('A', 'P', 'C', 'R').
extern char gcProgressLetter;

// Puts every variable above back to its value at program start (volume
// "/volume1", gblMtdDriverBuffer 1, letter 'A', everything else empty or 0).
void UPDTResetRunState(void);

#endif  // UPDATER_UPDATE_RUN_H_
