// SPDX-License-Identifier: MIT
//
// Semaphores: counts that hand over.
//
// The state of a semaphore is one 64-bit word: its units, which semaphore it is (a generation, so that an id
// goes stale with its semaphore), whether anybody waits, and a lock bit that guards the line of waiters.
//
// - Fast path: with nobody in the line and the lock bit clear, an acquire that finds its units and a release
//   are one compare-exchange each. It compares the generation too, so a stale id can't touch the semaphore
//   that came after.
// - Slow path: take the lock bit, look again, change line and units, and give the bit back with the new
//   state. While the waiting bit is set, every acquire joins the line and every release deals from it, so
//   nobody overtakes.
// - A waiter sleeps on a word of its own. Who deals units takes the waiters that can be served out of the
//   line under the lock bit, gives the bit back, and only then writes the verdicts. A waiter that leaves on
//   its own account (time-out, interruption) takes the lock bit: if it still stands in the line it leaves and
//   nothing was given to it; if not, its verdict is on the way, it waits for that and obeys it. So no unit
//   gets lost, and no verdict meets a dead waiter.
//
// Ordering: units are released by a read-modify-write with release order and taken by one with acquire order
// on the same word, and every change between is a read-modify-write; a verdict is an exchange with release
// order that the waiter's acquire load reads. Either way what was written before a release is seen behind the
// acquire that it served.
//
// Records lie in chunks that are never unmapped, so an id of any age can be looked up without a lock.

#include <errno.h>
#include <sys/mman.h>
#include <unistd.h>

#include <climits>
#include <cstring>

#include "platform/hosted/internal.h"

namespace {

constexpr int kIndexBits = 18;
constexpr int kGenerationBits = 31 - kIndexBits;
constexpr uint32_t kMostSemaphores = 1u << kIndexBits;
constexpr uint32_t kLastGeneration = (1u << kGenerationBits) - 1;
constexpr uint32_t kChunk = 1024;         // records
constexpr uint32_t kRestingSlots = 1024;  // free slots that rest before the first one is used again
constexpr int32_t kHostTeam = 1;

constexpr uint64_t kUnits = 0xffffffff;
constexpr int kGenerationShift = 32;
constexpr uint64_t kLive = uint64_t{1} << (kGenerationShift + kGenerationBits);
constexpr uint64_t kWaiting = kLive << 1;
constexpr uint64_t kLocked = kLive << 2;
constexpr uint64_t kContended = kLive << 3;  // somebody sleeps until the lock bit is given back
constexpr uint64_t kIdentity = (uint64_t{kLastGeneration} << kGenerationShift) | kLive;
static_assert((kContended & kUnits) == 0 && kContended != 0);

constexpr int kLockSpins = 100;

// How often a waiter looks for its unit before it sleeps, on more than one processor. These looks take about
// as long as the sleep and the wake-up that they spare when the unit comes meanwhile, as it does under a
// contended lock.
constexpr int kWaitSpins = 200;

// The words that a waiter sleeps on. Values from kVerdict on are final.
constexpr uint32_t kAwake = 0;
constexpr uint32_t kAsleep = 1;
constexpr uint32_t kVerdict = 1u << 31;
constexpr uint32_t kGranted = kVerdict;
constexpr uint32_t kDeleted = kVerdict | 1;
static_assert(hosted::kPoked > kAsleep && (hosted::kPoked | kAsleep) < kVerdict);

struct waiter {
    waiter *previous;  // the line, under the lock bit
    waiter *next;      // the same; also links those who are about to get their verdict
    int32_t units;
    bool in_line;   // under the lock bit
    uint32_t word;  // atomic
};

struct alignas(64) semaphore {
    uint64_t state;  // atomic
    // Under the lock bit.
    waiter *head;
    waiter *tail;
    int32_t line_length;
    // Under gTable.
    int32_t team;
    uint32_t next_free;
    char name[32];
    int32_t holder;  // atomic; see note_acquired
};

hosted::lock gTable;
semaphore *gChunks[kMostSemaphores / kChunk];  // atomic, set once
// Under gTable.
uint32_t gSlotsUsed = 1;  // slot 0 is nobody's, so that no id is 0
uint32_t gFirstFree, gLastFree, gFreeSlots;
int32_t gLive;

uint64_t identity_of(int32_t sem) {
    return (static_cast<uint64_t>(static_cast<uint32_t>(sem) >> kIndexBits) << kGenerationShift) | kLive;
}

uint32_t units_of(uint64_t state) {
    return static_cast<uint32_t>(state & kUnits);
}

// The record in the slot of this id, whatever lives there now. Null for an id that no semaphore ever had.
semaphore *find_slot(int32_t sem) {
    if (sem <= 0) return nullptr;
    uint32_t index = static_cast<uint32_t>(sem) & (kMostSemaphores - 1);
    semaphore *chunk = __atomic_load_n(&gChunks[index / kChunk], __ATOMIC_ACQUIRE);
    return chunk ? chunk + index % kChunk : nullptr;
}

uint32_t *lock_word(semaphore *s) {
    static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__);
    return reinterpret_cast<uint32_t *>(&s->state) + 1;  // the half with the lock bit
}

