// Internals shared by the stand-in's source files; not for callers of cms.h.
#ifndef KVARD_CMS_PRIVATE_H
#define KVARD_CMS_PRIVATE_H

#include <cstdint>
#include <sys/types.h>

// One line on stderr, "<log name>: <message>": a failure of the store or the
// lock that a person has to see (it names the file and the operation).
void cmsPriv_report(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// This process's pid, asked of the kernel once and again only after a fork.
pid_t cmsPriv_pid(void);

// The number of the store lock's current hold by this process, counting up
// from 1 with every acquisition; 0 while this process does not hold it. What
// was read or written under one hold cannot have been changed by another
// writer before that hold ends.
uint64_t cmsPriv_lockHold(void);

#endif
