// The keeper of the scale benchmark: posix_bench started with `--scale-keeper COUNT MARKER`
// starts COUNT programs that sleep, writes how many started to its standard output and waits
// to be killed with its caller's group. Answers false, at once, for any other command line.
#pragma once

bool scaleKeeperMode(int argc, char** argv);
