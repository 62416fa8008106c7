// Reading a method's bytecodes, as GetBytecodes gives them (pure: no VM involved): how long an
// instruction is, and what may follow it in the same frame.
#pragma once

#include <cstddef>
#include <cstdint>

// The length in bytes of the instruction at `at`, or 0 when it cannot be read there (past the end,
// cut short, an opcode the class file format does not define).
size_t instruction_length(const uint8_t* code, size_t length, size_t at);

// What control does after the instruction at `at`, for telling the frames of single steps apart.
enum class Flow {
    NEXT,     // goes on at the next instruction or a branch target of this method
    INVOKE,   // calls a method, then goes on at the next instruction
    RETURN,   // returns from the method
    UNKNOWN,  // anything else: a throw, ret, an unreadable instruction
};
Flow flow_at(const uint8_t* code, size_t length, size_t at);

// Whether the instruction at `to` can be the next one executed in the same frame after the one
// at `at`: the instruction that follows it, or one of its branch targets. False for instructions
// whose successors cannot be known (ret, athrow) or read.
bool may_follow(const uint8_t* code, size_t length, size_t at, size_t to);

// Where the frame goes on after Java code that the instruction at `at` ran returns normally: the
// next instruction, for a call and for any instruction that can run a class initialiser or a
// class loader (new, getstatic, ldc and the like) without branching. 0 when it cannot be known:
// branches, returns (which may register a finaliser and never go on), throws, unreadable code.
size_t resume_after_call(const uint8_t* code, size_t length, size_t at);
