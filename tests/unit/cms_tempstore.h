// Helpers for the tests of the CMS stand-in: a fresh store directory per test,
// whole-file access to store files, and capture of stderr.
#ifndef KVARD_TESTS_CMS_TEMPSTORE_H
#define KVARD_TESTS_CMS_TEMPSTORE_H

#include <fcntl.h>
#include <ftw.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

// Points KVARD_MDM_DIR at a new empty directory for the life of the object
// and clears the stand-in's other environment switches.
class TempStore {
public:
    TempStore()
    {
        char tmpl[] = "/tmp/kvard-cms-XXXXXX";
        const char *d = mkdtemp(tmpl);
        EXPECT_NE(d, nullptr);
        dir_ = d != nullptr ? d : "/tmp";
        setenv("KVARD_MDM_DIR", dir_.c_str(), 1);
        unsetenv("KVARD_MDM_LOCK_MAX_MS");
        unsetenv("KVARD_MSG_FAIL");
    }
    ~TempStore()
    {
        nftw(dir_.c_str(), [](const char *p, const struct stat *, int, struct FTW *) { return remove(p); }, 16,
             FTW_DEPTH | FTW_PHYS);
        unsetenv("KVARD_MDM_DIR");
    }
    const std::string &dir() const { return dir_; }
    std::string path(const std::string &name) const { return dir_ + "/" + name; }
    void write(const std::string &name, const std::string &text) const
    {
        std::ofstream(path(name), std::ios::binary) << text;
    }
    std::string read(const std::string &name) const
    {
        std::ifstream in(path(name), std::ios::binary);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    bool exists(const std::string &name) const { return access(path(name).c_str(), F_OK) == 0; }

private:
    std::string dir_;
};

// Collects what is written to fd 2 between construction and text().
class StderrCapture {
public:
    StderrCapture()
    {
        fflush(stderr);
        saved_ = dup(2);
        FILE *f = tmpfile();
        file_ = f != nullptr ? fileno(f) : -1;
        dup2(file_, 2);
        fp_ = f;
    }
    ~StderrCapture()
    {
        restore();
        if (fp_ != nullptr) fclose(fp_);
    }
    std::string text()
    {
        restore();
        std::string out;
        lseek(file_, 0, SEEK_SET);
        char buf[4096];
        ssize_t n;
        while ((n = ::read(file_, buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
        return out;
    }

private:
    void restore()
    {
        if (saved_ < 0) return;
        fflush(stderr);
        dup2(saved_, 2);
        close(saved_);
        saved_ = -1;
    }
    int saved_ = -1;
    int file_ = -1;
    FILE *fp_ = nullptr;

public:
    StderrCapture(const StderrCapture &) = delete;
    StderrCapture &operator=(const StderrCapture &) = delete;
};

// Lines of a text without their line ends.
inline int countLines(const std::string &s)
{
    int n = 0;
    for (char c : s) n += c == '\n';
    return n;
}

#endif
