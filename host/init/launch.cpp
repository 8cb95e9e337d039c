#define LOG_TAG "init"

#include "host/init/launch.h"

#include <android-base/logging.h>
#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <memory>

namespace init {

namespace {

// Ends the child: it must not go on as a second init.
[[noreturn]] void give_up(const char* step, const char* program) {
    PLOG(ERROR) << "cannot start " << program << ": " << step;
    _exit(127);
}

struct iab_deleter {
    void operator()(cap_iab_t iab) const { cap_free(iab); }
};

// A user other than root keeps a capability over exec only as an ambient one; root has all that the
// bounding set leaves.
bool limit_capabilities(const std::vector<cap_value_t>& wanted) {
    const std::unique_ptr<std::remove_pointer_t<cap_iab_t>, iab_deleter> set(cap_iab_init());
    if (set == nullptr) {
        return false;
    }
    for (cap_value_t each = 0; each < cap_max_bits(); ++each) {
        cap_iab_set_vector(set.get(), CAP_IAB_BOUND, each, CAP_SET);  // set: taken away
    }
    for (const cap_value_t each : wanted) {
        cap_iab_set_vector(set.get(), CAP_IAB_BOUND, each, CAP_CLEAR);
        cap_iab_set_vector(set.get(), CAP_IAB_AMB, each, CAP_SET);
    }
    return cap_iab_set_proc(set.get()) == 0;
}

const char* become(const service& what) {
    if (setgroups(what.groups.size(), what.groups.data()) != 0 || setgid(what.group) != 0) {
        return "groups";
    }
    if (cap_setuid(what.user) != 0) {  // keeps what the next step needs
        return "user";
    }
    if (what.capabilities && !limit_capabilities(*what.capabilities)) {
        return "capabilities";
    }
    return nullptr;
}

void adjust_oom_score(int score) {
    std::ofstream file("/proc/self/oom_score_adj");
    if (!(file << score << std::flush)) {
        PLOG(WARNING) << "cannot set the oom score to " << score;
    }
}

void default_signals() {
    for (int each = 1; each < NSIG; ++each) {
        signal(each, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

[[noreturn]] void execute(const std::vector<std::string>& words) {
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (const std::string& word : words) {
        argv.push_back(const_cast<char*>(word.c_str()));
    }
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    give_up("exec", argv[0]);
}

[[noreturn]] void run_service(const service& what) {
    const char* const program = what.arguments[0].c_str();
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
        dup2(null, stream);
    }
    umask(077);
    default_signals();
    if (what.oom_score_adjust) {
        adjust_oom_score(*what.oom_score_adjust);
    }
    if (chdir("/") != 0) {
        give_up("chdir", program);
    }
    if (const char* const failed = has_users() ? become(what) : nullptr) {
        give_up(failed, program);
    }
    execute(what.arguments);
}

}  // namespace

bool has_users() {
    std::ifstream map("/proc/self/uid_map");
    uid_t inside = 0;
    uid_t outside = 0;
    uid_t count = 0;
    map >> inside >> outside >> count;
    return count > 1;
}

pid_t launch(const service& what) {
    const pid_t pid = fork();
    if (pid == 0) {
        setpgid(0, 0);
        run_service(what);
    }
    if (pid > 0) {
        setpgid(pid, pid);  // on both sides: whoever signals the group next finds it
    }
    return pid;
}

pid_t launch_on_console(const std::vector<std::string>& command, int standard_error) {
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(standard_error, STDERR_FILENO);
        default_signals();
        execute(command);
    }
    return pid;
}

}  // namespace init
