// SPDX-License-Identifier: Apache-2.0
#pragma once

// Writes a snapshot of the log buffers into the directory `dir` (no "/" at its end):
// pre_android.log, pre_event.log, pre_radio.log, pre_kernel.log. Blocks until the dumps are seen
// finished, at most about 10 seconds, then sends SIGTERM to all of them. What has not ended by then
// is not waited for. No other thread may reap children meanwhile: a dump that it reaps counts as
// unfinished, and the SIGTERM goes to its pid, which the kernel may have reused.
void ZQDumpBaseLog(const char* dir);