// Takes the lock bit if the semaphore is still the one of `identity`. Inside a section only: a handler on
// this thread must not find the bit taken by the thread that it interrupted.
bool lock_line(semaphore *s, uint64_t identity) {
    uint64_t state = __atomic_load_n(&s->state, __ATOMIC_RELAXED);
    for (int spins = 0;;) {
        if ((state & kIdentity) != identity) return false;
        if (!(state & kLocked)) {
            if (__atomic_compare_exchange_n(&s->state, &state, state | kLocked, true, __ATOMIC_ACQUIRE,
                                            __ATOMIC_RELAXED))
                return true;
            continue;
        }
        if (spins < kLockSpins) {
            spins++;
            hosted::relax();
        } else if ((state & kContended) ||
                   __atomic_compare_exchange_n(&s->state, &state, state | kContended, true, __ATOMIC_RELAXED,
                                               __ATOMIC_RELAXED)) {
            hosted::futex_wait(lock_word(s), static_cast<uint32_t>((state | kContended) >> 32),
                               KERN_TIMEOUT_FOREVER);
        }
        state = __atomic_load_n(&s->state, __ATOMIC_RELAXED);
    }
}

// Gives the lock bit back with this identity and these units; the waiting bit follows the line. Under the
// lock bit others change kContended only.
void unlock_line(semaphore *s, uint64_t identity, uint32_t units) {
    uint64_t state = identity | units | (s->head ? kWaiting : 0);
    uint64_t before = __atomic_exchange_n(&s->state, state, __ATOMIC_ACQ_REL);
    if (before & kContended) hosted::futex_wake(lock_word(s), INT_MAX);
}

uint32_t locked_units(semaphore *s) {
    return units_of(__atomic_load_n(&s->state, __ATOMIC_RELAXED));
}

void join_line(semaphore *s, waiter *w) {
    w->previous = s->tail;
    w->next = nullptr;
    w->in_line = true;
    (s->tail ? s->tail->next : s->head) = w;
    s->tail = w;
    s->line_length++;
}

void leave_line(semaphore *s, waiter *w) {
    (w->previous ? w->previous->next : s->head) = w->next;
    (w->next ? w->next->previous : s->tail) = w->previous;
    w->in_line = false;
    s->line_length--;
}

// For listings, who holds a semaphore that serves as a lock: the thread that took units last, until it gives
// some back. It takes its name off before it releases, so it can't wipe out that of the next one, which
// writes its own behind the acquire that this release serves.
void note_acquired(semaphore *s) {
    __atomic_store_n(&s->holder, hosted::known_thread_id(), __ATOMIC_RELAXED);
}

void note_release(semaphore *s) {
    int32_t holder = __atomic_load_n(&s->holder, __ATOMIC_RELAXED);
    if (holder != 0 && holder == hosted::known_thread_id()) __atomic_store_n(&s->holder, 0, __ATOMIC_RELAXED);
}

