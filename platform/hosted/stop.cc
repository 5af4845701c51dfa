// SPDX-License-Identifier: MIT
//
// Stopping all other threads, for the debugger.
//
// Whoever has stopped the others goes on using the heap, stdio and the kernel's tables, so a thread that
// stood still with a lock of these would hang it. Hence a thread stops only where it holds none:
//
// - Outside of critical sections, because the kernel's own locks are held inside of these only; and at thread
//   level, because an interrupt may have met anything.
// - At an instruction of the program or of a module. Locks of the C library and of other libraries are held
//   only while such a library runs. Their functions call back with no lock of the heap or of stdio.
// - Or in a wait of the kernel's own; and in a system call that waits for input or for time, where the one
//   lock that a library may hold is that of the stream that is read. These are the places where threads stay
//   for long.
//
// A thread that is met elsewhere goes on and is asked again a moment later, until patience runs out. Then it
// is left running, which does no harm: it gives its locks back. So nothing costs anything while nobody stops.
//
//              asks, with a signal        its handler
//     kGoes ----------------------> kAsked ---------> kStands     the thread sleeps in the handler
//       ^                             |                  |
//       +---- not in a section -------+                  |
//       +---- not at this instruction, or: go on --------+        by the one that stops
//
// Every change is a compare-exchange or a store under the list's lock. What a thread wrote before it stands
// still is seen by the one that stops: kStands is stored with release order and loaded with acquire order,
// and so is kGoes on the way back.

#include <errno.h>
#include <link.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>

#include "platform/hosted/internal.h"

namespace {

enum : uint32_t { kGoes, kAsked, kStands };

constexpr int64_t kAskEvery = 200;  // usec
constexpr int32_t kMostImages = 128;

#if defined(__x86_64__)
constexpr int kInstructionRegister = REG_RIP, kResultRegister = REG_RAX;
#else
constexpr int kInstructionRegister = REG_EIP, kResultRegister = REG_EAX;
#endif

struct code_range {
    const void *inside;  // what it was looked for by
    uintptr_t start, end;
};

hosted::lock gTurn;  // held by the thread that has stopped the others
// Atomic: its id, 0 for none. Set before it asks the first time, and cleared before it lets all go: both take
// the list's lock, as does a thread that joins the list. So that thread is either met there or finds what is
// set here.
int32_t gStopper;
// Under gTurn: the code of the program and of the modules.
code_range gImages[kMostImages];
int32_t gImageCount;

pthread_once_t gHandlerOnce = PTHREAD_ONCE_INIT;

thread_local volatile bool tWaiting;

// Whether the context stands at a system call that waits for input, or behind one that the signal has cut
// short, as it does those that wait for time. Who waits for a lock or to write stands at another.
bool waits_outside(const ucontext_t *context) {
    auto is_call = [](uintptr_t address) {
        const auto *code = reinterpret_cast<const unsigned char *>(address);
        return (code[0] == 0x0f && code[1] == 0x05) || (code[0] == 0xcd && code[1] == 0x80);
    };
    auto at = static_cast<uintptr_t>(context->uc_mcontext.gregs[kInstructionRegister]);
    auto result = static_cast<long>(context->uc_mcontext.gregs[kResultRegister]);
    // A call that the host will begin again: its number stands where the result will.
    if (is_call(at)) return result == SYS_read || result == SYS_recvfrom || result == SYS_recvmsg;
    return result == -EINTR && is_call(at - 2);
}

bool change(hosted::stop_place *place, uint32_t from, uint32_t to) {
    return __atomic_compare_exchange_n(&place->word, &from, to, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED);
}

void on_stop(int, siginfo_t *, void *context) {
    int error = errno;
    hosted::note_interrupt();  // it ends no wait of the kernel
    hosted::stop_place *place = hosted::own_stop_place();
    if (!hosted::at_open_thread_level()) {
        change(place, kAsked, kGoes);
    } else {
        auto *found = static_cast<const ucontext_t *>(context);
        place->at = static_cast<uintptr_t>(found->uc_mcontext.gregs[kInstructionRegister]);
        place->waits = tWaiting || waits_outside(found);
        // Interrupts that come meanwhile run behind the stop. Other signals run at once: the program can be
        // ended.
        hosted::section masked;
        if (change(place, kAsked, kStands)) hosted::stand_still(place);
    }
    errno = error;
}

void install_handler() {
    struct sigaction action = {};
    action.sa_sigaction = on_stop;
    // Under the thread sanitizer a sleeping thread gets its signals only when the system call comes back.
    action.sa_flags = SA_SIGINFO | (hosted::kThreadSanitizer ? 0 : SA_RESTART);
    sigemptyset(&action.sa_mask);
    hosted::must(sigaction(hosted::stop_signal(), &action, nullptr) == 0 ? 0 : errno,
                 "installing the stop signal");
}

void add_image(void *, const void *code) {
    if (gImageCount < kMostImages) gImages[gImageCount++] = {code, 0, 0};
}

int measure_images(dl_phdr_info *info, size_t, void *) {
    for (int i = 0; i < info->dlpi_phnum; i++) {
        const auto *segment = &info->dlpi_phdr[i];
        uintptr_t start = info->dlpi_addr + segment->p_vaddr, end = start + segment->p_memsz;
        if (segment->p_type != PT_LOAD) continue;
        for (code_range *image = gImages; image < gImages + gImageCount; image++) {
            auto inside = reinterpret_cast<uintptr_t>(image->inside);
            if (inside >= start && inside < end) image->start = start, image->end = end;
        }
    }
    return 0;
}

// Whether a thread that stands still may do so there. The thread sanitizer calls handlers behind a function
// of a library or in one that blocks, never in between.
bool is_fit(const hosted::stop_place *place) {
    return hosted::kThreadSanitizer || place->waits ||
           std::any_of(gImages, gImages + gImageCount, [=](const code_range &image) {
               return place->at >= image.start && place->at < image.end;
           });
}

void let_go(hosted::stop_place *place) {
    __atomic_store_n(&place->word, kGoes, __ATOMIC_RELEASE);
    hosted::futex_wake(&place->word, 1);
}

// One round of asking, or the last one, which takes back what was asked for. Counts the threads that go on.
struct asking {
    bool last;
    int32_t running;
};

void ask(void *context, pid_t host_id, hosted::stop_place *place) {
    auto *round = static_cast<asking *>(context);
    if (round->last) change(place, kAsked, kGoes);
    uint32_t word = __atomic_load_n(&place->word, __ATOMIC_ACQUIRE);
    if (word == kStands) {
        if (is_fit(place)) return;
        let_go(place);
    }
    round->running++;
    if (round->last) return;
    // One signal at a time; but one that comes just before a sleep is not looked at by the thread sanitizer
    // before the sleep ends, which the next one sees to.
    bool asks = change(place, kGoes, kAsked);
    if (!asks && !hosted::kThreadSanitizer) return;
    // The thread can't end before it has left the list. An error means that the host's queue is full.
    if (syscall(SYS_tgkill, getpid(), host_id, hosted::stop_signal()) != 0) change(place, kAsked, kGoes);
}

int32_t ask_all(bool last) {
    asking round = {last, 0};
    hosted::visit_other_threads(ask, &round);
    return round.running;
}

}  // namespace

