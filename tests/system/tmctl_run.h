// Runs the installed tmctl as a child process and collects what it did.
#ifndef KVARD_TESTS_TMCTL_RUN_H
#define KVARD_TESTS_TMCTL_RUN_H

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

struct ToolRun {
    int exit = -1;      // exit status, -1 when it did not exit normally
    std::string out;    // stdout
    std::string err;    // stderr
    long ms = 0;        // wall time
};

inline std::string tmctlPath()
{
    const char *prefix = getenv("KVARD_PREFIX");
    return std::string(prefix != nullptr ? prefix : "/usr/local") + "/bin/tmctl";
}

inline std::string slurp(int fd)
{
    std::string s;
    lseek(fd, 0, SEEK_SET);
    char buf[4096];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0) s.append(buf, static_cast<size_t>(n));
    close(fd);
    return s;
}

// Runs tmctl with args, the test's environment plus extraEnv ("NAME=value").
// Everything the child needs is prepared before the fork: the test may have threads.
inline ToolRun runTmctl(const std::vector<std::string> &args, const std::vector<std::string> &extraEnv = {})
{
    std::string path = tmctlPath();
    std::vector<std::string> argStore = {path};
    argStore.insert(argStore.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (std::string &a : argStore) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<std::string> envStore = extraEnv;
    for (char **e = environ; *e != nullptr; e++) envStore.push_back(*e);   // the first of a name wins
    std::vector<char *> envp;
    for (std::string &e : envStore) envp.push_back(e.data());
    envp.push_back(nullptr);

    FILE *outFile = tmpfile();
    FILE *errFile = tmpfile();
    int outFd = dup(fileno(outFile)), errFd = dup(fileno(errFile));
    fclose(outFile);
    fclose(errFile);
    ToolRun r;
    auto t0 = std::chrono::steady_clock::now();
    pid_t pid = fork();
    if (pid == 0) {
        dup2(outFd, 1);
        dup2(errFd, 2);
        int devnull = open("/dev/null", O_RDONLY);
        dup2(devnull, 0);
        execve(path.c_str(), argv.data(), envp.data());
        _exit(127);
    }
    int status = 0;
    if (pid > 0) waitpid(pid, &status, 0);
    r.ms = static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count());
    r.exit = pid > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.out = slurp(outFd);
    r.err = slurp(errFd);
    return r;
}

inline int lineCount(const std::string &s)
{
    int n = 0;
    for (char c : s) n += c == '\n';
    return n;
}

#endif
