// SPDX-License-Identifier: Apache-2.0

// Reads the crash files of the platform: dropbox entries of exceptions, ANRs and watchdogs, and
// tombstones.

#include "look/crash.h"

#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <sstream>

#include "look/files.h"

namespace look {

namespace {

constexpr size_t kFrames = 64;    // of a part of the stack that are kept
constexpr size_t kSignature = 3;  // frames that tell one crash from another
constexpr size_t kLineBytes = 1024;

// Blank-separated names; "*" stands for any end.
// Code that every app runs through, and that tells nothing about it:
constexpr const char* kRuntime =
    "java.* javax.* android.os.* android.app.* com.android.internal.* kotlin.* kotlinx.* dalvik.* "
    "libcore.* sun.* jdk.*";
// What runs between the function that gives up and the signal:
constexpr const char* kAborters =
    "abort raise tgkill pthread_kill syscall abort_message __assert* __fortify_fatal* "
    "__stack_chk_fail __android_log_* __cxa_throw __cxa_rethrow android::base::DefaultAborter* "
    "android::base::SetAborter* android::base::LogMessage::* art::Runtime::Abort* "
    "art::Thread::AssertNo* std::terminate* std::__terminate* demangling_terminate_handler* "
    "scudo::die* scudo::report* scudo::ScopedErrorReport* fdsan_error*";

bool is_one_of(const std::string& forms, std::string_view name) {
    std::istringstream words(forms);
    return std::any_of(std::istream_iterator<std::string>(words), {}, [&](const std::string& form) {
        return form.ends_with('*') ? name.starts_with(form.substr(0, form.size() - 1))
                                   : name == form;
    });
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

bool is_word(char c) {
    return is_digit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

std::string_view trimmed(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
    return text.substr(0, text.find_last_not_of(" \t\r") + 1);
}

std::string line_of(std::string_view text) {
    return std::string(text.substr(0, kLineBytes));
}

void add_line(stack_part& part, std::string_view line) {
    if (part.lines.size() < kFrames) {
        part.lines.push_back(line_of(line));
    } else {
        ++part.left_out;
    }
}

std::string part_text(const stack_part& part, size_t max_lines) {
    std::string text = part.title + "\n";
    const size_t shown = std::min(max_lines, part.lines.size());
    for (size_t i = 0; i < shown; ++i) {
        text += part.lines[i] + "\n";
    }
    const size_t rest = part.lines.size() - shown + part.left_out;
    return rest == 0 ? text : text + "  [more lines: " + std::to_string(rest) + "]\n";
}

int number(std::string_view text) {
    return atoi(std::string(text.substr(0, 9)).c_str());
}

// Leaves out quoted values, numbers, addresses and object ids, which differ from one occurrence to
// the next.
std::string without_numbers(std::string_view text) {
    std::string result;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        const bool is_quote = (c == '\'' || c == '"') && (i == 0 || !is_word(text[i - 1]));
        const size_t end = is_quote ? text.find(c, i + 1) : text.npos;
        if (end != text.npos) {
            result.append(2, c);
            i = end;
        } else if (is_digit(c) || c == '@') {
            for (; i + 1 < text.size() && is_word(text[i + 1]); ++i) {
            }
        } else {
            result += c;
        }
    }
    return result;
}

// --- Native stacks -----------------------------------------------------------------------------

// The function's name without the offset in it and what the linker appends to it.
std::string_view function_of(const native_frame& frame) {
    std::string_view name = frame.symbol;
    const size_t last = name.find_last_not_of("0123456789");
    name = last != name.npos && name[last] == '+' ? name.substr(0, last) : name;
    return name.substr(0, std::min(name.find(".llvm."), name.find(".cfi")));
}

// The function, else library and offset. An offset in what has no file depends on the load.
std::string frame_key(const native_frame& frame) {
    if (!frame.symbol.empty()) {
        return std::string(function_of(frame));
    }
    const std::string_view file = frame.module.substr(frame.module.find_last_of("/!") + 1);
    if (file.empty() || file[0] == '<' || file[0] == '[' || file.find("jit-c") != file.npos) {
        return without_numbers(file);
    }
    const size_t digits = std::min(frame.address.find_first_not_of('0'), frame.address.size());
    return std::string(file) + "+" + std::string(frame.address.substr(digits));
}

std::vector<std::string> frame_keys(const std::vector<std::string>& lines) {
    std::vector<std::string> keys;
    for (const std::string& line : lines) {
        const native_frame frame = read_frame(line);
        const bool is_passed = keys.empty() && is_one_of(kAborters, function_of(frame));
        if (!frame.address.empty() && !is_passed && keys.size() < kSignature) {
            keys.push_back(frame_key(frame));
        }
    }
    return keys;
}

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : " < ") + word;
    }
    return text;
}

