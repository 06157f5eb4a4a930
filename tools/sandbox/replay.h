// Simulated time and traffic for the daemon of a running box: `advance` steps
// it minute by minute at given rates, `replay` along the rows of a CSV file.
// docs/replay.md describes both, the file format and the state they keep.
#ifndef KVARD_SANDBOX_REPLAY_H
#define KVARD_SANDBOX_REPLAY_H

namespace sandbox {

// `kvard-sandbox advance ...`: argv[0] is "advance", the rest as the user gave it; getopt_long parsing, --help, exit codes as documented.
int AdvanceCommand(int argc, char **argv);
// `kvard-sandbox replay ...`: likewise.
int ReplayCommand(int argc, char **argv);

}  // namespace sandbox

#endif
