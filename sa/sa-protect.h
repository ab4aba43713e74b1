// The ballast rule: when /data is nearly full at start-up, give up one file of /data/.protect/.
#ifndef ZV_SA_SA_PROTECT_H
#define ZV_SA_SA_PROTECT_H

#include <stdint.h>

#define SA_PROTECT_PARTITION "/data"
#define SA_PROTECT_DIR "/data/.protect/"
// Free space below which a ballast file is given up: 3 MiB.
#define SA_PROTECT_LOW_SIZE 3145728

// True when bsize * bavail bytes are less than SA_PROTECT_LOW_SIZE.
bool protect_data_is_low(uint64_t bsize, uint64_t bavail);
// Deletes the alphabetically last file of /data/.protect/ when /data has less than 3 MiB free;
// every failure is traced and start-up goes on.
void protect_data(void);

#endif  // ZV_SA_SA_PROTECT_H
