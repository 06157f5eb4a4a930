// The data-model store as the daemon uses it on every wake: take the lock,
// read one object, free it, release. And the publication's write of the
// forty-field statistics object. The store lives in a fresh directory under
// $TMPDIR (default /tmp); on the router it is in RAM.
#include <ftw.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include <benchmark/benchmark.h>

#include "platform/cms/cms.h"

namespace {

const InstanceIdStack kSingle = EMPTY_INSTANCE_ID_STACK;

// A store with the operation-mode object and a filled statistics object.
class Store {
public:
    Store()
    {
        std::string tmpl = std::string(getenv("TMPDIR") != nullptr ? getenv("TMPDIR") : "/tmp") + "/kvard-bench-XXXXXX";
        dir_ = mkdtemp(tmpl.data()) != nullptr ? tmpl : "";
        setenv("KVARD_MDM_DIR", dir_.c_str(), 1);
        cmsMdm_initWithAcc(8802, 0, nullptr, nullptr);
        auto *mode = static_cast<OperationModeObject *>(calloc(1, sizeof(OperationModeObject)));
        mode->_oid = MDMOID_OPERATION_MODE;
        mode->operationMode = strdup("RT");
        cmsObj_set(mode, &kSingle);
        cmsObj_free(reinterpret_cast<void **>(&mode));
        stat_ = static_cast<OrnaTrafficMeterStatisticsObject *>(calloc(1, sizeof(OrnaTrafficMeterStatisticsObject)));
        stat_->_oid = MDMOID_ORNA_TRAFFIC_METER_STATISTICS;
        char **fields = &stat_->start_data_time;
        for (int i = 0; i < 40; i++) fields[i] = strdup(i < 2 || i >= 38 ? "Thu Jan  1 00:00:00 1970\n" : "123456.78");
        cmsObj_set(stat_, &kSingle);
    }
    ~Store()
    {
        cmsObj_free(reinterpret_cast<void **>(&stat_));
        nftw(dir_.c_str(), [](const char *p, const struct stat *, int, struct FTW *) { return remove(p); }, 16,
             FTW_DEPTH | FTW_PHYS);
    }
    bool ok() const { return !dir_.empty(); }
    const OrnaTrafficMeterStatisticsObject *statistics() const { return stat_; }

private:
    std::string dir_;
    OrnaTrafficMeterStatisticsObject *stat_ = nullptr;
};

void lockedGet(benchmark::State &state, MdmObjectId oid)
{
    Store store;
    if (!store.ok()) state.SkipWithError("no temporary store");
    for (auto _ : state) {
        if (cmsLck_acquireLockWithTimeoutTraced("bench", 30000) != CMSRET_SUCCESS) {
            state.SkipWithError("lock");
            break;
        }
        void *obj = nullptr;
        CmsRet ret = cmsObj_get(oid, &kSingle, 0, &obj);
        benchmark::DoNotOptimize(obj);
        cmsObj_free(&obj);
        cmsLck_releaseLockTraced("bench");
        if (ret != CMSRET_SUCCESS) {
            state.SkipWithError("get");
            break;
        }
    }
}

void BM_LockedGetOperationMode(benchmark::State &state)
{
    lockedGet(state, MDMOID_OPERATION_MODE);
}
BENCHMARK(BM_LockedGetOperationMode);

void BM_LockedGetStatistics(benchmark::State &state)
{
    lockedGet(state, MDMOID_ORNA_TRAFFIC_METER_STATISTICS);
}
BENCHMARK(BM_LockedGetStatistics);

void BM_SetStatistics(benchmark::State &state)
{
    Store store;
    if (!store.ok()) state.SkipWithError("no temporary store");
    for (auto _ : state) {
        if (cmsObj_set(store.statistics(), &kSingle) != CMSRET_SUCCESS) {
            state.SkipWithError("set");
            break;
        }
    }
}
BENCHMARK(BM_SetStatistics);

}  // namespace

BENCHMARK_MAIN();
