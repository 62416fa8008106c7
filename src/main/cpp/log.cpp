#include "log.h"

#include <cstdarg>
#include <cstdio>
#include <sys/time.h>

int KV_JVMTI_LOG_LEVEL = 3;

namespace {
constexpr int LOG_BUFFER_SIZE = 4096;
}  // namespace

void log(const char* format, ...) {
    char buffer[LOG_BUFFER_SIZE];
    va_list args;
    va_start(args, format);
    int length = vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    // One fprintf per line: the stream's own lock keeps lines of different threads apart.
    if (length > LOG_BUFFER_SIZE) {
        fprintf(stderr, "%s... Limit hit %d characters missing\n", buffer, length - LOG_BUFFER_SIZE);
    } else {
        fprintf(stderr, "%s\n", buffer);
    }
    fflush(stderr);
}

double get_time() {
    struct timeval now;
    gettimeofday(&now, nullptr);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_usec) / 1000000.0;
}
