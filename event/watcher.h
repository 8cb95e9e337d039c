#pragma once

// The watcher thread: inotify on the watched directories.

// Start and stop watching, in turn, beginning with a start; for one thread at a time. The files
// that came before the stop are still collected, by the stopped thread or the next one; nothing
// waits for that. A thread that cannot be created is logged.
void start_watcher();
void stop_watcher();

// A watcher thread's body, started by start_watcher alone. The argument is not used. Never returns.
void* start_event_detecting(void*);

// SIGTERM on a watcher thread ends that thread; on any other thread it ends the process.
void event_sig_handler(int sig);
