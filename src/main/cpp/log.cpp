#include "log.h"

#include "global.h"
#include "resources.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <execinfo.h>
#include <sys/time.h>
#include <vector>

int KV_JVMTI_LOG_LEVEL = 3;

namespace {
constexpr int LOG_BUFFER_SIZE = 4096;
constexpr int MAX_BACKTRACE_FRAMES = 64;
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

Timer::Timer(const std::string& name) : m_name(name), m_start(clock()) {
    log("TIMER Kelvane JVMTI : > '%s'", m_name.c_str());
}

Timer::~Timer() {
    float seconds = static_cast<float>(clock() - m_start) / 1000000.0f;
    log("TIMER Kelvane JVMTI : < '%s' %f", m_name.c_str(), static_cast<double>(seconds));
}

void show_backtrace() {
    void* addresses[MAX_BACKTRACE_FRAMES];
    int count = backtrace(addresses, MAX_BACKTRACE_FRAMES);
    char** symbols = backtrace_symbols(addresses, count);
    printf("Call trace:\n");
    for (int i = 0; i < count; i++) {
        printf("\t[<%p>] %s\n", addresses[i], symbols != nullptr ? symbols[i] : "?");
    }
    free(symbols);
    fflush(stdout);
}

namespace {
void print_frame(JNIEnv* env, const jvmtiFrameInfo& frame) {
    JvmtiBuffer<char> name;
    if (g_jvmti->GetMethodName(frame.method, name.out(), nullptr, nullptr) != JVMTI_ERROR_NONE) return;
    LocalRef<jclass> declaring(env);
    if (g_jvmti->GetMethodDeclaringClass(frame.method, declaring.out()) != JVMTI_ERROR_NONE) return;
    JvmtiBuffer<char> signature;
    if (g_jvmti->GetClassSignature(declaring.get(), signature.out(), nullptr) != JVMTI_ERROR_NONE) return;
    printf("\t%s.%s\n", signature.get(), name.get());
}
}  // namespace

void show_stacktrace(JNIEnv* env, jthread thread) {
    jint count = 0;
    jvmtiError error = g_jvmti->GetFrameCount(thread, &count);
    printf("Java StackTrace:\n");
    if (error != JVMTI_ERROR_NONE || count <= 0) {
        fflush(stdout);
        return;
    }
    // Sized by the stack height, so it lives on the heap, never on the native stack.
    std::vector<jvmtiFrameInfo> frames(static_cast<size_t>(count));
    jint returned = 0;
    if (g_jvmti->GetStackTrace(thread, 0, count, frames.data(), &returned) == JVMTI_ERROR_NONE) {
        for (jint i = 0; i < returned; i++) print_frame(env, frames[static_cast<size_t>(i)]);
    }
    fflush(stdout);
}
