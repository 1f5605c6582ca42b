#ifndef KORVO_TIMEOUTS_H
#define KORVO_TIMEOUTS_H

/*
 * A hierarchical timing wheel over 64-bit ticks, usable from C and C++.
 *
 * The wheel keeps its own clock, "now", a tick count that starts at 0 and only moves forward
 * (timeouts_update, timeouts_step). What a tick means is up to the caller; timeouts_hz merely
 * remembers the rate the wheel was opened with.
 *
 * Records are intrusive: the caller owns every struct timeout (usually embedded in its own
 * object) and the wheel only links it; nothing is allocated per record. A record is in one of
 * three states:
 *   idle     not on any wheel (after timeout_init, a delete, or being returned by timeouts_get);
 *   pending  armed, waiting for its tick;
 *   expired  its tick has been reached; it waits on the wheel's expired queue for timeouts_get.
 *
 * Firing: a record armed for tick E becomes expired in the timeouts_update that moves now from
 * some old value to a new one with old < E <= new: never earlier, never later, and exactly once
 * per arming. A record armed for a tick at or before now goes straight to the expired queue.
 * Records expired by one update come out of timeouts_get roughly in tick order; records armed
 * for the same tick come out in the order they were armed.
 *
 * Ticks: absolute ticks may be anything up to UINT64_MAX. Relative ticks are added to now and
 * saturate at UINT64_MAX. The wheel proper spans 2^56 ticks; a record further away than that
 * (in the sense that its tick and now differ above bit 55) is parked on an overflow list and
 * moved into the wheel when now gets there. Parked records never fire early.
 *
 * Costs: add, delete, re-add, timeouts_get and timeouts_timeout are O(1). Delete is inline: it
 * unlinks the record from its neighbours and makes no call unless the record is alone on its
 * list (or idle). Re-adding a linked record unlinks it the same way and links it again; the
 * bitmaps change only when a list empties or gets its first record. An update costs O(1)
 * per level and per slot that comes due (a slot due as a whole joins the expired queue in one
 * step, whatever its length), plus O(1) per record it moves down a level. A record moves down at
 * most once per level it starts above, so a timeout of fewer than 65536 ticks cascades at most
 * once. Iteration and timeouts_check are O(records + 1794 lists). One wheel takes under 30 KiB,
 * one record 48 bytes (on 64-bit targets).
 *
 * Threads: a wheel and its records belong to one thread at a time; nothing here locks.
 *
 * Re-entrancy: any record may be added or deleted between two calls of timeouts_get, including
 * the record just returned. A record may be freed only while idle.
 */

#include <Korvo/Export.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint64_t timeout_t;

/* A tick constant of type timeout_t, e.g. TIMEOUT_C(6000). */
#define TIMEOUT_C(n) UINT64_C(n)

/* Common rates for timeouts_open: one tick per millisecond, microsecond, nanosecond. */
#define TIMEOUT_mHZ TIMEOUT_C(1000)
#define TIMEOUT_uHZ TIMEOUT_C(1000000)
#define TIMEOUT_nHZ TIMEOUT_C(1000000000)

/* The interface version these declarations describe, as 0xMMmmpp (major, minor, patch).
 * The major number changes when a program built against older declarations could break. */
#define TIMEOUTS_VERSION 0x020000
/* The version of the library actually loaded; compare with TIMEOUTS_VERSION to detect a
 * program run against an older library. */
KORVO_EXPORT unsigned timeouts_version(void);

/* Flags of a record. Bits 4, 8 and 16 of the flags word are the user's: the wheel never reads,
 * sets or clears them, and the user may change them at any time, also while the record is
 * linked. Other bits are reserved. */

/* Interval timer. timeouts_add(T, to, period) arms it for now + period, and every timeouts_get
 * that returns it re-arms it at the next tick of its schedule (expires + k * period) after now,
 * skipping the periods that were missed. It stays armed until deleted: timeouts_del and
 * timeout_del stop it whether it is pending or expired. Clearing TIMEOUT_INT while it is linked
 * makes its next return from timeouts_get its last. A period of 0 arms it as a one-shot record
 * that is already expired. If the next tick of the schedule would pass UINT64_MAX, it is re-armed
 * at UINT64_MAX, or not at all when now is UINT64_MAX. */
