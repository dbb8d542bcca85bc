// A program with one stack of a given kind, for the unwinder. It says "ready" with one byte on standard
// output.
//
// usage: stacks plain|deep|vdso|null|signal|leaf|spin|anonymous|loop
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

void recurse_deeply(void)
{
    recurse(5000);
}

int main(int argc, char** argv)
{
    static const struct {
        const char* name;
        void (*run)(void);
        int caught_signal;
    } kinds[] = {
        {"plain", outer, 0},
        {"deep", recurse_deeply, 0},
        {"vdso", ask_the_time, 0},
        {"anonymous", call_anonymous, 0},
        {"loop", loop_in_expression, 0},
        {"spin", call_spin, 0},
        {"null", call_null, SIGSEGV},
        {"leaf", call_leaf, SIGSEGV},
        {"signal", raise_signal, SIGUSR1},
    };
    for (size_t i = 0; argc > 1 && i < sizeof(kinds) / sizeof(kinds[0]); i++)
        if (strcmp(argv[1], kinds[i].name) == 0) {
            if (kinds[i].caught_signal != 0)
                catch_signal(kinds[i].caught_signal);
            kinds[i].run();
        }
    return 1;
}
