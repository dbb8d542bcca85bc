// A program with one stack of a given kind, for the unwinder. It says "ready" with one byte on standard
// output. usage: stacks plain|deep|vdso|null|signal|leaf|spin|anonymous|loop
#define _GNU_SOURCE
#include "stacks.h"

#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

static volatile int sink;
static void (*volatile no_function)(void);
static int* volatile no_place;
static volatile int spinning = 1;

static void say_ready(void)
{
    sink = (int)write(STDOUT_FILENO, "r", 1);
}

void wait_here(void)
{
    say_ready();
    for (;;)
        pause();
}

void inner(void)
{
    wait_here();
    sink++;
}

// Its name is a type to the C++ demangler.
void f(void)
{
    inner();
    sink++;
}

void outer(void)
{
    f();
    sink++;
}

void recurse(int depth)
{
    if (depth == 0)
        wait_here();
    else
        recurse(depth - 1);
    sink += depth;
}

void ask_the_time(void)
{
    struct timespec now;
    say_ready();
    for (;;)
        sink += clock_gettime(CLOCK_MONOTONIC, &now);
}

void handle_signal(int number)
{
    wait_here();
    sink = number;
}

static void catch_signal(int number)
{
    static char other_stack[65536];
    const stack_t stack = {.ss_sp = other_stack, .ss_size = sizeof(other_stack)};
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = handle_signal;
    action.sa_flags = SA_ONSTACK;
    sigaltstack(&stack, NULL);
    sigaction(number, &action, NULL);
}

void call_null(void)
{
    no_function();
    sink++;
}

void raise_signal(void)
{
    raise(SIGUSR1);
    sink++;
}

// The leaves have no frame: what leads to their caller is in a register, or on top of the stack.
void store_at(int* place)
{
    *place = 1;
}

void call_leaf(void)
{
    store_at(no_place);
    sink++;
}

void spin(void)
{
    while (spinning)
        sink++;
}

void call_spin(void)
{
    say_ready();
    spin();
    sink++;
}

// Runs code that no table describes, in memory that no file is behind. It keeps a frame record and calls
// back.
void call_anonymous(void)
{
    void* code = mmap(NULL, 4096, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (code == MAP_FAILED)
        abort();
    memcpy(code, call_argument_code, call_argument_code_bytes);
    __builtin___clear_cache(code, (char*)code + 4096);
    ((void (*)(void (*)(void)))code)(inner);
    sink++;
}

// From here on the frame's address is an expression that jumps back to its own start.
void loop_in_expression(void)
{
    __asm__ volatile(".cfi_escape 0x0f, 0x03, 0x2f, 0xfd, 0xff");
    inner();
    sink++;
}

int main(int argc, char** argv)
{
    const char* kind = argc > 1 ? argv[1] : "plain";
    if (strcmp(kind, "plain") == 0)
        outer();
    if (strcmp(kind, "deep") == 0)
        recurse(5000);
    if (strcmp(kind, "vdso") == 0)
        ask_the_time();
    if (strcmp(kind, "anonymous") == 0)
        call_anonymous();
    if (strcmp(kind, "loop") == 0)
        loop_in_expression();
    if (strcmp(kind, "null") == 0) {
        catch_signal(SIGSEGV);
        call_null();
    }
    if (strcmp(kind, "leaf") == 0) {
        catch_signal(SIGSEGV);
        call_leaf();
    }
    if (strcmp(kind, "spin") == 0)
        call_spin();
    if (strcmp(kind, "signal") == 0) {
        catch_signal(SIGUSR1);
        raise_signal();
    }
    return 1;
}