#define TIMEOUT_INT 0x01
/* Absolute ticks: timeouts_add(T, to, tick) arms it for exactly that tick. Without this flag the
 * tick is relative to now. Together with TIMEOUT_INT, the tick is still the period, and the
 * schedule is aligned to multiples of the period: the first expiry is the next multiple of the
 * period after now. */
#define TIMEOUT_ABS 0x02

/* Links of a circular doubly linked list. Each of the wheel's lists has a head of its own in
 * the wheel, so that the list of a linked record is never empty: removing a record needs only
 * its neighbours. Both links are NULL while the record is idle. */
struct timeout_link {
   struct timeout_link* next;
   struct timeout_link* prev;
};

/* The record. All fields other than flags belong to the wheel while the record is linked;
 * expires may be read (the tick the record is armed for, absolute). */
struct timeout {
   struct timeout_link link; /* first: the wheel turns a link into its record by a cast */
   timeout_t expires;        /* absolute tick */
   int flags;
   timeout_t interval;        /* period of an interval record, else 0 */
   struct timeouts* timeouts; /* the wheel it is linked on; NULL when idle */
};

/* An idle record with the given flags, for static initialisation. */
#define TIMEOUT_INITIALIZER(flags) \
   { {NULL, NULL}, 0, (flags), 0, NULL }

/* Makes the record idle with the given flags and returns it. Must not be called on a linked
 * record. */
KORVO_EXPORT struct timeout* timeout_init(struct timeout* to, int flags);

/* True when the record is armed and waiting for its tick. */
KORVO_EXPORT bool timeout_pending(const struct timeout* to);

/* True when the record's tick has been reached and it waits for timeouts_get. */
KORVO_EXPORT bool timeout_expired(const struct timeout* to);

/* Makes a wheel with now = 0. hz is the tick rate, 0 meaning 1000. Returns NULL and stores errno
 * in *error when out of memory; stores 0 in *error on success. error may be NULL. */
KORVO_EXPORT struct timeouts* timeouts_open(timeout_t hz, int* error);

/* Frees the wheel. Records still linked become idle (their back-pointer is cleared), so they may
 * be deleted or re-armed on another wheel afterwards. NULL is ignored. */
KORVO_EXPORT void timeouts_close(struct timeouts* T);

KORVO_EXPORT timeout_t timeouts_hz(const struct timeouts* T);

/* Moves now to tick and expires every pending record armed for a tick in (old now, tick]. A tick
 * at or before now changes nothing: the wheel's clock never goes back. */
KORVO_EXPORT void timeouts_update(struct timeouts* T, timeout_t tick);

/* timeouts_update to now + ticks, saturating at UINT64_MAX. */
KORVO_EXPORT void timeouts_step(struct timeouts* T, timeout_t ticks);

/* Ticks to wait before the next update that may expire something, never more than the wait for
 * the earliest pending record:
 *   0 exactly when the expired queue is not empty;
 *   the exact wait when the earliest record is due within the current 256-tick block;
 *   otherwise the wait until the wheel must move records down a level, which may be earlier than
 *   the earliest record (a caller that wakes then and updates gets a closer answer next time);
 *   when only parked records remain, the wait until the earliest of them enters the wheel
 *   (when now reaches its block of 2^56 ticks);
 *   UINT64_MAX when the wheel holds no record at all. */
KORVO_EXPORT timeout_t timeouts_timeout(const struct timeouts* T);

/* Arms the record for tick (see TIMEOUT_ABS and TIMEOUT_INT), first unlinking it from any wheel
 * it is on, pending or expired: re-adding moves it. A tick at or before now puts it straight on
 * the expired queue. */
KORVO_EXPORT void timeouts_add(struct timeouts* T, struct timeout* to, timeout_t tick);

/* The out-of-line part of timeouts_del, for a record that is idle or alone on its list (the
 * list empties and the wheel's bitmaps change). Call timeouts_del instead. */
KORVO_EXPORT void timeouts_del_slow(struct timeout* to);

/* Unlinks the record, pending or expired; does nothing when it is idle. The record is unlinked
 * from the wheel it is on, which must be T. Inline: one test, and a call only when the record
 * is idle or alone on its list (its neighbours are then the same: both NULL, or both its
 * list's head). */
