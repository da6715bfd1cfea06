// The keeper of the scale benchmark: posix_bench started with `--scale-keeper COUNT MARKER`
// starts COUNT programs that sleep, writes how many started to its standard output and waits
// to be killed with its caller's group. Answers false, at once, for any other command line.
#pragma once

bool scaleKeeperMode(int argc, char** argv);

// The scale benchmark's name. It is registered apart (registerScaleBenchmark) and run after
// every other benchmark has run under every load: the 12,000 programs it starts and ends keep
// the host busy for a while after it, which no other figure should carry.
inline constexpr const char* kScaleBenchmark = "BM_ScaleRounds";
void registerScaleBenchmark();
