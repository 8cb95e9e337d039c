// The property observer, the upgrade check and the dispatch of the executable.

#include <cutils/properties.h>
#include <fcntl.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "tests/device_fixture.h"
#include "utils/system_property_observer.h"
#include "utils/upgrade.h"
#include "utils/util.h"

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;

std::string property(const char* name) {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(name, value, "(unset)");
    return value;
}

// --- Observer ----------------------------------------------------------------------------------

std::mutex calls_mutex;
std::condition_variable calls_changed;
std::vector<std::string> calls;

void note(const std::string& call) {
    const std::lock_guard lock(calls_mutex);
    calls.push_back(call);
    calls_changed.notify_all();
}

void first(const char* name, bool on) {
    note(std::string("first ") + name + (on ? " on" : " off"));
}
void second(const char* name, bool on) {
    note(std::string("second ") + name + (on ? " on" : " off"));
}

std::vector<std::string> calls_once_there_are(size_t count) {
    std::unique_lock lock(calls_mutex);
    calls_changed.wait_for(lock, fixture::kPatience, [count] { return calls.size() >= count; });
    return calls;
}

TEST(Observer, CallsHandlersInOrderAndInTurn) {
    ZQSubscribe("test.switch", first);
    ZQSubscribe("test.switch", second);
    property_set("test.switch", "true");
    property_set("test.switch", "0");
    property_set("test.switch", "1");
    std::vector<std::string> expected = {"first test.switch on", "second test.switch on"};
    EXPECT_EQ(calls_once_there_are(2), expected);
    property_set("test.switch", "2");
    property_set("test.switch", "1");
    property_set("test.switch", "0");
    expected.insert(expected.end(), {"first test.switch off", "second test.switch off"});
    EXPECT_EQ(calls_once_there_are(4), expected);
}

TEST(Observer, AHandlerAddedWhileOnGetsTheOff) {
    static const char name[] = "test.switch";
    property_set(name, "1");
    ZQSubscribe(name, first);
    calls_once_there_are(1);
    ZQSubscribe(name, second);
    property_set(name, "0");
    EXPECT_THAT(
        calls_once_there_are(3),
        ElementsAre("first test.switch on", "first test.switch off", "second test.switch off"));
}

TEST(Observer, EachPointerIsASubscriptionOfItsOwn) {
    static const char one[] = "test.switch";
    static const char two[] = "test.switch";
    const fixture::log_lines log;
    ZQSubscribe(one, first);
    ZQSubscribe(two, first);
    property_set(one, "1");
    EXPECT_THAT(calls_once_there_are(2), testing::Each("first test.switch on"));
    EXPECT_THAT(log.lines(), ElementsAre("I ZQ_OBSERVER: test.switch changed to 1",
                                         "I ZQ_OBSERVER: test.switch changed to 1"));
}

// --- Upgrade -------------------------------------------------------------------------------------

TEST(Upgrade, MovesOldDefaultsAlone) {
    struct {
        const char* version;
        const char* size;
        const char* version_after;
        const char* size_after;
        const char* rotate_after;
        std::vector<std::string> log;
    } const cases[] = {
        {"", "", "1", "5", "20000", {"I ZQ_UPGRADE: upgrade from 0 to 1"}},
        {"0", "2", "1", "5", "20000", {"I ZQ_UPGRADE: upgrade from 0 to 1"}},
        {"", "3", "1", "3", "20000", {"I ZQ_UPGRADE: upgrade from 0 to 1"}},
        {"1", "2", "1", "2", "(unset)", {}},
        {"01", "2", "01", "2", "(unset)", {}},
        {"07", "2", "7", "2", "(unset)", {"I ZQ_UPGRADE: upgrade from 07 to 1"}},
        {"-3x", "2", "-3", "2", "(unset)", {"I ZQ_UPGRADE: upgrade from -3x to 1"}},
    };
    for (const auto& c : cases) {
        property_set("persist.service.brevix.version", c.version);
        property_set("persist.sys.apklogfs.size", c.size);
        property_set("persist.sys.apklogfs.rotate_kbytes", "");
        const fixture::log_lines log;
        EXPECT_EQ(ZQCheckUpgrade(), 0);
        EXPECT_EQ(property("persist.service.brevix.version"), c.version_after) << c.version;
        EXPECT_EQ(property("persist.sys.apklogfs.size"), c.size_after) << c.version;
        EXPECT_EQ(property("persist.sys.apklogfs.rotate_kbytes"), c.rotate_after) << c.version;
        EXPECT_EQ(log.lines(), c.log);
    }
    EXPECT_EQ(property("persist.sys.kmsglogfs.rotate_kbytes"), "6000");
    property_set("persist.service.brevix.version", "new");
    EXPECT_THROW(ZQCheckUpgrade(), std::invalid_argument);
}

// --- Dispatch ----------------------------------------------------------------------------------

TEST(Dispatch, ToolsAnswerToTheirArgumentsAndAlwaysEndWithZero) {
    fixture::write_program("/system/bin/cp", "echo \"cp $*\" >>/data/ran");
    fixture::write_program("/system/bin/touch", "echo \"touch $#\" >>/data/ran");
    const std::vector<std::vector<const char*>> silent = {
        {"unknown"},        {"CMD", "touch x"},        {"cmdx"}, {""},
        {"copy_folder"},    {"copy_folder", "/a"},     {"cmd"},  {"audio_cmd"},
        {"audio_cmd", "7"}, {"audio_cmd", "1:2", "x"},
    };
    const std::vector<std::vector<const char*>> ran = {
        {"copy_folder", "/a", "/b", "/c"},
        {"cmd", "touch", "a b", "c"},
        {"cmd", "exit 9"},
    };
    const auto run = [](std::vector<const char*> argv) {
        argv.insert(argv.begin(), "/system/bin/zq_brevix");
        argv.push_back(nullptr);
        const int pid = ZQRecordLog("test", const_cast<char* const*>(argv.data()));
        if (pid == 0) {
            _exit(127);
        }
        int status = -1;
        waitpid(pid, &status, 0);
        EXPECT_EQ(status, 0) << argv[1];
    };
    for (const auto& argv : silent) {
        run(argv);
    }
    EXPECT_FALSE(std::filesystem::exists("/data/ran"));
    for (const auto& argv : ran) {
        run(argv);
    }
    EXPECT_THAT(fixture::read_lines("/data/ran"), ElementsAre("cp -r /a /b", "touch 3"));
}

}  // namespace