static inline void timeouts_del(struct timeouts* T, struct timeout* to) {
   (void)T;
   struct timeout_link* next = to->link.next;
   struct timeout_link* prev = to->link.prev;
   if (next == prev) {
      timeouts_del_slow(to);
      return;
   }
#if defined(__GNUC__)
   /* The neighbours are only written: asking for their cache lines at once lets the misses of
    * consecutive deletes overlap instead of holding up the stores behind them. */
   __builtin_prefetch(next, 1);
   __builtin_prefetch(prev, 1);
#endif
   prev->next = next;
   next->prev = prev;
   to->link.next = to->link.prev = NULL;
   to->timeouts = NULL;
}

/* Unlinks the record from the wheel it is on, pending or expired. Does nothing when idle, so it
 * may be called any number of times. */
static inline void timeout_del(struct timeout* to) {
   timeouts_del(to->timeouts, to);
}

/* Takes the first record off the expired queue and returns it, or NULL when none has expired.
 * The record is idle afterwards, unless it is an interval record, which is pending again. */
KORVO_EXPORT struct timeout* timeouts_get(struct timeouts* T);

/* Some record is pending (parked records included). */
KORVO_EXPORT bool timeouts_pending(const struct timeouts* T);

/* Some record waits on the expired queue. */
KORVO_EXPORT bool timeouts_expired(const struct timeouts* T);

/* Verifies every internal invariant: list links, back-pointers, each record's place against its
 * tick and now, the bitmaps. Writes a line per violation to fp when fp is not NULL. Returns true
 * when all hold. O(records + lists). */
KORVO_EXPORT bool timeouts_check(const struct timeouts* T, FILE* fp);

/* Bytes taken by one wheel (what timeouts_open allocates). */
KORVO_EXPORT size_t timeouts_sizeof(void);

/* Iteration. Flags select the records: */
#define TIMEOUTS_PENDING 0x10 /* pending records, parked ones included */
#define TIMEOUTS_EXPIRED 0x20 /* records on the expired queue */
#define TIMEOUTS_ALL (TIMEOUTS_PENDING | TIMEOUTS_EXPIRED)
#define TIMEOUTS_CLEAR 0x40 /* delete each record before returning it */

/* Iterator state; start it with TIMEOUTS_IT_INITIALIZER(flags) or timeouts_it_init. */
struct timeouts_it {
   int flags;
   unsigned list;
   struct timeout* next;
};

#define TIMEOUTS_IT_INITIALIZER(flags) \
   { (flags), 0, NULL }

/* Restarts an iterator as a statement: TIMEOUTS_IT_INIT(&it, TIMEOUTS_ALL). */
#define TIMEOUTS_IT_INIT(it, flags) ((void)timeouts_it_init((it), (flags)))

static inline struct timeouts_it* timeouts_it_init(struct timeouts_it* it, int flags) {
   it->flags = flags;
   it->list = 0;
   it->next = NULL;
   return it;
}

/* Returns the next selected record, or NULL at the end (and from then on). Expired records come
 * first, then pending records roughly in tick order. Between two calls the caller may delete or
 * re-add the record just returned (a re-added record may be returned again); any other
 * change to the wheel ends the iteration's guarantees. With TIMEOUTS_CLEAR the returned record is
 * already idle, so the caller may free it at once. */
KORVO_EXPORT struct timeout* timeouts_next(struct timeouts* T, struct timeouts_it* it);

/* Runs the statement that follows once per selected record, in timeouts_next order, with var
 * (a struct timeout*) set to the record; the same changes are allowed as with timeouts_next.
 *   struct timeout* to;
 *   TIMEOUTS_FOREACH(to, T, TIMEOUTS_PENDING) { ... }
 * The iterator is hidden in the loop, so loops may nest; break leaves early. */
#define TIMEOUTS_FOREACH(var, T, flags)                                                            \
   for (struct timeouts_it TIMEOUTS_CAT_(timeouts_it_, __LINE__) = TIMEOUTS_IT_INITIALIZER(flags); \
        ((var) = timeouts_next((T), &TIMEOUTS_CAT_(timeouts_it_, __LINE__))) != NULL;)
#define TIMEOUTS_CAT_(a, b) TIMEOUTS_CAT2_(a, b)
#define TIMEOUTS_CAT2_(a, b) a##b

#ifdef __cplusplus
}
#endif

#endif
