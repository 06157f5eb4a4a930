// The actions on the WAN and the LED, all through the shell. None reports anything.
#ifndef KVARD_TMACTION_H
#define KVARD_TMACTION_H

// Sets the WAN port's sub-interface down and starts the redirecting dnsmasq.
void TmShutdownWan(void);
// Kills the redirecting dnsmasq, cycles the WAN port, then waits 3 s.
void TmRestoreWan(void);
// Starts tmledflashd in the background.
void TmStartLedFlash(void);
// Removes tmledflashd's pid file, which is what stops it.
void TmStopLedFlash(void);

#endif
