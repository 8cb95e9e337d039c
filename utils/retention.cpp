// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "ZQ_UTIL"

#include "utils/retention.h"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>
#include <string_view>
#include <system_error>
#include <utility>

#include "utils/children.h"
#include "utils/directories.h"
#include "utils/property_value.h"

namespace fs = std::filesystem;
using namespace brevix;

namespace {

constexpr int64_t kMaxTotalBytes = 2147483648;

struct dir_closer {
    void operator()(DIR* dir) const { closedir(dir); }
};
using unique_dir = std::unique_ptr<DIR, dir_closer>;

[[noreturn]] void throw_filesystem_error(const char* what, const std::string& path) {
    const std::error_code error(errno, std::generic_category());  // before an allocation writes it
    throw fs::filesystem_error(what, path, error);
}

// Returns null, with errno, when it cannot be opened.
unique_dir open_directory(int parent_fd, const char* name, int flags) {
    android::base::unique_fd fd(
        openat(parent_fd, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | flags));
    // Fdopendir of a failed openat would overwrite errno.
    return unique_dir(fd < 0 ? nullptr : android::base::Fdopendir(std::move(fd)));
}

unique_dir open_or_throw(const std::string& path) {
    unique_dir dir = open_directory(AT_FDCWD, path.c_str(), 0);
    if (dir == nullptr) {
        throw_filesystem_error("cannot open directory", path);
    }
    return dir;
}

// Calls `look` with each entry but "." and "..". readdir, because std::filesystem's iterator builds
// a path of every name, a third of the cost of counting. ENOENT, which only bionic passes on, means
// that the directory was removed meanwhile.
void for_each_entry(DIR* dir, const std::string& path, const auto& look) {
    errno = 0;
    while (const dirent* entry = readdir(dir)) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") {
            look(*entry);
        }
        errno = 0;
    }
    if (errno != 0 && errno != ENOENT) {
        throw_filesystem_error("cannot read directory", path);
    }
}

// Calls `look` with each name that starts with `prefix`. The string is reused for the next name.
void for_each_name(const std::string& path, std::string_view prefix, const auto& look) {
    const unique_dir dir = open_or_throw(path);
    std::string name;
    for_each_entry(dir.get(), path, [&](const dirent& entry) {
        name = entry.d_name;
        if (name.starts_with(prefix)) {
            look(name);
        }
    });
}

int64_t size_unless_gone(const unique_dir& dir, const std::string& path);

bool is_directory(int dir_fd, const dirent& entry) {
    struct stat st {};
    return entry.d_type == DT_DIR ||
           (entry.d_type == DT_UNKNOWN &&
            fstatat(dir_fd, entry.d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode));
}

// 0 for other types, and for an entry that was removed meanwhile.
int64_t entry_size(int dir_fd, const dirent& entry, const std::string& dir) {
    if (is_directory(dir_fd, entry)) {
        const std::string path = dir + "/" + entry.d_name;
        return size_unless_gone(open_directory(dir_fd, entry.d_name, O_NOFOLLOW), path);
    }
    struct stat st {};
    const bool may_be_file =
        entry.d_type == DT_REG || entry.d_type == DT_LNK || entry.d_type == DT_UNKNOWN;
    return may_be_file && fstatat(dir_fd, entry.d_name, &st, 0) == 0 && S_ISREG(st.st_mode)
               ? st.st_size
               : 0;
}

// Not std::filesystem's iterator: it throws when an entry is removed before its size is read, and
// logcat children that are just ending still rename their files.
int64_t size_below(DIR* dir, const std::string& path) {
    int64_t sum = 0;
    for_each_entry(dir, path,
                   [&](const dirent& entry) { sum += entry_size(dirfd(dir), entry, path); });
    return sum;
}

// `dir` as open_directory has returned it.
int64_t size_unless_gone(const unique_dir& dir, const std::string& path) {
    if (dir != nullptr) {
        return size_below(dir.get(), path);
    }
    if (errno != ENOENT) {
        throw_filesystem_error("cannot open directory", path);
    }
    return 0;
}

