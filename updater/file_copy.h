// Streaming copy and comparison of an image file and a partition (or any
// file), in fixed blocks, moving the patch stage's progress record
// ('P', 60 + 40 * gullUpdateDone / gullUpdateTotal, at most 100) after every
// block; bytes still in gullUpdateRecount are taken from it instead of being
// added to gullUpdateDone. With gullUpdateTotal 0 only the counters move.
// Failures are logged at error priority as "<source file>:<line>(<function>) ...".
#ifndef UPDATER_FILE_COPY_H_
#define UPDATER_FILE_COPY_H_

#include <stdint.h>

// Copies `source` into the existing `destination` (never created or
// truncated) in blocks of `blockSize` bytes until the source ends. A source
// shorter than `count` is copied whole with a warning in the log; it is not
// a failure. Returns 0, or -1 with a log line (open, read, write, memory).
// Null paths, count 0 or blockSize 0: -1 without a log line.
int UPDTCopyFile(const char* source, const char* destination, uint64_t count,
                 unsigned int blockSize);

// Compares `source` with the start of `destination` block by block. Returns
// 0 when they agree over the whole source; -1 with a log line on a
// difference (naming the offset of the differing block), a short read of
// the destination, or an open, read or memory failure.
int UPDTVerifyFile(const char* source, const char* destination, uint64_t count,
                   unsigned int blockSize);

#endif  // UPDATER_FILE_COPY_H_
