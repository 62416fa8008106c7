#include "bytecode.h"

namespace {
enum Opcode : uint8_t {
    IFEQ = 0x99,
    JSR = 0xa8,
    RET = 0xa9,
    GOTO = 0xa7,
    TABLESWITCH = 0xaa,
    LOOKUPSWITCH = 0xab,
    IRETURN = 0xac,
    RETURN_VOID = 0xb1,
    INVOKEVIRTUAL = 0xb6,
    INVOKEINTERFACE = 0xb9,
    INVOKEDYNAMIC = 0xba,
    ATHROW = 0xbf,
    WIDE = 0xc4,
    IINC = 0x84,
    IFNULL = 0xc6,
    IFNONNULL = 0xc7,
    GOTO_W = 0xc8,
    JSR_W = 0xc9,
};

// The fixed lengths of the opcodes the class file format defines; 0 for the variable-length ones
// (the switches, wide) and for undefined opcodes.
constexpr uint8_t fixed_length(uint8_t op) {
    if (op <= 0x0f) return 1;                      // nop, constants
    if (op == 0x10 || op == 0x12) return 2;        // bipush, ldc
    if (op == 0x11 || op == 0x13 || op == 0x14) return 3;  // sipush, ldc_w, ldc2_w
    if (op <= 0x19) return 2;                      // loads with an index
    if (op <= 0x35) return 1;                      // loads without, array loads
    if (op <= 0x3a) return 2;                      // stores with an index
    if (op <= 0x83) return 1;                      // stores without, stack and arithmetic
    if (op == IINC) return 3;
    if (op <= 0x98) return 1;                      // conversions, comparisons
    if (op <= JSR) return 3;                       // branches
    if (op == RET) return 2;
    if (op <= LOOKUPSWITCH) return 0;
    if (op <= RETURN_VOID) return 1;
    if (op <= 0xb8) return 3;                      // field access, invokevirtual/special/static
    if (op == INVOKEINTERFACE || op == INVOKEDYNAMIC) return 5;
    if (op == 0xbb || op == 0xbd || op == 0xc0 || op == 0xc1) return 3;  // new, anewarray, checkcast, instanceof
    if (op == 0xbc) return 2;                      // newarray
    if (op == 0xbe || op == ATHROW || op == 0xc2 || op == 0xc3) return 1;
    if (op == 0xc5) return 4;                      // multianewarray
    if (op == IFNULL || op == IFNONNULL) return 3;
    if (op == GOTO_W || op == JSR_W) return 5;
    return 0;
}

bool read_s32(const uint8_t* code, size_t length, size_t at, int64_t* value) {
    if (at + 4 > length) return false;
    uint32_t bits = static_cast<uint32_t>(code[at]) << 24 | static_cast<uint32_t>(code[at + 1]) << 16 |
                    static_cast<uint32_t>(code[at + 2]) << 8 | code[at + 3];
    *value = static_cast<int32_t>(bits);
    return true;
}

int64_t s16(const uint8_t* code, size_t at) { return static_cast<int16_t>(code[at] << 8 | code[at + 1]); }

// The first byte after a switch opcode's padding to a multiple of four.
size_t switch_operands(size_t at) { return (at + 4) & ~static_cast<size_t>(3); }

size_t switch_length(const uint8_t* code, size_t length, size_t at) {
    size_t operands = switch_operands(at);
    int64_t low = 0;
    int64_t high = 0;
    if (code[at] == TABLESWITCH) {
        if (!read_s32(code, length, operands + 4, &low) || !read_s32(code, length, operands + 8, &high) || high < low) {
            return 0;
        }
        size_t end = operands + 12 + 4 * static_cast<size_t>(high - low + 1);
        return end <= length ? end - at : 0;
    }
    int64_t pairs = 0;
    if (!read_s32(code, length, operands + 4, &pairs) || pairs < 0) return 0;
    size_t end = operands + 8 + 8 * static_cast<size_t>(pairs);
    return end <= length ? end - at : 0;
}

bool is_target(size_t at, int64_t offset, size_t to) { return static_cast<int64_t>(at) + offset == static_cast<int64_t>(to); }

// Whether `to` is one of the targets of the switch at `at` (whose length has been checked): its
// default, then the offsets of a table (four bytes each) or of a lookup's pairs (after each match).
bool switch_targets(const uint8_t* code, size_t length, size_t at, size_t to) {
    size_t operands = switch_operands(at);
    int64_t offset = 0;
    if (read_s32(code, length, operands, &offset) && is_target(at, offset, to)) return true;
    size_t stride = code[at] == TABLESWITCH ? 4 : 8;
    size_t end = at + switch_length(code, length, at);
    for (size_t entry = operands + 12; entry + 4 <= end; entry += stride) {
        if (read_s32(code, length, entry, &offset) && is_target(at, offset, to)) return true;
    }
    return false;
}

// The length of a wide instruction: iinc takes two more bytes than the loads, stores and ret.
size_t wide_length(const uint8_t* code, size_t length, size_t at) {
    if (at + 1 >= length) return 0;
    uint8_t op = code[at + 1];
    if (op == IINC) return 6;
    bool widened = (op >= 0x15 && op <= 0x19) || (op >= 0x36 && op <= 0x3a) || op == RET;
    return widened ? 4 : 0;
}
}  // namespace

size_t instruction_length(const uint8_t* code, size_t length, size_t at) {
    if (code == nullptr || at >= length) return 0;
    uint8_t op = code[at];
    size_t fixed = fixed_length(op);
    if (op == TABLESWITCH || op == LOOKUPSWITCH) return switch_length(code, length, at);
    if (op == WIDE) fixed = wide_length(code, length, at);
    return fixed != 0 && at + fixed <= length ? fixed : 0;
}

Flow flow_at(const uint8_t* code, size_t length, size_t at) {
    if (instruction_length(code, length, at) == 0) return Flow::UNKNOWN;
    uint8_t op = code[at];
    if (op >= INVOKEVIRTUAL && op <= INVOKEDYNAMIC) return Flow::INVOKE;
    if (op >= IRETURN && op <= RETURN_VOID) return Flow::RETURN;
    if (op == ATHROW || op == RET || (op == WIDE && code[at + 1] == RET)) return Flow::UNKNOWN;
    return Flow::NEXT;
}

bool may_follow(const uint8_t* code, size_t length, size_t at, size_t to) {
    Flow flow = flow_at(code, length, at);
    if (flow != Flow::NEXT && flow != Flow::INVOKE) return false;
    uint8_t op = code[at];
    size_t next = at + instruction_length(code, length, at);
    if ((op >= IFEQ && op <= JSR) || op == IFNULL || op == IFNONNULL) {
        bool jumps_always = op == GOTO || op == JSR;
        return is_target(at, s16(code, at + 1), to) || (!jumps_always && to == next);
    }
    if (op == GOTO_W || op == JSR_W) {
        int64_t offset = 0;
        return read_s32(code, length, at + 1, &offset) && is_target(at, offset, to);
    }
    if (op == TABLESWITCH || op == LOOKUPSWITCH) return switch_targets(code, length, at, to);
    return to == next;
}

size_t resume_after_call(const uint8_t* code, size_t length, size_t at) {
    Flow flow = flow_at(code, length, at);
    if (flow != Flow::NEXT && flow != Flow::INVOKE) return 0;
    uint8_t op = code[at];
    bool branches = (op >= IFEQ && op <= LOOKUPSWITCH) || op == IFNULL || op == IFNONNULL || op == GOTO_W || op == JSR_W;
    return branches ? 0 : at + instruction_length(code, length, at);
}
