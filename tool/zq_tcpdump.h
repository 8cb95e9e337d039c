// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

// Packet capture: tcpdump runs while the property "sys.tcpdump" is "1" and leaves its files in
// /data/tcpdump, which must be there.

// One capture: waits without limit for "1", starts a recorder thread, waits for "0", ends the
// recorder with its tcpdump and gives the files mode 0666. By then no process of the capture is
// left and its last file is complete, unless tcpdump took more than three seconds to end and was
// killed. Returns 0. Makes this process a child subreaper. Main thread of a single-threaded
// process.
//
// SIGTERM, SIGINT, SIGHUP and SIGQUIT end the process as usual, but during a capture the capture
// ends first, in the same way. They are unblocked until the capture and blocked in the calling
// thread from then on; one that is ignored stays so, except SIGTERM. A value of "sys.tcpdump.size"
// that is no number ends the process (std::terminate).
int ZQTCPDumpDetect();

// The recorder thread's body, to be started with those four signals and SIGCHLD blocked in every
// thread: it takes them only where it waits, with the capture running. The argument is not used.
// Never returns.
void* record_tcpdump(void*);

// The recorder thread's handler. Ends the capture, waits for its processes, and ends the thread
// when the "0" has come, else the process by `sig`.
void tcpdump_sig_handler(int sig);

namespace brevix {

// The shell line of a capture, at most 254 bytes. `size` is FILE_SIZE[,FILES[,...]] in tcpdump's
// units of a million bytes: at most 100 and 10 are used, and FILES is 0 when there is none or
// nothing behind the comma. `file` is the base name in /data/tcpdump, empty for one made of the
// start time. A `limitation` of "0" records whole packets instead of 128 bytes of each. Throws
// std::invalid_argument or std::out_of_range when a field of `size` is not an int.
std::string capture_command(const std::string& size, const std::string& file,
                            const std::string& limitation);

}  // namespace brevix
