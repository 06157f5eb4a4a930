// The data-model lock of the CMS stand-in: timeouts measured against another
// process that holds it, the cap from the environment, mutual exclusion, and
// the diagnostics for misuse.
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "platform/cms/cms.h"
#include "tests/unit/cms_tempstore.h"

namespace {

using Clock = std::chrono::steady_clock;

// Slack for a late wake-up: scheduling, qemu-user and the sanitizers.
const long kLateMs = 250;

long msSince(Clock::time_point t0)
{
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count());
}

// Another process holding the lock until told to let go, or for holdMs.
class Holder {
public:
    explicit Holder(long holdMs = -1) : timed_(holdMs >= 0)
    {
        int up[2], down[2];
        EXPECT_EQ(pipe(up), 0);
        EXPECT_EQ(pipe(down), 0);
        pid_ = fork();
        if (pid_ == 0) {
            close(up[0]);
            close(down[1]);
            char c = cmsLck_acquireLockWithTimeoutTraced("holder", 5000) == CMSRET_SUCCESS ? 'y' : 'n';
            if (write(up[1], &c, 1) != 1) _exit(3);
            if (holdMs >= 0)
                usleep(static_cast<useconds_t>(holdMs) * 1000);
            else if (read(down[0], &c, 1) < 0)
                _exit(4);
            cmsLck_releaseLockTraced("holder");
            _exit(0);
        }
        close(up[1]);
        close(down[0]);
        release_ = down[1];
        char c = 0;
        EXPECT_EQ(read(up[0], &c, 1), 1);
        EXPECT_EQ(c, 'y') << "the holder could not take the lock";
        close(up[0]);
    }
    ~Holder() { finish(); }
    pid_t pid() const { return pid_; }
    // Lets the holder release and waits for it to end.
    void finish()
    {
        if (pid_ <= 0) return;
        char c = 'r';
        if (!timed_) {
            EXPECT_EQ(write(release_, &c, 1), 1);
        }
        close(release_);
        int status = 0;
        EXPECT_EQ(waitpid(pid_, &status, 0), pid_);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        pid_ = 0;
    }

private:
    bool timed_;
    pid_t pid_ = 0;
    int release_ = -1;
};

class LockTimeout : public ::testing::TestWithParam<uint32_t> {};

TEST_P(LockTimeout, a_lock_held_elsewhere_fails_after_the_given_milliseconds)
{
    TempStore store;
    Holder holder;
    const uint32_t timeout = GetParam();
    auto t0 = Clock::now();
    CmsRet ret = cmsLck_acquireLockWithTimeoutTraced("waiter", timeout);
    long took = msSince(t0);
    EXPECT_EQ(ret, CMSRET_TIMED_OUT);
    EXPECT_GE(took, static_cast<long>(timeout));
    EXPECT_LT(took, static_cast<long>(timeout) + kLateMs);
}

INSTANTIATE_TEST_SUITE_P(Milliseconds, LockTimeout, ::testing::Values(0u, 40u, 300u));

TEST(Lock, a_waiter_gets_the_lock_as_soon_as_the_holder_lets_go)
{
    TempStore store;
    Holder holder(150);
    auto t0 = Clock::now();
    ASSERT_EQ(cmsLck_acquireLockWithTimeoutTraced("waiter", 3000), CMSRET_SUCCESS);
    long took = msSince(t0);
    EXPECT_GE(took, 100);
    EXPECT_LT(took, 150 + kLateMs);
    cmsLck_releaseLockTraced("waiter");
}

TEST(Lock, a_free_lock_is_taken_and_given_back_repeatedly)
{
    TempStore store;
    for (int i = 0; i < 100; i++) {
        ASSERT_EQ(cmsLck_acquireLockWithTimeoutTraced("loop", 0), CMSRET_SUCCESS) << i;
        cmsLck_releaseLockTraced("loop");
    }
    Holder other;   // and another process can take it afterwards
}

TEST(Lock, the_environment_cap_shortens_every_wait)
{
    TempStore store;
    Holder holder;
    setenv("KVARD_MDM_LOCK_MAX_MS", "100", 1);
    auto t0 = Clock::now();
    EXPECT_EQ(cmsLck_acquireLockWithTimeoutTraced("bcm_dm_lock", 30000), CMSRET_TIMED_OUT);
    long took = msSince(t0);
    EXPECT_GE(took, 100);
    EXPECT_LT(took, 100 + kLateMs);

    setenv("KVARD_MDM_LOCK_MAX_MS", "5000", 1);   // a cap never lengthens a wait
    t0 = Clock::now();
    EXPECT_EQ(cmsLck_acquireLockWithTimeoutTraced("bcm_dm_lock", 50), CMSRET_TIMED_OUT);
    EXPECT_LT(msSince(t0), 50 + kLateMs);
    unsetenv("KVARD_MDM_LOCK_MAX_MS");
}

