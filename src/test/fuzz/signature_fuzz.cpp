// Feeds arbitrary method signatures to the signature readers. The VM hands the agent the
// descriptor of every method whose locals or arguments are listed, and class files from any
// compiler (or a hand-written one the VM accepted) reach it: whatever the text, the readers must
// stay inside it, end, and agree with each other. The first byte picks the argument number and
// the slot of the first argument; the rest is the signature.
#include "signature.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace {
void require(bool condition) {
    if (!condition) __builtin_trap();
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const jint n = static_cast<int8_t>(data[0]);
    const jint first_slot = data[0] & 1;
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    const char* signature = text.c_str();

    std::string nth = get_arg_sig(signature, n);
    require(nth.size() <= text.size());

    std::vector<ArgumentSlot> slots = argument_slots(signature, first_slot);
    jint expected_slot = first_slot;
    for (size_t k = 0; k < slots.size(); k++) {
        // Every argument found one by one is the one the slot list holds, at the slot that the
        // wide types before it have pushed it to.
        require(!slots[k].type.empty());
        require(slots[k].type == get_arg_sig(signature, static_cast<jint>(k)));
        require(slots[k].slot == expected_slot);
        expected_slot += slots[k].type == "J" || slots[k].type == "D" ? 2 : 1;
    }
    // The list ends where the one-by-one reading finds nothing more.
    require(get_arg_sig(signature, static_cast<jint>(slots.size())).empty());
    if (n >= 0 && static_cast<size_t>(n) < slots.size()) require(nth == slots[static_cast<size_t>(n)].type);
    return 0;
}
