// The WAN interface's byte counters, read from /proc/net/dev.
#ifndef KVARD_TMWAN_H
#define KVARD_TMWAN_H

#include <cstdint>

// One line of /proc/net/dev, column by column.
struct TmNetDevStats {
    unsigned long long rxBytes, rxPackets;
    unsigned int rxErrs, rxDrop, rxFifo, rxFrame, rxCompressed, rxMulticast;
    unsigned long long txBytes, txPackets;
    unsigned int txErrs, txDrop, txFifo, txColls, txCarrier, txCompressed;
};

// 1 and the WAN counters (the last non-zero pair when both read 0); 0 when unreadable, outputs untouched.
int GetWanStatistics(uint64_t *tx, uint64_t *rx);
// 0 whether or not the interface was found (record untouched if not); -1 when the file can't be opened.
int TmReadNetDevStats(const char *name, TmNetDevStats *stats);
// Takes the counters as the new counting base and zeroes every running sum; 1.
int TmResetTrafficCounters(void);

#endif