void pack(const std::string& path) {
    const std::string archive = path + ".tar.gz";
    const char* const argv[] = {"/system/bin/tar", "-czf", archive.c_str(), "-C",
                                path.c_str(),      ".",    nullptr};
    const pid_t pid = start_program(argv);
    if (pid < 0) {
        const int error = errno;
        LOG(ERROR) << "tar fork fail " << strerror(error);
        return;
    }
    LOG(INFO) << "tar_pid = " << pid;
    wait_for(pid, argv[0]);
    ZQRemoveFile(path);
    chmod(archive.c_str(), 0777);
}

// The entries, lowest counts first, whose removal brings `total` bytes below the ceiling; never the
// last of `names`.
std::vector<std::string> beyond_ceiling(const std::string& dir, const auto& names, int64_t total) {
    std::vector<std::string> paths;
    int64_t sum = 0;
    for (const std::string& name : names) {
        const std::string path = dir + name;
        const int64_t size = size_unless_gone(open_directory(AT_FDCWD, path.c_str(), 0), path);
        LOG(INFO) << "directory= " << path.substr(path.rfind('/') + 1) << ", size= " << size;
        if (name == *names.rbegin()) {
            LOG(INFO) << "at least we keep 1 folder";
            break;
        }
        paths.push_back(path);
        sum += size;
        // Strictly below, unlike the test that starts the trimming: at exactly the ceiling one more
        // directory goes.
        if (total - sum < kMaxTotalBytes) {
            LOG(INFO) << "sum size=" << sum << ", total size=" << total;
            break;
        }
    }
    return paths;
}

bool is_aging_build() {
    const std::string value = property_value("ro.boot.aging.build", "0");
    return value == "true" || value == "1";
}

}  // namespace

int ZQRemoveFile(const std::string& path) {
    std::error_code ec;
    fs::remove_all(path, ec);
    if (ec) {
        LOG(ERROR) << "remove failed: " << path << "error: " << ec;
        return -1;
    }
    return 0;
}

int ZQGetNewLogCount(const std::string& dir, const std::string& prefix, uint64_t fieldCount) {
    int64_t best = -1;
    for_each_name(dir, prefix, [&](const std::string& name) {
        best = std::max(best, ZQGetCountByFileName(name, fieldCount));
    });
    // Unsigned: INT64_MAX + 1, which a planted name can ask for, would overflow.
    const int count = static_cast<int>(static_cast<uint64_t>(best) + 1);
    LOG(INFO) << "new count: " << count;
    return count;
}

bool ZQRemoveOldFile(const std::string& dir, const std::string& prefix, uint64_t fieldCount,
                     int64_t keepFrom, bool /*ignoredFlag*/, bool compress) {
    const int64_t lowest_kept = std::max<int64_t>(keepFrom, 0);
    bool failed = false;
    for_each_name(dir, prefix, [&](const std::string& name) {
        if (failed) {
            return;
        }
        if (ZQGetCountByFileName(name, fieldCount) < lowest_kept) {
            failed = ZQRemoveFile(dir + name) != 0;
        } else if (compress && name.find("tar") == std::string::npos) {
            pack(dir + name);
        }
    });
    return failed;
}

int64_t GetDirectorySize(const std::string& path) {
    return size_below(open_or_throw(path).get(), path);
}

bool compare(const std::string& a, const std::string& b, uint64_t fieldCount) {
    return ZQGetCountByFileName(a, fieldCount) < ZQGetCountByFileName(b, fieldCount);
}

int ZQRemoveFileWithCheckSize(const std::string& dir, int64_t /*newCount*/,
                              const std::string& prefix, uint64_t fieldCount) {
    if (is_aging_build()) {
        return 0;
    }
    const auto by_count = [fieldCount](const std::string& a, const std::string& b) {
        return compare(a, b, fieldCount);
    };
    // A set on purpose: of names with equal counts only the first one met is a candidate.
    std::set<std::string, decltype(by_count)> names(by_count);
    for_each_name(dir, prefix, [&](const std::string& name) { names.insert(name); });
    if (names.empty()) {
        return 0;
    }
    const int64_t total = GetDirectorySize(dir);
    if (total <= kMaxTotalBytes) {
        return 0;
    }
    for (const std::string& path : beyond_ceiling(dir, names, total)) {
        LOG(ERROR) << "maximum size exceed, remove it " << path;
        ZQRemoveFile(path);
    }
    return 0;
}