// The address of a fault differs each time.
std::string reason_of(std::string_view text) {
    for (const std::string key : {"Abort message: ", "Cause: ", "signal "}) {
        if (const auto found = between(text, "\n" + key, "\n"); !found.empty()) {
            return key + line_of(found.substr(0, found.find(", fault addr")));
        }
    }
    return {};
}

void read_native(crash& result, std::string_view text) {
    // What follows the first thread describes other threads, memory and open files.
    const std::string_view thread = text.substr(0, text.find("\n--- --- ---"));
    const std::string_view who = between(thread, "pid: ", "\n");
    result.family = "native";
    result.pid = number(who);
    const std::string_view name = between(who, ">>> ", " <<<");
    result.process = result.process.empty() ? std::string(name) : result.process;
    std::string_view rest = between(thread, "\nbacktrace:", "\n\n");
    result.stack.push_back({"pid: " + line_of(who), {}, 0});
    take_line(rest);
    while (!rest.empty() && !read_frame(rest.substr(0, rest.find('\n'))).address.empty()) {
        add_line(result.stack[0], take_line(rest));
    }
    const std::vector<std::string> keys = frame_keys(result.stack[0].lines);
    result.signature = joined(keys);
    const std::string reason = reason_of(thread);
    result.title = reason.empty() ? result.stack[0].title : reason;
    result.title += keys.empty() ? "" : ", in " + keys[0];
}

// --- Exceptions --------------------------------------------------------------------------------

bool is_java_frame(std::string_view line) {
    return (line.starts_with('\t') || line.starts_with(' ')) && trimmed(line).starts_with("at ");
}

// Numbers of lambdas and anonymous classes change with the code around them.
std::string without_indexes(std::string_view method) {
    std::string result;
    for (const char c : method) {
        result += is_digit(c) && result.ends_with('$') ? "" : std::string(1, c);
    }
    return result;
}

// "com.example.Main.run" of "\tat com.example.Main.run(Main.java:7)"; nothing when only the runtime
// or generated code is named so.
std::string own_method(std::string_view line) {
    if (!is_java_frame(line)) {
        return {};
    }
    const std::string_view all = trimmed(line).substr(3);
    const std::string_view name = all.substr(0, all.find('('));
    const bool is_generated = name.find("$$") != name.npos || name.find("$r8$") != name.npos;
    return is_generated || is_one_of(kRuntime, name) ? "" : without_indexes(name);
}

std::vector<std::string> own_methods(const std::vector<std::string>& lines) {
    std::vector<std::string> methods;
    for (size_t i = 0; i < lines.size() && methods.size() < kSignature; ++i) {
        if (std::string method = own_method(lines[i]); !method.empty()) {
            methods.push_back(std::move(method));
        }
    }
    return methods;
}

std::string exception_class(std::string_view title) {
    if (title.starts_with("Caused by: ")) {
        title.remove_prefix(11);
    }
    return std::string(title.substr(0, title.find_first_of(": ")));
}

// "java.lang.Error: why" and "com.example.Boom$Fatal".
bool names_class(std::string_view line) {
    const std::string name = exception_class(line);
    const auto is_part = [](char c) { return is_word(c) || c == '.' || c == '$' || c == '_'; };
    return name.find('.') != name.npos && std::ranges::all_of(name, is_part);
}

// The place of the exception whose first frame comes next: its message may have several lines.
std::string_view from_exception(std::string_view body) {
    std::string_view found;
    for (std::string_view rest = body; !rest.empty();) {
        const std::string_view here = rest;
        const std::string_view line = take_line(rest);
        if (is_java_frame(line)) {
            return found;
        }
        found = names_class(line) ? here : found;
    }
    return {};
}

void read_java(crash& result, std::string_view body) {
    result.family = "java";
    result.stack.push_back({line_of(take_line(body)), {}, 0});
    bool is_message = true;
    while (!body.empty()) {
        const std::string_view line = take_line(body);
        const std::string_view words = trimmed(line);
        if (words.starts_with("Suppressed: ") || words.starts_with("Caused by: ")) {
            result.cause = line.starts_with("Caused by: ") ? result.stack.size() : result.cause;
            result.stack.push_back({line_of(line), {}, 0});
            is_message = true;
        } else if (is_java_frame(line) || words.starts_with("... ")) {
            add_line(result.stack.back(), line);
            is_message = false;
        } else if (!is_message) {
            break;
        }
    }
    std::vector<std::string> methods;
    for (size_t i = result.cause + 1; i-- > 0 && methods.empty();) {
        methods = own_methods(result.stack[i].lines);
    }
    result.signature = exception_class(result.stack[result.cause].title);
    result.signature += methods.empty() ? "" : " in " + joined(methods);
}

