/* What the emulated NAND tells people: one-line complaints on stderr and the
 * operation log named by MTDSIM_LOG. Each line is written with one write
 * call, so lines of several processes never interleave. */
#ifndef KVARD_MTDSIM_REPORT_H
#define KVARD_MTDSIM_REPORT_H

#include <stdint.h>

/* Prints "mtdsim: NAME=VALUE: WHY" on stderr. */
void MtdsimReportConfig(const char *name, const char *value, const char *why);

/* Prints "mtdsim: SUBJECT: WHY" on stderr. */
void MtdsimReportProblem(const char *subject, const char *why);

/* Prints "mtdsim: PATH: WHAT: <text of err>" on stderr. */
void MtdsimReportFile(const char *path, const char *what, int err);

/* Prints "mtdsim: DEVICE: OP at offset N refused: WHY" on stderr: a program
 * broke a rule of the flash. */
void MtdsimReportMisuse(const char *device, const char *op, uint64_t offset, const char *why);

/* Appends "OP OFFSET LENGTH RESULT[ DETAIL]" to the log file at path; does
 * nothing when path is empty. A log that cannot be written is reported once
 * on stderr per failing open. */
void MtdsimLogOperation(const char *path, const char *op, uint64_t offset, uint64_t length,
                        const char *result, const char *detail);

#endif