// Takes the waiters that `*units` can serve out of the line, strictly from its head, and returns them linked
// by `next`.
waiter *deal(semaphore *s, uint32_t *units) {
    waiter *first = nullptr;
    waiter **link = &first;
    while (s->head && static_cast<uint32_t>(s->head->units) <= *units) {
        waiter *w = s->head;
        leave_line(s, w);
        *units -= static_cast<uint32_t>(w->units);
        w->next = nullptr;
        *link = w;
        link = &w->next;
    }
    return first;
}

// Without the lock bit. A waiter is gone as soon as it has its verdict; the wake may then meet whatever lies
// at the address, and everybody who sleeps on a futex looks at its word again.
void tell(waiter *first, uint32_t verdict) {
    for (waiter *w = first; w != nullptr;) {
        waiter *next = w->next;
        uint32_t *word = &w->word;
        if (__atomic_exchange_n(word, verdict, __ATOMIC_ACQ_REL) == kAsleep) hosted::futex_wake(word, 1);
        w = next;
    }
}

// One line for an id that is no semaphore; for acquire and release only once for each id, since a lock whose
// semaphore is gone meets every later caller with its error.
int32_t dead_semaphore(const char *operation, int32_t sem, bool once) {
    alignas(8) static uint64_t reported[256];  // atomic
    uint64_t mark = (uint64_t{1} << 32) | static_cast<uint32_t>(sem);
    if (once &&
        __atomic_exchange_n(&reported[static_cast<uint32_t>(sem) % 256], mark, __ATOMIC_RELAXED) == mark)
        return KERN_ERR_BAD_SEM;
    char name[sizeof(semaphore::name)] = "";
    if (semaphore *s = find_slot(sem)) {
        // The slot still has the name of its last semaphore, until the next one moves in.
        hosted::guard held(gTable);
        uint64_t state = __atomic_load_n(&s->state, __ATOMIC_RELAXED);
        if (!(state & kLive) && (state & kIdentity) + kLive == identity_of(sem))
            hosted::copy_name(name, sizeof(name), s->name);
    }
    if (name[0])
        hosted::complain("%s: semaphore %d, \"%s\", was deleted", operation, sem, name);
    else
        hosted::complain("%s: no semaphore %d", operation, sem);
    return KERN_ERR_BAD_SEM;
}

// The thread gives up its place. Its verdict, or `reason` if it left empty-handed.
int32_t give_up(semaphore *s, uint64_t identity, waiter *self, int32_t reason) {
    {
        hosted::section masked;
        if (lock_line(s, identity)) {
            bool left = self->in_line;
            uint32_t units = locked_units(s);
            waiter *served = nullptr;
            if (left) {
                leave_line(s, self);
                served = deal(s, &units);  // the next one may need less
            }
            unlock_line(s, identity, units);
            tell(served, kGranted);
            if (left) return reason;
        }
    }
    for (;;) {
        uint32_t word = __atomic_load_n(&self->word, __ATOMIC_ACQUIRE);
        if (word >= kVerdict) return word == kGranted ? 0 : KERN_ERR_BAD_SEM;
        if (word == kAsleep || __atomic_compare_exchange_n(&self->word, &word, kAsleep, false,
                                                           __ATOMIC_RELAXED, __ATOMIC_RELAXED))
            hosted::futex_wait(&self->word, kAsleep, KERN_TIMEOUT_FOREVER);
    }
}