int32_t hosted_stop_threads(int64_t patience) {
    if (!hosted::at_open_thread_level() || hosted::others_are_stopped()) return KERN_ERR_NOT_ALLOWED;
    hosted::must(pthread_once(&gHandlerOnce, install_handler), "pthread_once");
    int32_t self = kern_thread_self();
    gTurn.take();
    __atomic_store_n(&gStopper, self, __ATOMIC_RELAXED);
    gImageCount = 0;
    add_image(nullptr, reinterpret_cast<const void *>(hosted_stop_threads));
    hosted::visit_module_code(add_image, nullptr);
    dl_iterate_phdr(measure_images, nullptr);

    int64_t deadline = kern_time_us() + patience;
    int32_t running;
    while ((running = ask_all(false)) > 0 && kern_time_us() < deadline)
        kern_sleep_us(kAskEvery);
    return running > 0 ? ask_all(true) : 0;
}

void hosted_continue_threads() {
    if (!hosted::others_are_stopped()) return;
    __atomic_store_n(&gStopper, 0, __ATOMIC_RELAXED);
    hosted::visit_other_threads(
        [](void *, pid_t, hosted::stop_place *place) {
            if (hosted::stands_still(place)) let_go(place);
        },
        nullptr);
    gTurn.give();
}

namespace hosted {

int stop_signal() {
    return SIGRTMAX;
}

bool set_waiting(bool waiting) {
    bool before = tWaiting;
    tWaiting = waiting;
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
    return before;
}

bool stop_at_birth(stop_place *place) {
    if (__atomic_load_n(&gStopper, __ATOMIC_RELAXED) == 0) return false;
    place->waits = true;
    __atomic_store_n(&place->word, kStands, __ATOMIC_RELEASE);
    return true;
}

void stand_still(stop_place *place) {
    while (__atomic_load_n(&place->word, __ATOMIC_ACQUIRE) == kStands)
        futex_wait(&place->word, kStands, KERN_TIMEOUT_FOREVER);
}

bool stands_still(const stop_place *place) {
    return __atomic_load_n(&place->word, __ATOMIC_ACQUIRE) == kStands;
}

void stop_no_more(stop_place *place) {
    __atomic_store_n(&place->word, kGoes, __ATOMIC_RELAXED);
}

bool others_are_stopped() {
    int32_t stopper = __atomic_load_n(&gStopper, __ATOMIC_RELAXED);
    return stopper != 0 && stopper == known_thread_id();
}

}  // namespace hosted
