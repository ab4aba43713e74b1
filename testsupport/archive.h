// Helpers of the log archive's tests, unit and end-to-end alike: the save folder name for a time, folder
// listings, files with their folders, filling a file system, and the flag lines the handler argument check
// traces. Plain C++ and POSIX; the bad-argument calls themselves are handler.h's.
#ifndef ZV_TESTSUPPORT_ARCHIVE_H
#define ZV_TESTSUPPORT_ARCHIVE_H

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "harness.h"

namespace archive_test {

constexpr char kSaveRoot[] = "/storage/real_sd/logs";

// Number of places where needle occurs in text, not overlapping.
inline size_t count_in(const std::string &text, const std::string &needle) {
    size_t n = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos;
         pos = text.find(needle, pos + needle.size()))
        ++n;
    return n;
}

// The save folder for a calendar time, named from the local time as the save names it.
inline std::string save_folder_for(time_t t) {
    struct tm local;
    localtime_r(&t, &local);
    char name[64];
    strftime(name, sizeof(name), "%Y_%m_%d_%H_%M_%S", &local);
    return std::string(kSaveRoot) + "/" + name;
}

// Makes the save folders of the seconds from first on, count of them, as a save makes its own (mode
// 0777, empty, the card's save root first). Two saves within one second share the folder because the
// second finds it there; whether two real saves fit into one second depends on how loaded the machine
// is, so tests make the folder that the second save will find instead. False when one cannot be made.
inline bool make_save_folders(time_t first, int count) {
    mkdir("/storage/real_sd", 0777);
    mkdir(kSaveRoot, 0777);
    for (time_t t = first; t < first + count; ++t) {
        if (mkdir(save_folder_for(t).c_str(), 0777) != 0 && errno != EEXIST) return false;
    }
    return true;
}

// Whether folder is the save folder of some second from first to last.
inline bool is_save_folder_between(const std::string &folder, time_t first, time_t last) {
    for (time_t t = first; t <= last; ++t)
        if (folder == save_folder_for(t)) return true;
    return false;
}

// Entries of a folder other than "." and "..", sorted.
inline std::vector<std::string> dir_entries(const std::string &path) {
    std::vector<std::string> out;
    DIR *dir = opendir(path.c_str());
    if (dir == nullptr) return out;
    while (dirent *d = readdir(dir)) {
        std::string name = d->d_name;
        if (name != "." && name != "..") out.push_back(name);
    }
    closedir(dir);
    std::sort(out.begin(), out.end());
    return out;
}

// The one save folder on the card, or "" when there is none or more than one.
inline std::string only_save_folder() {
    std::vector<std::string> folders = dir_entries(kSaveRoot);
    return folders.size() == 1 ? std::string(kSaveRoot) + "/" + folders[0] : "";
}

// Regular files directly in dir whose content holds text, sorted.
inline std::vector<std::string> files_containing(const std::string &dir, const std::string &text) {
    std::vector<std::string> out;
    for (const std::string &name : dir_entries(dir)) {
        std::string path = dir + "/" + name;
        struct stat st;
        if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
        std::ifstream in(path, std::ios::binary);
        std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        if (content.find(text) != std::string::npos) out.push_back(path);
    }
    return out;
}

// Writes a file, making every missing folder above it first.
inline void put_file(const std::string &path, const std::string &text) {
    for (size_t pos = path.find('/', 1); pos != std::string::npos; pos = path.find('/', pos + 1))
        mkdir(path.substr(0, pos).c_str(), 0755);
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// Fills the file system of dir with the file dir/filler until not one more byte fits; true when it is full.
inline bool fill_file_system(const std::string &dir) {
    std::string filler = dir + "/filler";
    int fd = open(filler.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    static char block[65536];
    while (write(fd, block, sizeof(block)) > 0) {
    }
    while (write(fd, block, 1) > 0) {
    }
    close(fd);
    struct statfs st;
    return statfs(dir.c_str(), &st) == 0 && st.f_bavail == 0;
}

// Grows the filler file until only free_kb KB of /data are left for ordinary users; true when done.
inline bool leave_data_available_kb(uint64_t free_kb) {
    return zvtest::leave_data_available(free_kb * 1024);
}

// The flag lines the argument check traces for those five calls, in the same order.
inline std::vector<std::string> bad_argument_traces() {
    return {"1, 0, 0, 0, 0", "0, 1, 1, 0, 0", "0, 0, 1, 0, 0", "0, 0, 0, 1, 0", "0, 0, 0, 0, 1"};
}

}  // namespace archive_test

#endif  // ZV_TESTSUPPORT_ARCHIVE_H
