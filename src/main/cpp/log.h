// Logging: one formatted line per call on standard error, the level tested before anything is formatted.
#pragma once

// Read once at load from the system property of the same name, then only read.
extern int KV_JVMTI_LOG_LEVEL;

enum LogThreshold { LOG_ERROR_LEVEL = 1, LOG_WARN_LEVEL = 2, LOG_DEBUG_LEVEL = 4, LOG_FINE_LEVEL = 5 };

// Writes one line (format plus newline), cut at 4096 bytes with a note of what was lost.
// It does not test the level: the KV_LOG macro does, before anything is formatted.
void log(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Seconds since the epoch, microsecond resolution.
double get_time();

// The level test stands first so that a disabled line costs one comparison; the prefix is
// assembled by the compiler, and the clock is read only for lines that are written.
#define KV_LOG(threshold, word, fmt, ...)                                                        \
    do {                                                                                         \
        if (KV_JVMTI_LOG_LEVEL >= (threshold))                                                   \
            log(word " Kelvane JVMTI: %lf %s:%d:%s() " fmt, get_time(), __FILE__, __LINE__,      \
                __func__, ##__VA_ARGS__);                                                        \
    } while (0)

#define LOG_ERROR(fmt, ...) KV_LOG(LOG_ERROR_LEVEL, "ERROR", fmt, ##__VA_ARGS__)
#define LOG_WARN(fmt, ...) KV_LOG(LOG_WARN_LEVEL, "WARN ", fmt, ##__VA_ARGS__)
#define LOG_DEBUG(fmt, ...) KV_LOG(LOG_DEBUG_LEVEL, "DEBUG", fmt, ##__VA_ARGS__)
#define LOG_FINE(fmt, ...) KV_LOG(LOG_FINE_LEVEL, "FINE ", fmt, ##__VA_ARGS__)