// --- Thread dumps ------------------------------------------------------------------------------

// The dump of the process: a file holds those of others, too.
std::string_view dump_of(std::string_view text, int pid) {
    const size_t own = text.find("----- pid " + std::to_string(pid) + " at");
    const size_t at = own != text.npos ? own : text.find("----- pid ");
    text = text.substr(at == text.npos ? 0 : at);
    return text.substr(0, text.find("\n----- end "));
}

// Without the lines of scheduler and memory, which begin with "|".
std::vector<stack_part> threads_in(std::string_view dump) {
    std::vector<stack_part> threads;
    bool is_inside = false;
    while (!dump.empty()) {
        const std::string_view line = take_line(dump);
        if (line.starts_with('"')) {
            threads.push_back({line_of(line), {}, 0});
        } else if (is_inside && line.starts_with(' ') && !trimmed(line).starts_with('|')) {
            add_line(threads.back(), line);
        }
        is_inside = line.starts_with('"') || (is_inside && line.starts_with(' '));
    }
    return threads;
}

// "<0x0d15ea5e> (a com.example.Lock) held by thread 17"
std::string awaited_lock(const stack_part& thread) {
    return std::string(between(part_text(thread, kFrames), "\n  - waiting to lock ", "\n"));
}

// The thread whose line holds `mark`, and each one that holds the lock that the one before waits
// for.
std::vector<stack_part> blocked_threads(const std::vector<stack_part>& threads, std::string mark) {
    constexpr size_t kMaxThreads = 5;
    std::vector<stack_part> blocked;
    while (!mark.empty() && blocked.size() < kMaxThreads) {
        const auto found = std::ranges::find_if(
            threads, [&](const stack_part& one) { return one.title.find(mark) != one.title.npos; });
        const auto is_found = [&](const stack_part& one) { return one.title == found->title; };
        if (found == threads.end() || std::ranges::any_of(blocked, is_found)) {
            break;
        }
        blocked.push_back(*found);
        const std::string lock = awaited_lock(*found);
        const std::string_view holder = between(lock, "held by thread ", " ");
        mark = holder.empty() ? "" : " tid=" + std::string(holder) + " ";
    }
    return blocked;
}

// A frame of its own, else the first of any kind.
std::string first_method(const stack_part& part) {
    if (const auto own = own_methods(part.lines); !own.empty()) {
        return own[0];
    }
    const auto frame = std::ranges::find_if(part.lines, is_java_frame);
    if (frame != part.lines.end()) {
        return without_indexes(between(*frame, "at ", "("));
    }
    const std::vector<std::string> keys = frame_keys(part.lines);
    return keys.empty() ? "" : keys[0];
}

// "Blocked in monitor com.example.Lock on foreground thread (fg)" is about a class, "Blocked in
// handler on main thread (main)" about a thread.
std::string blocked_class(std::string_view subject) {
    const std::string_view monitor = between(subject, "Blocked in monitor ", " on ");
    const std::string_view handler = between(subject, "Blocked in handler on ", " (");
    return !monitor.empty()   ? "monitor " + std::string(monitor)
           : !handler.empty() ? "handler " + std::string(handler)
                              : without_numbers(subject);
}

void read_dump(crash& result, std::string_view text, std::string_view subject) {
    const bool is_watchdog = result.process == "system_server" && !subject.empty();
    const std::string_view named = is_watchdog ? between(subject, "(", ")") : "";
    const std::string name = named.empty() ? "main" : line_of(named);
    result.family = is_watchdog ? "watchdog" : "anr";
    result.stack = blocked_threads(threads_in(dump_of(text, result.pid)), '"' + name + '"');
    if (is_watchdog) {
        result.signature = blocked_class(subject);
    } else if (!result.stack.empty()) {
        const std::string lock = awaited_lock(result.stack[0]);
        const std::string_view kind = between(lock, "(a ", ")");
        result.signature = first_method(result.stack[0]);
        result.signature += kind.empty() ? "" : " waits for " + std::string(kind);
        result.signature += result.stack.size() < 2 ? "" : " in " + first_method(result.stack[1]);
    }
}

// --- The file ----------------------------------------------------------------------------------

// The lines "Key: value" before the first empty one; nothing when the file begins otherwise.
std::string_view header_of(std::string_view text) {
    const auto is_key = [](char c) { return is_word(c) || c == '-' || c == ' '; };
    std::string_view rest = text;
    while (!rest.empty() && !rest.starts_with('\n')) {
        const std::string_view line = take_line(rest);
        const size_t key = line.find(':');
        if (key == line.npos || !std::ranges::all_of(line.substr(0, key), is_key)) {
            return {};
        }
    }
    return text.substr(0, text.size() - rest.size());
}

