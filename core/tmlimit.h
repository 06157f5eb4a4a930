// The monthly limit, decided afresh on every timer wake and acted on when it changes.
#ifndef KVARD_TMLIMIT_H
#define KVARD_TMLIMIT_H

#include <cstdint>

// The four values of one evaluation, each 0 or 1.
struct TmLimitState {
    uint32_t limit, warn, disconnect, ledflash;
};

// Works out limit, warning and reactions from the counters and clock of this run.
TmLimitState TmEvaluateLimit(uint64_t tx, uint64_t rx, int32_t now);
// Acts on what differs from the state in force: WAN, LED, then the notification.
void TmReactToLimit(const TmLimitState &state);

#endif
