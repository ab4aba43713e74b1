// bugreport for the simulated handset: prints a short state report in the sectioned layout of the
// handset's own report (a banner with the time, then "------ TITLE (source) ------" sections) built from
// what the handset really has: its uptime, memory figures, system properties and processes. A saved
// report can so be told apart from anything else by its first line. Options are ignored; exit status 0.
#include <dirent.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

static constexpr char kBanner[] = "========================================================";
static constexpr char kPropDir[] = "/dev/__properties__";

static void section(const char *title, const char *source) {
    printf("------ %s (%s) ------\n", title, source);
}

// Copies a text file to standard output, at most max_lines lines of it.
static void print_file(const char *path, int max_lines) {
    FILE *fp = fopen(path, "re");
    if (fp == nullptr) {
        printf("*** %s: not readable\n", path);
        return;
    }
    char line[512];
    for (int n = 0; n < max_lines && fgets(line, sizeof(line), fp) != nullptr; ++n) fputs(line, stdout);
    fclose(fp);
}

// Every property of the handset's property area as "[name]: [value]".
static void print_properties(void) {
    DIR *dir = opendir(kPropDir);
    if (dir == nullptr) return;
    while (struct dirent *d = readdir(dir)) {
        if (d->d_name[0] == '.') continue;
        char path[512];
        snprintf(path, sizeof(path), "%s/%s", kPropDir, d->d_name);
        char value[128] = "";
        FILE *fp = fopen(path, "re");
        if (fp == nullptr) continue;
        size_t len = fread(value, 1, sizeof(value) - 1, fp);
        value[len] = '\0';
        fclose(fp);
        printf("[%s]: [%s]\n", d->d_name, value);
    }
    closedir(dir);
}

// Every process of the handset as "pid command line".
static void print_processes(void) {
    DIR *dir = opendir("/proc");
    if (dir == nullptr) return;
    while (struct dirent *d = readdir(dir)) {
        if (d->d_name[0] < '1' || d->d_name[0] > '9') continue;
        char path[300];
        snprintf(path, sizeof(path), "/proc/%s/cmdline", d->d_name);
        FILE *fp = fopen(path, "re");
        if (fp == nullptr) continue;
        char cmdline[256];
        size_t len = fread(cmdline, 1, sizeof(cmdline) - 1, fp);
        fclose(fp);
        for (size_t i = 0; i < len; ++i)
            if (cmdline[i] == '\0') cmdline[i] = ' ';
        cmdline[len] = '\0';
        printf("%5s %s\n", d->d_name, cmdline);
    }
    closedir(dir);
}

int main() {
    time_t now = time(nullptr);
    struct tm local;
    memset(&local, 0, sizeof(local));
    localtime_r(&now, &local);
    char stamp[64];
    strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", &local);

    printf("%s\n== dumpstate: %s\n%s\n\n", kBanner, stamp, kBanner);
    section("UPTIME", "/proc/uptime");
    print_file("/proc/uptime", 1);
    section("MEMORY INFO", "/proc/meminfo");
    print_file("/proc/meminfo", 8);
    section("SYSTEM PROPERTIES", "getprop");
    print_properties();
    section("PROCESSES", "/proc/*/cmdline");
    print_processes();
    printf("\n== end of report\n");
    return 0;
}
