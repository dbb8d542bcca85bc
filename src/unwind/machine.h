// What unwinding must know of the machine: registers, the code around calls, and the two unwind rules that
// need no tables. machine_<processor>.cpp holds each machine's answers; CMake picks one. Nothing here keeps
// state.
#pragma once

#include <libunwind-ptrace.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <span>

#include "machine_registers.h"

namespace machine
{

// Bytes of call-frame instructions for a CIE with code alignment 1, data alignment -8 and return_column.
extern const std::span<const uint8_t> frame_record_rules;  // the caller's registers are in the frame record
extern const std::span<const uint8_t> call_site_rules;     // nothing pushed since the call
extern const uint8_t return_column;
extern const uint64_t table_columns;  // those that libunwind has room for

extern const int register_count;  // of machine_registers::word
extern const unw_regnum_t stack_pointer;
extern const unw_regnum_t frame_pointer;
extern const unw_regnum_t link_register;  // -1 where a call puts the return address on the stack
extern const size_t red_zone;             // bytes below the stack pointer that a leaf function may use
extern const size_t frame_record_align;

// Sorts a set, and asks what else is needed of its thread, which the calling thread has stopped. False for a
// set that is not that of a 64-bit thread.
bool read_registers(pid_t tid, const register_set& set, machine_registers& registers);

// True for the call-frame opcode that toggles the signature of the return address: it changes no location.
bool toggles_signature(uint8_t opcode);

// True when the code at a pc shows that its function has pushed nothing, or has popped it all: the entry, a
// linkage stub, the return.
constexpr size_t edge_code_bytes = 8;
bool at_function_edge(std::span<const uint8_t, edge_code_bytes> code);

// True when the bytes that end at a return address are a call.
constexpr size_t call_code_bytes = 8;
bool follows_call(std::span<const uint8_t, call_code_bytes> code);

}  // namespace machine
