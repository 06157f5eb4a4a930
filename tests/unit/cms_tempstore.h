// For tests of the CMS stand-in: a fresh store directory per test, and whole store files.
#ifndef KVARD_TESTS_CMS_TEMPSTORE_H
#define KVARD_TESTS_CMS_TEMPSTORE_H
#include <ftw.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include <gtest/gtest.h>

// Points KVARD_MDM_DIR at a new empty directory while it lives.
class TempStore {
public:
    TempStore()
    {
        EXPECT_NE(mkdtemp(dir_), nullptr);
        setenv("KVARD_MDM_DIR", dir_, 1);
        for (const char *v : {"KVARD_MDM_LOCK_MAX_MS", "KVARD_MSG_FAIL"}) unsetenv(v);
    }
    ~TempStore()
    {
        nftw(dir_, [](const char *p, const struct stat *, int, FTW *) { return remove(p); }, 16, FTW_DEPTH | FTW_PHYS);
        unsetenv("KVARD_MDM_DIR");
    }
    std::string path(const std::string &name) const { return dir_ + ("/" + name); }
    void write(const std::string &name, const std::string &text) const { std::ofstream(path(name)) << text; }
    std::string read(const std::string &name) const
    {
        std::ifstream in(path(name));
        return {std::istreambuf_iterator<char>(in), {}};
    }

private:
    char dir_[32] = "/tmp/kvard-cms-XXXXXX";
};

#endif
