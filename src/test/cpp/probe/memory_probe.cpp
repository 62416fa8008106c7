// Test-only natives of the probe variant of the agent that measure the agent's own heap inside a
// real JVM, so that a test can run the agent's features round after round and show that nothing
// it keeps grows.
//
// The process heap is no measure: the JVM allocates and frees on its own schedule (compilers, GC,
// class loading). The agent's C++ heap goes through operator new and delete, and this variant of
// the library carries the C++ runtime inside it, so replacing the operators here counts exactly
// the agent's blocks and nothing of the JVM's. Under AddressSanitizer the sanitizer's own
// operators must stay in place (they detect mismatched and double frees); there LeakSanitizer's
// reachability check answers the question instead, when the runtime preloaded into the JVM has it.
#include <jni.h>

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

// Present when the JVM runs with the sanitizer runtime preloaded; null otherwise.
extern "C" int __lsan_do_recoverable_leak_check() __attribute__((weak));
extern "C" void __sanitizer_set_report_path(const char* path) __attribute__((weak));

#define KV_MEMORY_PROBE(returns, name) \
    extern "C" JNIEXPORT returns JNICALL Java_com_brantide_kelvane_plugin_jvmti_api_MemoryProbe_##name

#if defined(__SANITIZE_ADDRESS__)
#define KV_COUNTS_ALLOCATIONS 0
#else
#define KV_COUNTS_ALLOCATIONS 1
#endif

#if KV_COUNTS_ALLOCATIONS
namespace {
// Counted by the usable size of each block, which malloc_usable_size gives back at the free: the
// figures return exactly to where they were once every block made since has been freed.
std::atomic<long long> s_live_bytes{0};
std::atomic<long long> s_live_blocks{0};
std::atomic<long long> s_allocations{0};

void* counted_allocation(std::size_t size) {
    void* block = std::malloc(size != 0 ? size : 1);
    if (block == nullptr) return nullptr;
    s_live_bytes.fetch_add(static_cast<long long>(malloc_usable_size(block)), std::memory_order_relaxed);
    s_live_blocks.fetch_add(1, std::memory_order_relaxed);
    s_allocations.fetch_add(1, std::memory_order_relaxed);
    return block;
}

void counted_free(void* block) {
    if (block == nullptr) return;
    s_live_bytes.fetch_sub(static_cast<long long>(malloc_usable_size(block)), std::memory_order_relaxed);
    s_live_blocks.fetch_sub(1, std::memory_order_relaxed);
    std::free(block);
}

// The library is built without exceptions: a failed plain new ends the process, as the standard
// operator would with nothing to catch its bad_alloc.
void* required_allocation(std::size_t size) {
    void* block = counted_allocation(size);
    if (block == nullptr) std::abort();
    return block;
}
}  // namespace

// The array and nothrow forms of the C++ runtime carried inside this library call these. Its
// nothrow new would call the plain one and catch, which aborts here: it gets its own.
void* operator new(std::size_t size) { return required_allocation(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return counted_allocation(size); }
void operator delete(void* block) noexcept { counted_free(block); }
void operator delete(void* block, std::size_t) noexcept { counted_free(block); }
#endif

// {live bytes, live blocks, allocations so far} of the agent's C++ heap, or null when this build
// cannot count them.
KV_MEMORY_PROBE(jlongArray, agentHeap)(JNIEnv* env, jclass) {
#if KV_COUNTS_ALLOCATIONS
    jlong figures[3] = {s_live_bytes.load(), s_live_blocks.load(), s_allocations.load()};
    jlongArray result = env->NewLongArray(3);
    if (result != nullptr) env->SetLongArrayRegion(result, 0, 3, figures);
    return result;
#else
    (void)env;
    return nullptr;
#endif
}

// Runs LeakSanitizer's check of every block no live pointer reaches, its report written to
// <path>.<pid>: 1 when it found some, 0 when none, -1 when the JVM runs without LeakSanitizer.
KV_MEMORY_PROBE(jint, leakCheck)(JNIEnv* env, jclass, jstring path) {
    if (__lsan_do_recoverable_leak_check == nullptr || __sanitizer_set_report_path == nullptr || path == nullptr) {
        return -1;
    }
    const char* chars = env->GetStringUTFChars(path, nullptr);
    if (chars == nullptr) return -1;
    __sanitizer_set_report_path(chars);
    env->ReleaseStringUTFChars(path, chars);
    return __lsan_do_recoverable_leak_check();
}
