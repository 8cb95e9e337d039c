// SPDX-License-Identifier: Apache-2.0
#pragma once

// The watcher thread: inotify on the watched directories.

namespace brevix {

// Start and stop a watcher thread, strictly in turn, beginning with a start. Not thread-safe: for
// the switch's handler. A stop does not wait for the thread: it finishes the event in hand, whose
// child gets five more seconds, and ends. What is queued by then is the first work of the next
// watcher. A thread that cannot be created is logged.
void start_watcher();
void stop_watcher();

}  // namespace brevix

// The thread's body. Only start_watcher may start it: a thread that detection does not know adds no
// watch. The argument is not used. Never returns.
void* start_event_detecting(void*);

// Handler of SIGTERM: ends a watcher thread that was stopped. A SIGTERM that nobody sent it as a
// stop is the process's, whichever thread the kernel chose, and ends the process.
void event_sig_handler(int sig);
