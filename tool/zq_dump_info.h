// SPDX-License-Identifier: Apache-2.0
#pragma once

// Writes the state of processes, input and output, sockets, open files, storage and memory to seven
// text files in the directory data/logs/dumpsys of the working directory, each anew, then sets
// "sys.brevix.dumplog.enable" to "0". Blocks until all of them are written. The directory must be
// there; a command that fails leaves its file empty or missing and is not reported. Returns 0.
int ZQDumpInfo();