TEST(Lock, a_child_does_not_inherit_its_parents_hold)
{
    TempStore store;
    ASSERT_EQ(cmsLck_acquireLockWithTimeoutTraced("parent", 0), CMSRET_SUCCESS);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) _exit(cmsLck_acquireLockWithTimeoutTraced("child", 50) == CMSRET_TIMED_OUT ? 0 : 1);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the child got a lock its parent holds";
    cmsLck_releaseLockTraced("parent");
}

TEST(Lock, locked_read_modify_write_cycles_of_two_processes_lose_no_update)
{
    TempStore store;
    const int kRounds = 150;
    const InstanceIdStack single = EMPTY_INSTANCE_ID_STACK;
    pid_t kids[2];
    for (pid_t &kid : kids) {
        kid = fork();
        ASSERT_GE(kid, 0);
        if (kid == 0) {
            for (int i = 0; i < kRounds; i++) {
                if (cmsLck_acquireLockWithTimeoutTraced("counter", 5000) != CMSRET_SUCCESS) _exit(1);
                OrnaTrafficMeterObject *o = nullptr;
                if (cmsObj_get(MDMOID_ORNA_TRAFFIC_METER, &single, 0, reinterpret_cast<void **>(&o)) !=
                    CMSRET_SUCCESS) {
                    o = static_cast<OrnaTrafficMeterObject *>(calloc(1, sizeof *o));
                    o->_oid = MDMOID_ORNA_TRAFFIC_METER;
                }
                long n = o->counter != nullptr ? atol(o->counter) : 0;
                free(o->counter);
                o->counter = strdup(std::to_string(n + 1).c_str());
                CmsRet ret = cmsObj_set(o, &single);
                cmsObj_free(reinterpret_cast<void **>(&o));
                cmsLck_releaseLockTraced("counter");
                if (ret != CMSRET_SUCCESS) _exit(2);
            }
            _exit(0);
        }
    }
    for (pid_t kid : kids) {
        int status = 0;
        ASSERT_EQ(waitpid(kid, &status, 0), kid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }
    EXPECT_EQ(store.read("2888"), "counter=" + std::to_string(2 * kRounds) + "\n");
}

TEST(Lock, taking_it_twice_in_one_process_fails_at_once_naming_the_holder)
{
    TempStore store;
    ASSERT_EQ(cmsLck_acquireLockWithTimeoutTraced("first_taker", 0), CMSRET_SUCCESS);
    StderrCapture err;
    auto t0 = Clock::now();
    EXPECT_NE(cmsLck_acquireLockWithTimeoutTraced("second_taker", 1000), CMSRET_SUCCESS);
    EXPECT_LT(msSince(t0), 500);
    std::string text = err.text();
    EXPECT_EQ(countLines(text), 1) << text;
    EXPECT_NE(text.find("first_taker"), std::string::npos) << text;
    EXPECT_NE(text.find("second_taker"), std::string::npos) << text;
    cmsLck_releaseLockTraced("first_taker");
}

TEST(Lock, giving_back_a_lock_not_held_is_reported)
{
    TempStore store;
    StderrCapture err;
    cmsLck_releaseLockTraced("stray_release");
    std::string text = err.text();
    EXPECT_EQ(countLines(text), 1) << text;
    EXPECT_NE(text.find("stray_release"), std::string::npos) << text;
}

TEST(Lock, a_store_without_a_directory_cannot_be_locked_and_says_which_file)
{
    TempStore store;
    std::string gone = store.path("nowhere");
    setenv("KVARD_MDM_DIR", gone.c_str(), 1);
    StderrCapture err;
    EXPECT_EQ(cmsLck_acquireLockWithTimeoutTraced("x", 100), CMSRET_INTERNAL_ERROR);
    std::string text = err.text();
    EXPECT_EQ(countLines(text), 1) << text;
    EXPECT_NE(text.find(gone + "/.lock"), std::string::npos) << text;
}

TEST(LockDump, names_the_function_holding_it_here_and_the_store)
{
    TempStore store;
    ASSERT_EQ(cmsLck_acquireLockWithTimeoutTraced("bcm_dm_WriteStatistic", 0), CMSRET_SUCCESS);
    StderrCapture err;
    cmsLck_dumpInfo();
    std::string text = err.text();
    cmsLck_releaseLockTraced("bcm_dm_WriteStatistic");
    EXPECT_EQ(countLines(text), 1) << text;
    EXPECT_NE(text.find("bcm_dm_WriteStatistic"), std::string::npos) << text;
    EXPECT_NE(text.find(store.dir()), std::string::npos) << text;
}

TEST(LockDump, after_a_timeout_names_the_process_that_holds_it)
{
    TempStore store;
    Holder holder;
    ASSERT_EQ(cmsLck_acquireLockWithTimeoutTraced("bcm_dm_lock", 10), CMSRET_TIMED_OUT);
    StderrCapture err;
    cmsLck_dumpInfo();
    std::string text = err.text();
    EXPECT_EQ(countLines(text), 1) << text;
    EXPECT_NE(text.find(store.dir()), std::string::npos) << text;
    EXPECT_NE(text.find("not held in this process"), std::string::npos) << text;
    EXPECT_NE(text.find("process " + std::to_string(holder.pid())), std::string::npos) << text;
}

}  // namespace
