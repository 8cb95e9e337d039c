// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>
#include <vector>

// What a crash file says, as functions from text to values. The text is untrusted: any bytes.

namespace look {

// An exception or a thread: its line in the file, then its frames and locks as they are there.
struct stack_part {
    std::string title;
    std::vector<std::string> lines;
    size_t left_out = 0;  // lines behind these
};

struct crash {
    std::string family;  // "java", "native", "anr", "watchdog"; empty: none of these
    std::string package;
    std::string process;
    int pid = 0;
    std::string title;  // the line that tells most
    std::vector<stack_part> stack;
    size_t cause = 0;       // place in `stack` of the innermost cause or of the blocked thread
    std::string signature;  // what the stack says and other occurrences of the crash share
};

crash read_crash(std::string_view text);

// The stack in about `max_bytes`. Parts around the cause lose frames first, then all their lines;
// marks tell how many.
std::string stack_text(const crash& from, size_t max_bytes);

// The words of the stack, the cause's first, in at most `max_bytes`.
std::string stack_words(const crash& from, size_t max_bytes);

// What equal crashes have in common, whatever the phone: family, package and signature. `type` and
// `package` are the event's, and take the place of what the file does not say. Empty when the file
// says nothing.
std::string issue_text(const crash& from, const std::string& type, const std::string& package);

// Eight hexadecimal digits, the CRC-32 of the text.
std::string issue_id(const std::string& issue_text);

// A line of a native stack: "#00 pc 0004f2a8  /system/lib/libc.so (abort+168) (BuildId: 1f2e)".
struct native_frame {
    std::string_view address, module, symbol, build_id;  // hexadecimal; empty: not in the line
};
native_frame read_frame(std::string_view line);

}  // namespace look
