// Internals shared by the stand-in's source files; not for callers of cms.h.
#ifndef KVARD_CMS_PRIVATE_H
#define KVARD_CMS_PRIVATE_H

// One line on stderr, "<log name>: <message>": a failure of the store or the
// lock that a person has to see (it names the file and the operation).
void cmsPriv_report(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

#endif