std::string value(std::string_view header, const std::string& key) {
    const bool is_first = header.starts_with(key);
    return line_of(between(header, is_first ? key : "\n" + key, "\n"));
}

std::string first_word(const std::string& text) {
    return text.substr(0, text.find(' '));
}

std::string first_line(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of("\n \t"), text.size()));
    return line_of(take_line(text));
}

void read_stack(crash& result, std::string_view text, std::string_view header) {
    std::string_view body = text.substr(header.size());
    body.remove_prefix(std::min(body.find_first_not_of('\n'), body.size()));
    const std::string subject = value(header, "Subject: ");
    const bool is_exception =
        !header.empty() && (names_class(first_line(body)) || body.find("\n\tat ") != body.npos);
    const std::string_view exception = is_exception ? body : from_exception(body);
    if (body.starts_with("*** ***") || body.starts_with("pid: ")) {
        read_native(result, body);
    } else if (!subject.empty() || body.find("\"main\" prio=") != body.npos) {
        read_dump(result, body, subject);
        result.title = subject;
    } else if (!exception.empty()) {
        read_java(result, exception);
        result.title = result.stack[0].title;
    }
    result.title = result.title.empty() ? first_line(body.empty() ? text : body) : result.title;
}

// --- The stack as text -------------------------------------------------------------------------

std::string all_parts(const crash& from, size_t cause_lines, size_t other_lines) {
    std::string text;
    for (size_t i = 0; i < from.stack.size(); ++i) {
        text += part_text(from.stack[i], i == from.cause ? cause_lines : other_lines);
    }
    return text;
}

}  // namespace

native_frame read_frame(std::string_view line) {
    line = trimmed(line);
    line.remove_prefix(line.starts_with("native: ") ? 8 : 0);
    const std::string_view place = between(line, " pc ", " (BuildId: ");
    if (!line.starts_with('#') || place.empty()) {
        return {};
    }
    const std::string_view address = place.substr(0, place.find_first_not_of("0123456789abcdef"));
    const std::string_view file = trimmed(place.substr(address.size()));
    const std::string_view module = file.substr(0, file.find(" ("));
    std::string_view rest = trimmed(file.substr(module.size()));
    while (rest.starts_with("(deleted)") || rest.starts_with("(offset 0x")) {
        rest = trimmed(rest.substr(rest.find(')') == rest.npos ? rest.size() : rest.find(')') + 1));
    }
    const bool is_named = rest.starts_with('(') && rest.ends_with(')');
    return {address, module, is_named ? rest.substr(1, rest.size() - 2) : rest.substr(0, 0),
            between(line, "(BuildId: ", ")")};
}

crash read_crash(std::string_view text) {
    crash result;
    const std::string_view header = header_of(text);
    result.package = first_word(value(header, "Package: "));
    result.process = first_word(value(header, "Process: "));
    result.pid = number(value(header, "PID: "));
    for (const char* key : {"Cmd line: ", "Cmdline: "}) {
        result.process = result.process.empty() ? first_word(value(text, key)) : result.process;
    }
    read_stack(result, text, header);
    if (result.package.empty()) {
        result.package = result.process.substr(0, result.process.find(':'));
    }
    return result;
}

std::string stack_text(const crash& from, size_t max_bytes) {
    constexpr size_t kLines[][2] = {{64, 64}, {64, 16}, {64, 4}, {24, 1}, {8, 1}, {8, 0}};
    for (const auto& [cause_lines, other_lines] : kLines) {
        std::string text = all_parts(from, cause_lines, other_lines);
        if (text.size() <= max_bytes) {
            return text;
        }
    }
    const size_t others = from.stack.size() - 1;
    const std::string mark = "[more parts: " + std::to_string(others) + "]\n";
    return (others == 0 ? "" : mark) + part_text(from.stack[from.cause], 8);
}

std::string stack_words(const crash& from, size_t max_bytes) {
    std::string words = from.signature + " ";
    for (const char c : stack_text(from, max_bytes)) {
        const bool is_blank = c == ' ' || c == '\t' || c == '\n';
        words += is_blank && words.ends_with(' ') ? "" : std::string(1, is_blank ? ' ' : c);
    }
    return words.substr(0, max_bytes);
}

std::string issue_text(const crash& from, const std::string& type, const std::string& package) {
    const std::string what = from.signature.empty() ? without_numbers(from.title) : from.signature;
    const std::string whose = package.empty() ? from.package : package;
    return what.empty() ? ""
                        : (from.family.empty() ? type : from.family) + "; " + whose + "; " + what;
}

std::string issue_id(const std::string& issue_text) {
    const auto* bytes = reinterpret_cast<const Bytef*>(issue_text.data());
    char digits[9];
    snprintf(digits, sizeof(digits), "%08lx", crc32(0, bytes, issue_text.size()));
    return digits;
}

}  // namespace look
