// Test fixture: an emulated NAND partition named "tm" for the flash layers.
// /proc/mtd is faked by a `cat` placed first in PATH, since the daemon reads it
// through a shell pipeline; the device itself is libmtdsim's (preloaded).
#ifndef KVARD_TESTS_FAKE_MTD_H
#define KVARD_TESTS_FAKE_MTD_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "history/tmmtd.h"

inline std::string FakeMtdReadAll(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

class FakeMtd : public ::testing::Test {
protected:
    std::string dir;

    void SetUp() override
    {
        char tmpl[] = "/tmp/kvard-mtd-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        std::ofstream(dir + "/cat") << "#!/bin/sh\n"
                                       "if [ \"$1\" = /proc/mtd ]; then exec /bin/cat \"" << dir << "/mtd\"; fi\n"
                                       "exec /bin/cat \"$@\"\n";
        chmod((dir + "/cat").c_str(), 0755);
        static std::string path;
        path = dir + ":" + (getenv("PATH") ? getenv("PATH") : "/usr/bin:/bin");
        setenv("PATH", path.c_str(), 1);
        setenv("MTDSIM_IMAGE", Image().c_str(), 1);
        setenv("MTDSIM_LOG", (dir + "/nand.log").c_str(), 1);
        setenv("MTDSIM_DEVICE", "/dev/mtd0", 1);
        unsetenv("MTDSIM_BADBLOCKS");
        unsetenv("MTDSIM_FAIL_AFTER");
        unsetenv("MTDSIM_FAIL_COUNT");
        Geometry(2048, 131072, 8 * 131072);
        ProcMtd("dev:    size   erasesize  name\nmtd0: 00100000 00020000 \"tm\"\n");
    }

    void TearDown() override
    {
        TmFlashCleanup();
        std::string cmd = "rm -rf " + dir;
        ASSERT_EQ(system(cmd.c_str()), 0);
    }

    std::string Image() const { return dir + "/nand.img"; }

    // A new geometry takes a new image.
    void Geometry(unsigned page, unsigned block, unsigned size)
    {
        setenv("MTDSIM_WRITESIZE", std::to_string(page).c_str(), 1);
        setenv("MTDSIM_ERASESIZE", std::to_string(block).c_str(), 1);
        setenv("MTDSIM_SIZE", std::to_string(size).c_str(), 1);
        unlink(Image().c_str());
        unlink((Image() + ".pages").c_str());
    }

    void ProcMtd(const std::string &content) { std::ofstream(dir + "/mtd") << content; }

    std::string Log() const { return FakeMtdReadAll(dir + "/nand.log"); }
    std::string ImageBytes() const { return FakeMtdReadAll(Image()); }

    int CountLines(const std::string &word) const
    {
        int n = 0;
        std::istringstream in(Log());
        for (std::string line; std::getline(in, line);)
            if (line.find(word) != std::string::npos) n++;
        return n;
    }
};

#endif
