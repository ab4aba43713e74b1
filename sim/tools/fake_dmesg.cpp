// dmesg for the simulated handset: prints a fixed, short kernel ring in the kernel's own line format,
// so a snapshot of it can be told apart from anything else by its content. Options are ignored.
#include <stdio.h>

static const char *const kRing[] = {
    "<6>[    0.000000] Booting Linux on physical CPU 0x0",
    "<5>[    0.000000] Linux version 3.10.73-zv (builder@zv-handset) (gcc version 4.9) #1 SMP PREEMPT",
    "<6>[    0.120000] zv-handset: simulated kernel ring",
    "<6>[    1.500000] init: starting service 'zv-qel-sa'...",
    "<6>[    2.000000] zv-handset: end of ring",
};

int main() {
    for (const char *line : kRing) printf("%s\n", line);
    return 0;
}