// Waits for the verdict. `self` stands in the line.
int32_t wait_in_line(semaphore *s, uint64_t identity, waiter *self, uint32_t flags, int64_t deadline) {
    static const int spins = sysconf(_SC_NPROCESSORS_ONLN) > 1 ? kWaitSpins : 0;
    for (int i = 0; i < spins && __atomic_load_n(&self->word, __ATOMIC_RELAXED) == kAwake; i++)
        hosted::relax();
    for (;;) {
        uint32_t interrupts = hosted::interrupts_seen();
        uint32_t word = __atomic_load_n(&self->word, __ATOMIC_ACQUIRE);
        if (word >= kVerdict) return word == kGranted ? 0 : KERN_ERR_BAD_SEM;
        if (word & hosted::kPoked) return give_up(s, identity, self, KERN_ERR_INTERRUPTED);
        if (word == kAwake && !__atomic_compare_exchange_n(&self->word, &word, kAsleep, false,
                                                           __ATOMIC_RELAXED, __ATOMIC_RELAXED))
            continue;
        int error = hosted::futex_wait(&self->word, kAsleep, deadline);
        if (error == ETIMEDOUT) return give_up(s, identity, self, KERN_ERR_TIMED_OUT);
        if (error == EINTR && (flags & KERN_SEM_INTERRUPTIBLE)) {
            // An interrupt of the kernel's own ends no wait. (The load lets a late handler run first, under a
            // sanitizer.)
            __atomic_load_n(&self->word, __ATOMIC_ACQUIRE);
            if (hosted::interrupts_seen() == interrupts)
                return give_up(s, identity, self, KERN_ERR_INTERRUPTED);
        }
    }
}

// The half of an acquire that may sleep.
int32_t acquire_contended(semaphore *s, int32_t sem, int32_t units, uint32_t flags, int64_t timeout) {
    uint64_t identity = identity_of(sem);
    bool timed = (flags & KERN_SEM_RELATIVE_TIMEOUT) && timeout != KERN_TIMEOUT_FOREVER;
    int64_t deadline = KERN_TIMEOUT_FOREVER;
    if (timed && timeout > 0 && __builtin_add_overflow(kern_time_us(), timeout, &deadline))
        deadline = KERN_TIMEOUT_FOREVER;

    waiter self = {nullptr, nullptr, units, false, kAwake};
    bool dead = false;
    int32_t refused = 0;
    {
        hosted::section masked;
        if (!lock_line(s, identity)) {
            dead = true;
        } else {
            uint32_t have = locked_units(s);
            if (!s->head && have >= static_cast<uint32_t>(units)) {
                unlock_line(s, identity, have - static_cast<uint32_t>(units));
                return 0;
            }
            if (timed && timeout <= 0)
                refused = KERN_ERR_WOULD_BLOCK;
            else if (hosted_at_interrupt_level())
                refused = KERN_ERR_NOT_ALLOWED;
            else
                join_line(s, &self);
            // Before the place in the line can be seen: a signal behind that ends the wait.
            if (refused == 0 && (flags & KERN_SEM_INTERRUPTIBLE)) hosted::set_poke(&self.word);
            unlock_line(s, identity, have);
        }
    }
    if (dead) return dead_semaphore("acquire", sem, true);
    if (refused == KERN_ERR_NOT_ALLOWED) hosted::complain("acquire: semaphore %d at interrupt level", sem);
    if (refused != 0) return refused;

    hosted::note_wait(sem);
    int32_t status = wait_in_line(s, identity, &self, flags, deadline);
    hosted::note_wait(0);
    hosted::set_poke(nullptr);
    return status;
}

// The half of a release that finds somebody.
int32_t release_contended(semaphore *s, int32_t sem, int32_t units) {
    uint64_t identity = identity_of(sem);
    {
        hosted::section masked;
        if (lock_line(s, identity)) {
            uint32_t have = locked_units(s);
            if (have > static_cast<uint32_t>(INT32_MAX - units)) {
                unlock_line(s, identity, have);
                return KERN_ERR_BAD_VALUE;
            }
            have += static_cast<uint32_t>(units);
            waiter *served = deal(s, &have);
            unlock_line(s, identity, have);
            tell(served, kGranted);
            return 0;
        }
    }
    return dead_semaphore("release", sem, true);
}

