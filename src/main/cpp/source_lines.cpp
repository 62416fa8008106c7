#include "source_lines.h"

#include "global.h"
#include "line_table.h"
#include "nothrow_array.h"
#include "resources.h"
#include "smap.h"

#include <atomic>
#include <cstring>
#include <memory>
#include <new>

namespace {
std::atomic<unsigned long> g_class_generation{0};

struct MethodLines {
    jmethodID method = nullptr;
    unsigned long generation = 0;
    std::unique_ptr<LineIndex> index;
};

// Enough for a step that goes through a few dozen methods to read each line table once.
constexpr int METHOD_LINES_KEPT = 32;
thread_local MethodLines t_method_lines[METHOD_LINES_KEPT];
thread_local int t_next_method_lines = 0;
thread_local const MethodLines* t_last_lines = nullptr;

// The source maps read last, by their text: the methods of one class share one, read once.
struct ParsedMap {
    NothrowArray<char> text;
    std::unique_ptr<SourceMap> map;
};
constexpr int SOURCE_MAPS_KEPT = 8;
thread_local ParsedMap t_source_maps[SOURCE_MAPS_KEPT];
thread_local int t_next_source_map = 0;

// The parsed map of an SMAP text (none: every line maps to itself), or null when memory ran out.
const SourceMap* source_map_of(const char* smap) {
    static const SourceMap none(nullptr);
    if (smap == nullptr) return &none;
    size_t length = std::strlen(smap) + 1;
    for (const ParsedMap& kept : t_source_maps) {
        if (kept.map && kept.text.size() == length && std::memcmp(kept.text.data(), smap, length) == 0) {
            return kept.map.get();
        }
    }
    ParsedMap& slot = t_source_maps[t_next_source_map];
    t_next_source_map = (t_next_source_map + 1) % SOURCE_MAPS_KEPT;
    slot.map.reset(new (std::nothrow) SourceMap(smap));
    if (!slot.map || !slot.map->complete() || !slot.text.resize_zeroed(length)) {
        slot.map.reset();
        return nullptr;
    }
    std::memcpy(slot.text.data(), smap, length);
    return slot.map.get();
}

std::unique_ptr<LineIndex> index_lines(JNIEnv* env, jmethodID method) {
    jint count = 0;
    JvmtiBuffer<jvmtiLineNumberEntry> table;
    if (g_jvmti->GetLineNumberTable(method, &count, table.out()) != JVMTI_ERROR_NONE) count = 0;
    JvmtiBuffer<char> smap;
    LocalRef<jclass> declaring(env);
    if (g_jvmti->GetMethodDeclaringClass(method, declaring.out()) == JVMTI_ERROR_NONE) {
        g_jvmti->GetSourceDebugExtension(declaring.get(), smap.out());
    }
    const SourceMap* source_map = source_map_of(smap.get());
    NothrowArray<jint> mapped;
    if (source_map == nullptr || !mapped.resize_zeroed(static_cast<size_t>(count))) return nullptr;
    for (jint i = 0; i < count; i++) mapped[static_cast<size_t>(i)] = source_map->map(table[static_cast<size_t>(i)].line_number);
    std::unique_ptr<LineIndex> index(new (std::nothrow) LineIndex(table.get(), count, mapped.data(), source_map->map(-1)));
    if (index && !index->complete()) index.reset();
    return index;
}
}  // namespace

jint source_line(JNIEnv* env, jmethodID method, jlocation location) {
    unsigned long generation = g_class_generation.load(std::memory_order_acquire);
    const MethodLines* last = t_last_lines;
    if (last != nullptr && last->method == method && last->generation == generation && last->index) {
        return last->index->line_at(location);
    }
    for (const MethodLines& kept : t_method_lines) {
        if (kept.method == method && kept.generation == generation && kept.index) {
            t_last_lines = &kept;
            return kept.index->line_at(location);
        }
    }
    std::unique_ptr<LineIndex> index = index_lines(env, method);
    if (!index) return -1;  // out of memory: no stop here
    jint line = index->line_at(location);
    MethodLines& slot = t_method_lines[t_next_method_lines];
    t_next_method_lines = (t_next_method_lines + 1) % METHOD_LINES_KEPT;
    slot.method = method;
    slot.generation = generation;
    slot.index = std::move(index);
    t_last_lines = &slot;
    return line;
}

void forget_source_lines() { g_class_generation.fetch_add(1, std::memory_order_acq_rel); }

unsigned long class_generation() { return g_class_generation.load(std::memory_order_acquire); }
