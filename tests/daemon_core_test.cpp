// The property observer, the upgrade check and the dispatch of the executable.

#include <condition_variable>
#include <mutex>

#include "tests/device_fixture.h"
#include "utils/system_property_observer.h"
#include "utils/upgrade.h"

namespace {

using namespace fixture;
using namespace testing;

// --- Observer ----------------------------------------------------------------------------------

std::mutex calls_mutex;
std::condition_variable calls_changed;
std::vector<std::string> calls;

void note(const std::string& handler, const char* name, bool on) {
    const std::lock_guard lock(calls_mutex);
    calls.push_back(handler + " " + name + (on ? " on" : " off"));
    calls_changed.notify_all();
}
void first(const char* name, bool on) {
    note("first", name, on);
}
void second(const char* name, bool on) {
    note("second", name, on);
}

std::vector<std::string> calls_once_there_are(size_t count) {
    std::unique_lock lock(calls_mutex);
    calls_changed.wait_for(lock, kPatience, [count] { return calls.size() >= count; });
    return calls;
}

TEST(Observer, CallsHandlersInOrderAndInTurn) {
    ZQSubscribe("test.switch", first);
    set_property("test.switch", "true");  // is no "on"
    set_property("test.switch", "1");
    calls_once_there_are(1);
    ZQSubscribe("test.switch", second);           // too late for this "on"
    using step = std::pair<const char*, size_t>;  // a value, and the calls there are then
    for (const auto& [value, count] :
         {step{"0", 3}, step{"1", 5}, step{"2", 5}, step{"1", 5}, step{"0", 7}}) {
        set_property("test.switch", value);
        calls_once_there_are(count);
    }
    EXPECT_THAT(
        calls_once_there_are(7),
        ElementsAre("first test.switch on", "first test.switch off", "second test.switch off",
                    "first test.switch on", "second test.switch on", "first test.switch off",
                    "second test.switch off"));
}

TEST(Observer, EachPointerIsASubscriptionOfItsOwn) {
    static const char one[] = "test.switch";
    static const char two[] = "test.switch";
    const log_lines log;
    ZQSubscribe(one, first);
    ZQSubscribe(two, first);
    set_property(one, "1");
    EXPECT_THAT(calls_once_there_are(2), AllOf(SizeIs(2), Each("first test.switch on")));
    const std::string line = "I ZQ_OBSERVER: test.switch changed to 1";
    EXPECT_THAT(log.lines(), ElementsAre(line, line));
}

// --- Upgrade and dispatch ------------------------------------------------------------------------

TEST(Upgrade, MovesOldDefaultsAlone) {
    const struct {
        const char* version;
        const char* size;
        const char* version_after;
        const char* size_after;
        const char* rotate_after;
    } cases[] = {
        {"", "", "1", "5", "20000"},        {"0", "2", "1", "5", "20000"},
        {"", "3", "1", "3", "20000"},       {"1", "2", "1", "2", "(unset)"},
        {"01", "2", "01", "2", "(unset)"},  {"07", "2", "7", "2", "(unset)"},
        {"-3x", "2", "-3", "2", "(unset)"},
    };
    for (const auto& c : cases) {
        set_property("persist.service.brevix.version", c.version);
        set_property("persist.sys.apklogfs.size", c.size);
        set_property("persist.sys.apklogfs.rotate_kbytes", "");
        EXPECT_EQ(ZQCheckUpgrade(), 0);
        EXPECT_EQ(property("persist.service.brevix.version"), c.version_after) << c.version;
        EXPECT_EQ(property("persist.sys.apklogfs.size"), c.size_after) << c.version;
        EXPECT_EQ(property("persist.sys.apklogfs.rotate_kbytes"), c.rotate_after) << c.version;
    }
    EXPECT_EQ(property("persist.sys.kmsglogfs.rotate_kbytes"), "6000");
    set_property("persist.service.brevix.version", "new");
    EXPECT_THROW(ZQCheckUpgrade(), std::invalid_argument);
}

TEST(Dispatch, ToolsAnswerToTheirArgumentsAndAlwaysEndWithZero) {
    write_program("/system/bin/cp", "echo \"cp $*\" >>/data/ran; kill -INT $PPID");
    write_program("/system/bin/touch", "echo \"touch $#\" >>/data/ran");
    for (const char* arguments :
         {"unknown", "CMD 'touch x'", "cmdx", "''", "copy_folder", "copy_folder /a", "cmd",
          "audio_cmd", "audio_cmd 7", "audio_cmd 1:2 x", "copy_folder /a /b /c",
          "cmd touch 'a b' c", "cmd 'exit 9'", "cmd 'kill -INT $PPID'"}) {
        EXPECT_EQ(run(std::string("zq_brevix ") + arguments).exit_status, 0) << arguments;
    }
    EXPECT_THAT(read_lines("/data/ran"), ElementsAre("cp -r /a /b", "touch 3"));
}

}  // namespace
