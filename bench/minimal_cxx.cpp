// The smallest C++ program of the footprint figures: it touches the C++ runtime (a vector of strings) and
// waits for a signal, linked as the daemon is linked. Its idle VmRSS is what a C++ program of the handset
// pays before it does anything of its own.
#include <unistd.h>

#include <string>
#include <vector>

int main(int argc, char **argv) {
    std::vector<std::string> args(argv, argv + argc);
    pause();
    return args.empty() ? 1 : 0;
}