// A slot for a new semaphore, or 0. Under gTable.
uint32_t take_slot_locked() {
    if (gFreeSlots > kRestingSlots || (gFreeSlots > 0 && gSlotsUsed == kMostSemaphores)) {
        uint32_t index = gFirstFree;
        gFirstFree = gChunks[index / kChunk][index % kChunk].next_free;
        gFreeSlots--;
        return index;
    }
    if (gSlotsUsed == kMostSemaphores) return 0;
    semaphore **chunk = &gChunks[gSlotsUsed / kChunk];
    if (!*chunk) {
        void *memory = mmap(nullptr, kChunk * sizeof(semaphore), PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) return 0;
        __atomic_store_n(chunk, static_cast<semaphore *>(memory), __ATOMIC_RELEASE);
    }
    return gSlotsUsed++;
}

void give_slot_locked(uint32_t index) {
    gChunks[index / kChunk][index % kChunk].next_free = 0;
    if (gFreeSlots++ == 0)
        gFirstFree = index;
    else
        gChunks[gLastFree / kChunk][gLastFree % kChunk].next_free = index;
    gLastFree = index;
}

// Calls `visit` with each live semaphore's id, state and record, under gTable, so none is created or named
// meanwhile.
template <typename visitor>
void for_each_semaphore(visitor visit) {
    hosted::guard held(gTable);
    for (uint32_t index = 1; index < gSlotsUsed; index++) {
        semaphore *s = &gChunks[index / kChunk][index % kChunk];
        uint64_t state = __atomic_load_n(&s->state, __ATOMIC_ACQUIRE);
        if (!(state & kLive)) continue;
        uint32_t generation = static_cast<uint32_t>(state >> kGenerationShift) & kLastGeneration;
        visit(static_cast<int32_t>(generation << kIndexBits | index), state, s);
    }
}

}  // namespace

int32_t kern_sem_create(int32_t count, const char *name) {
    if (count < 0) return KERN_ERR_BAD_VALUE;
    hosted::guard held(gTable);
    uint32_t index = take_slot_locked();
    if (index == 0) return KERN_ERR_NO_MEMORY;
    semaphore *s = &gChunks[index / kChunk][index % kChunk];
    hosted::copy_name(s->name, sizeof(s->name), name ? name : "unnamed semaphore");
    s->team = kHostTeam;
    __atomic_store_n(&s->holder, 0, __ATOMIC_RELAXED);
    uint32_t generation =
        static_cast<uint32_t>(__atomic_load_n(&s->state, __ATOMIC_RELAXED) >> kGenerationShift);
    generation = (generation & kLastGeneration) + 1;
    if (generation > kLastGeneration) generation = 1;
    int32_t sem = static_cast<int32_t>(generation << kIndexBits | index);
    __atomic_store_n(&s->state, identity_of(sem) | static_cast<uint32_t>(count), __ATOMIC_RELEASE);
    gLive++;
    return sem;
}

int32_t kern_sem_delete(int32_t sem) {
    semaphore *s = find_slot(sem);
    uint64_t identity = identity_of(sem);
    bool deleted = false;
    if (s) {
        hosted::section masked;
        if (lock_line(s, identity)) {
            waiter *line = s->head;
            for (waiter *w = line; w != nullptr; w = w->next)
                w->in_line = false;
            s->head = s->tail = nullptr;
            s->line_length = 0;
            // The generation stays until the next one moves in: until then the id's owner can be told by its
            // name.
            unlock_line(s, identity & ~kLive, 0);
            tell(line, kDeleted);
            hosted::guard held(gTable);
            give_slot_locked(static_cast<uint32_t>(sem) & (kMostSemaphores - 1));
            gLive--;
            deleted = true;
        }
    }
    return deleted ? 0 : dead_semaphore("delete", sem, false);
}

int32_t kern_sem_acquire(int32_t sem) {
    return kern_sem_acquire_ex(sem, 1, 0, KERN_TIMEOUT_FOREVER);
}

