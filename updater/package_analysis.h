// Whether the unpacked package in gszWorkDir may be applied to the running
// system, and which migration steps the old system needs (the flags of
// update_run.h).
#ifndef UPDATER_PACKAGE_ANALYSIS_H_
#define UPDATER_PACKAGE_ANALYSIS_H_

// 0 to accept, or the result code of the refusal: 6 (partial package with a
// dependency file), 13 (partial package without one), or any code of
// ErrUPDTIAnalyze_WholeSystem.
int ErrUPDTIAnalyze(void);

// Compares the package's "VERSION" with "/etc.defaults/VERSION" and the
// unique strings. 0 to accept (flags set, "Upgrade from version ..." in the
// update log), or 6, 7, 8, 9, 10, 12, 13, 16 or 22.
int ErrUPDTIAnalyze_WholeSystem(void);

#endif  // UPDATER_PACKAGE_ANALYSIS_H_
