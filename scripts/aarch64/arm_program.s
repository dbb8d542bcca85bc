@ A 32-bit ARM program for the tests: says that it runs by an empty line, as every target does, and sleeps until it is
@ killed. System call numbers: arch/arm/tools/syscall.tbl of the kernel.
    .text
    .global _start
_start:
    mov r7, #4      @ write
    mov r0, #1
    ldr r1, =line
    mov r2, #1
    svc #0
sleep:
    mov r7, #29     @ pause
    svc #0
    b sleep

    .section .rodata
line:
    .ascii "\n"
