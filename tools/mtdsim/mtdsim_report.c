#include "mtdsim_report.h"

#include "mtdsim_real.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

/* Formats one line and writes it to fd in one call; errno is left alone so
 * that the caller's failure code survives the report. */
__attribute__((format(printf, 2, 3))) static void WriteLine(int fd, const char *format, ...)
{
    char line[2 * PATH_MAX + 256];
    va_list ap;
    va_start(ap, format);
    int n = vsnprintf(line, sizeof line, format, ap);
    va_end(ap);
    if (n < 0)
        return;
    if (n >= (int)sizeof line) { /* cut long paths, keep the line end */
        n = (int)sizeof line - 1;
        line[n - 1] = '\n';
    }
    const MtdsimRealCalls *real = MtdsimReal();
    int saved = errno;
    if (real->write != NULL)
        (void)!real->write(fd, line, (size_t)n);
    errno = saved;
}

void MtdsimReportConfig(const char *name, const char *value, const char *why)
{
    WriteLine(2, "mtdsim: %s=%s: %s\n", name, value, why);
}

void MtdsimReportProblem(const char *subject, const char *why)
{
    WriteLine(2, "mtdsim: %s: %s\n", subject, why);
}

void MtdsimReportFile(const char *path, const char *what, int err)
{
    WriteLine(2, "mtdsim: %s: %s: %s\n", path, what, strerror(err));
}

void MtdsimReportMisuse(const char *device, const char *op, uint64_t offset, const char *why)
{
    WriteLine(2, "mtdsim: %s: %s at offset %llu refused: %s\n", device, op,
              (unsigned long long)offset, why);
}

void MtdsimLogOperation(const char *path, const char *op, uint64_t offset, uint64_t length,
                        const char *result, const char *detail)
{
    if (path[0] == '\0')
        return;
    const MtdsimRealCalls *real = MtdsimReal();
    int saved = errno;
    int fd = real->open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        MtdsimReportFile(path, "cannot open the operation log", errno);
        errno = saved;
        return;
    }
    WriteLine(fd, "%s %llu %llu %s%s%s\n", op, (unsigned long long)offset, (unsigned long long)length,
              result, detail[0] != '\0' ? " " : "", detail);
    real->close(fd);
    errno = saved;
}