int32_t kern_sem_acquire_ex(int32_t sem, int32_t units, uint32_t flags, int64_t timeout) {
    if (units <= 0) return KERN_ERR_BAD_VALUE;
    semaphore *s = find_slot(sem);
    if (!s) return dead_semaphore("acquire", sem, true);
    uint64_t identity = identity_of(sem);
    uint64_t state = __atomic_load_n(&s->state, __ATOMIC_RELAXED);
    while ((state & (kIdentity | kWaiting | kLocked)) == identity &&
           units_of(state) >= static_cast<uint32_t>(units))
        if (__atomic_compare_exchange_n(&s->state, &state, state - static_cast<uint32_t>(units), true,
                                        __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) {
            note_acquired(s);
            return 0;
        }
    int32_t status = acquire_contended(s, sem, units, flags, timeout);
    if (status == 0) note_acquired(s);
    return status;
}

int32_t kern_sem_release(int32_t sem) {
    return kern_sem_release_ex(sem, 1, 0);
}

// Flag 2 changes nothing here: a woken thread takes another processor, or its turn.
int32_t kern_sem_release_ex(int32_t sem, int32_t units, uint32_t) {
    if (units <= 0) return KERN_ERR_BAD_VALUE;
    semaphore *s = find_slot(sem);
    if (!s) return dead_semaphore("release", sem, true);
    uint64_t identity = identity_of(sem);
    note_release(s);
    uint64_t state = __atomic_load_n(&s->state, __ATOMIC_RELAXED);
    while ((state & (kIdentity | kWaiting | kLocked)) == identity) {
        if (units_of(state) > static_cast<uint32_t>(INT32_MAX - units)) return KERN_ERR_BAD_VALUE;
        if (__atomic_compare_exchange_n(&s->state, &state, state + static_cast<uint32_t>(units), true,
                                        __ATOMIC_RELEASE, __ATOMIC_RELAXED))
            return 0;
    }
    return release_contended(s, sem, units);
}

int32_t kern_sem_set_owner(int32_t sem, int32_t team) {
    if (semaphore *s = find_slot(sem)) {
        hosted::guard held(gTable);
        if ((__atomic_load_n(&s->state, __ATOMIC_ACQUIRE) & kIdentity) == identity_of(sem)) {
            s->team = team;
            return 0;
        }
    }
    return dead_semaphore("set owner", sem, false);
}

int32_t hosted_list_semaphores(hosted_semaphore_info *table, int32_t capacity) {
    int32_t found = 0;
    for_each_semaphore([&](int32_t id, uint64_t state, semaphore *s) {
        if (found++ >= capacity) return;
        hosted_semaphore_info *info = &table[found - 1];
        *info = {id,      "",
                 s->team, static_cast<int32_t>(units_of(state)),
                 0,       __atomic_load_n(&s->holder, __ATOMIC_RELAXED)};
        hosted::copy_name(info->name, sizeof(info->name), s->name);
    });
    for (int32_t i = 0; i < found && i < capacity; i++) {
        int32_t waiters = hosted_count_waiters(table[i].id);
        table[i].waiters = waiters < 0 ? 0 : waiters;
    }
    return found;
}

int32_t hosted_count_waiters(int32_t sem) {
    semaphore *s = find_slot(sem);
    hosted::section masked;
    if (!s || !lock_line(s, identity_of(sem))) return -1;
    int32_t waiters = s->line_length;
    unlock_line(s, identity_of(sem), locked_units(s));
    return waiters;
}

int32_t hosted_count_semaphores_named(const char *name) {
    char cut[sizeof(semaphore::name)];
    hosted::copy_name(cut, sizeof(cut), name);
    int32_t found = 0;
    for_each_semaphore([&](int32_t, uint64_t, semaphore *s) { found += strcmp(s->name, cut) == 0; });
    return found;
}

namespace hosted {

int32_t count_semaphores() {
    guard held(gTable);
    return gLive;
}

int32_t log_semaphores() {
    int32_t found = 0;
    for_each_semaphore([&](int32_t id, uint64_t state, semaphore *s) {
        found++;
        kern_log("kernel: semaphore %d, \"%s\", %d units\n", id, s->name,
                 static_cast<int32_t>(units_of(state)));
    });
    return found;
}

}  // namespace hosted
