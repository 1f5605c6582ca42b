#include <Korvo/Timeouts.h>

#include <errno.h>
#include <stdlib.h>
#include <string.h>

/*
 * Layout. Seven levels of 256 slots; level L sorts records by byte L of their tick. A pending
 * record with tick E sits at the level of the highest byte in which E and now differ, in the slot
 * given by that byte of E. Since E > now, that byte of E is larger than the same byte of now, and
 * all higher bytes are equal. So, for every level:
 *   - its records are due after everything on the levels below it, and
 *   - a slot at or below now's byte at that level is always empty.
 * Records whose tick differs from now above byte 6 are parked on one overflow list.
 *
 * When now moves from old to new, the records of a level that can be due or misplaced are those
 * in slots up to new's byte there (all slots if a higher byte changed too). Every such slot but
 * one is due as a whole: its ticks are below new (or, on level 0, equal to it), so its list is
 * spliced onto the expired queue in O(1) without touching its records. The one exception is the
 * slot at new's byte on the highest level whose byte changed: its records are placed again
 * relative to new, which expires them or puts them on a lower level. Levels are processed from
 * the bottom up so that a record moved down is never looked at twice, and once a level's and all
 * higher bytes of old and new agree, nothing above can change. A record therefore moves at most
 * once per level it starts above, and a 60 s timeout at 100 Hz (6000 ticks, below 65536)
 * cascades at most once.
 *
 * Since a pending record's tick is always after now and an expired one's never is, the tick
 * tells which it is, and the tick and now also tell which list a pending record is on; records
 * carry no list index, so a splice onto the expired queue touches only the ends of the lists.
 *
 * A 256-bit bitmap per level marks the non-empty slots, and a 28-bit summary marks its non-zero
 * 64-bit words, so finding the lowest non-empty slot of a level is two ctz.
 *
 * Lists are circular and doubly linked through a head of their own in the wheel (linked to
 * itself when the list is empty), so that a removal writes only the two neighbours, whatever
 * the record's place on its list; a list empties exactly when a removed record's neighbours are
 * both the head. Appending keeps records of the same tick in arming order through every cascade.
 */

enum {
   LEVEL_BITS = 8,
   LEVEL_SLOTS = 1 << LEVEL_BITS,
   LEVELS = 7,
   SLOTS = LEVELS * LEVEL_SLOTS,
   WORDS = SLOTS / 64,
   /* List indices: the expired queue first, then the slots by level, then the parked list, so
    * that iterating by index visits records roughly in tick order. */
   EXPIRED_LIST = 0,
   FIRST_SLOT = 1,
   PARKED_LIST = FIRST_SLOT + SLOTS,
   LISTS = PARKED_LIST + 1,
};

/* Ticks and now that differ at or above this bit are beyond the wheel's span. */
#define SPAN_BITS (LEVELS * LEVEL_BITS)

struct timeouts {
   struct timeout_link lists[LISTS];
   timeout_t now;
   /* A lower bound of the parked ticks: exact after each add to the parked list and each pass
    * over it, merely low after deletes, which is all timeouts_timeout needs. */
   timeout_t parkedMin;
   timeout_t hz;
   uint32_t nonempty; /* bit w set iff slotBits[w] != 0 */
   uint64_t slotBits[WORDS];
};

_Static_assert(offsetof(struct timeout, link) == 0, "a record's link must be its first field");
_Static_assert(offsetof(struct timeouts, slotBits) % 64 == 0, "the bitmap must start a cache line");
_Static_assert(WORDS <= 32, "the summary of non-empty bitmap words must fit in 32 bits");
_Static_assert(sizeof(struct timeouts) <= 30720, "a wheel must fit in 30 KiB");
_Static_assert(sizeof(struct timeout) <= 48, "a record must fit in 48 bytes");

/* --- Circular lists ----------------------------------------------------------------------- */

static inline struct timeout* recordOf(struct timeout_link* link) {
   return (struct timeout*)(void*)link;
}

static inline bool listEmpty(const struct timeout_link* head) {
   return head->next == head;
}

static inline void listInit(struct timeout_link* head) {
   head->next = head->prev = head;
}

static inline void listAppend(struct timeout_link* head, struct timeout* to) {
   struct timeout_link* last = head->prev;
   to->link.next = head;
   to->link.prev = last;
   last->next = &to->link;
   head->prev = &to->link;
}

/* Joins a removed record's neighbours; the record's own links are left stale. The neighbours'
 * lines are only written, and a written line that is not cached holds up the stores behind it;
 * asking for both lines as soon as their addresses are known lets the misses overlap. */
static inline void listJoin(struct timeout_link* prev, struct timeout_link* next) {
   __builtin_prefetch(next, 1);
   __builtin_prefetch(prev, 1);
   prev->next = next;
   next->prev = prev;
}

static inline void makeIdle(struct timeout* to) {
   to->link.next = to->link.prev = NULL;
   to->timeouts = NULL;
}

/* --- Bitmaps ------------------------------------------------------------------------------ */

static inline void slotMark(struct timeouts* T, unsigned slot) {
   T->slotBits[slot / 64] |= UINT64_C(1) << (slot % 64);
   T->nonempty |= UINT32_C(1) << (slot / 64);
}

static inline void slotClear(struct timeouts* T, unsigned slot) {
   uint64_t bits = T->slotBits[slot / 64] & ~(UINT64_C(1) << (slot % 64));
   T->slotBits[slot / 64] = bits;
   if (!bits)
      T->nonempty &= ~(UINT32_C(1) << (slot / 64));
}

/* The lowest non-empty slot of a level, relative to the level (0..255), or LEVEL_SLOTS. */
static inline unsigned levelFirstSlot(const struct timeouts* T, unsigned level) {
   unsigned words = (T->nonempty >> (level * (LEVEL_SLOTS / 64))) & 0xF;
   if (!words)
      return LEVEL_SLOTS;
   unsigned word = (unsigned)__builtin_ctz(words);
   uint64_t bits = T->slotBits[level * (LEVEL_SLOTS / 64) + word];
   return word * 64 + (unsigned)__builtin_ctzll(bits);
}

/* --- Placement ---------------------------------------------------------------------------- */

static inline timeout_t addSaturated(timeout_t a, timeout_t b) {
   timeout_t sum = a + b;
   return sum < a ? UINT64_MAX : sum;
}

/* The list a record with tick expires belongs on, given now. */
static inline unsigned listOf(timeout_t expires, timeout_t now) {
   if (expires <= now)
      return EXPIRED_LIST;
   unsigned highBit = 63u - (unsigned)__builtin_clzll(expires ^ now);
   unsigned level = highBit / LEVEL_BITS;
   if (level >= LEVELS)
      return PARKED_LIST;
   unsigned slot = (unsigned)(expires >> (level * LEVEL_BITS)) & (LEVEL_SLOTS - 1);
   return FIRST_SLOT + level * LEVEL_SLOTS + slot;
}

static void park(struct timeouts* T, struct timeout* to) {
   if (listEmpty(&T->lists[PARKED_LIST]) || to->expires < T->parkedMin)
      T->parkedMin = to->expires;
   listAppend(&T->lists[PARKED_LIST], to);
}

/* Appends the record to the list, which must be listOf(to->expires, T->now). */
static inline void linkOn(struct timeouts* T, struct timeout* to, unsigned list) {
   if (__builtin_expect(list == PARKED_LIST, 0)) {
      park(T, to);
      return;
   }
   struct timeout_link* head = &T->lists[list];
   if (list != EXPIRED_LIST && head->prev == head)
      slotMark(T, list - FIRST_SLOT);
   listAppend(head, to);
}

static inline void place(struct timeouts* T, struct timeout* to) {
   linkOn(T, to, listOf(to->expires, T->now));
}

/* Unlinks a record of T; the list it leaves may empty, which may clear the slot's bitmap bit.
 * Its own links and back-pointer are left stale. */
static inline void unlinkFrom(struct timeouts* T, struct timeout* to) {
   struct timeout_link* next = to->link.next;
   struct timeout_link* prev = to->link.prev;
   if (next != prev) {
      listJoin(prev, next);
      return;
   }
   /* Alone on its list: both neighbours are the list's head. */
   listInit(next);
   unsigned list = (unsigned)(next - T->lists);
   if (list - FIRST_SLOT < SLOTS)
      slotClear(T, list - FIRST_SLOT);
}

/* --- Records ------------------------------------------------------------------------------ */

struct timeout* timeout_init(struct timeout* to, int flags) {
   memset(to, 0, sizeof *to);
   to->flags = flags;
   return to;
}

void timeouts_del_slow(struct timeout* to) {
   if (!to->timeouts)
      return;
   unlinkFrom(to->timeouts, to);
   makeIdle(to);
}

bool timeout_pending(const struct timeout* to) {
   return to->timeouts && to->expires > to->timeouts->now;
}

bool timeout_expired(const struct timeout* to) {
   return to->timeouts && to->expires <= to->timeouts->now;
}

/* --- The wheel ---------------------------------------------------------------------------- */

unsigned timeouts_version(void) {
   return TIMEOUTS_VERSION;
}

size_t timeouts_sizeof(void) {
   return sizeof(struct timeouts);
}

struct timeouts* timeouts_open(timeout_t hz, int* error) {
   /* Cache-line aligned so that the hot header (now, summary) shares one line and no level's
    * bitmap words straddle two (two levels to a line); aligned_alloc wants the size to be a
    * multiple of the alignment. */
   size_t size = (sizeof(struct timeouts) + 63) & ~(size_t)63;
   struct timeouts* T = aligned_alloc(64, size);
   if (!T) {
      if (error)
         *error = errno ? errno : ENOMEM;
      return NULL;
   }
   memset(T, 0, sizeof *T);
   for (unsigned list = 0; list < LISTS; list++)
      listInit(&T->lists[list]);
   T->hz = hz ? hz : 1000;
   if (error)
      *error = 0;
   return T;
}

/* Makes every record on one list idle. */
static void listOrphan(struct timeout_link* head) {
   for (struct timeout_link* link = head->next; link != head;) {
      struct timeout_link* next = link->next;
      makeIdle(recordOf(link));
      link = next;
   }
}

void timeouts_close(struct timeouts* T) {
   if (!T)
      return;
   for (unsigned list = 0; list < LISTS; list++)
      listOrphan(&T->lists[list]);
   free(T);
}

timeout_t timeouts_hz(const struct timeouts* T) {
   return T->hz;
}

/* Empties one list and places each of its records again relative to now, in list order: it
 * expires, or goes to a lower level (or stays parked). Costs O(records on the list).
 *
 * With many timers the records of a list are scattered over memory and the walk is a chain of
 * cache misses. Walking from both ends at once keeps two misses in flight: records met from the
 * front are placed at once, records met from the back are stacked (through their next links,
 * which are no longer needed) and placed after the two walks meet, which restores list order. */
static void redistribute(struct timeouts* T, unsigned list) {
   struct timeout_link* head = &T->lists[list];
   struct timeout_link* front = head->next;
   struct timeout_link* back = head->prev;
   listInit(head);
   if (list - FIRST_SLOT < SLOTS)
      slotClear(T, list - FIRST_SLOT);
   struct timeout_link* stack = NULL;
   for (;;) {
      if (front == back) {
         place(T, recordOf(front));
         break;
      }
      /* Placing relinks a record, so take both walks' next steps first. */
      struct timeout_link* frontNext = front->next;
      struct timeout_link* backPrev = back->prev;
      place(T, recordOf(front));
      back->next = stack;
      stack = back;
      if (frontNext == back)
         break;
      front = frontNext;
      back = backPrev;
   }
   while (stack) {
      struct timeout_link* link = stack;
      stack = link->next;
      place(T, recordOf(link));
   }
}

/* Brings the first records of a list into the cache, walking from both ends at once so that two
 * misses are in flight. timeouts_get would otherwise meet them one miss at a time, as each
 * record's successor is known only once the record has been read. */
static void warm(struct timeout_link* first, struct timeout_link* last) {
   struct timeout_link* front = first;
   struct timeout_link* back = last;
   for (unsigned steps = 0; steps < 256 && front != back && front->next != back; steps++) {
      front = front->next;
      back = back->prev;
   }
}

/* Moves a whole slot's list to the tail of the expired queue: O(1), whatever its length, but for
 * warming the records when the queue was empty (then they are about to be taken). */
static void expireSlot(struct timeouts* T, unsigned list) {
   struct timeout_link* slot = &T->lists[list];
   struct timeout_link* first = slot->next;
   struct timeout_link* last = slot->prev;
   listInit(slot);
   slotClear(T, list - FIRST_SLOT);
   struct timeout_link* queue = &T->lists[EXPIRED_LIST];
   struct timeout_link* tail = queue->prev;
   if (tail == queue)
      warm(first, last);
   tail->next = first;
   first->prev = tail;
   last->next = queue;
   queue->prev = last;
}

void timeouts_update(struct timeouts* T, timeout_t tick) {
   timeout_t old = T->now;
   if (tick <= old)
      return;
   T->now = tick;
   for (unsigned level = 0; level < LEVELS; level++) {
      unsigned shift = level * LEVEL_BITS;
      if ((old >> shift) == (tick >> shift))
         break; /* this byte and all above are unchanged: nothing higher can be due */
      bool sameAbove = (old >> shift >> LEVEL_BITS) == (tick >> shift >> LEVEL_BITS);
      unsigned limit = sameAbove ? (unsigned)(tick >> shift) & (LEVEL_SLOTS - 1) : LEVEL_SLOTS - 1;
      unsigned slot;
      while ((slot = levelFirstSlot(T, level)) <= limit) {
         unsigned list = FIRST_SLOT + level * LEVEL_SLOTS + slot;
         if (level > 0 && sameAbove && slot == limit)
            redistribute(T, list);
         else
            expireSlot(T, list);
      }
   }
   if (!listEmpty(&T->lists[PARKED_LIST]) && (old >> SPAN_BITS) != (tick >> SPAN_BITS))
      redistribute(T, PARKED_LIST);
}

void timeouts_step(struct timeouts* T, timeout_t ticks) {
   timeouts_update(T, addSaturated(T->now, ticks));
}

timeout_t timeouts_timeout(const struct timeouts* T) {
   if (!listEmpty(&T->lists[EXPIRED_LIST]))
      return 0;
   if (T->nonempty) {
      /* The lowest non-empty word of the summary belongs to the lowest non-empty level, which
       * holds the earliest records; its lowest slot starts the earliest possible tick. */
      unsigned word = (unsigned)__builtin_ctz(T->nonempty);
      unsigned slot = word * 64 + (unsigned)__builtin_ctzll(T->slotBits[word]);
      unsigned shift = (slot / LEVEL_SLOTS) * LEVEL_BITS;
      timeout_t block = T->now >> shift >> LEVEL_BITS;
      timeout_t start = ((block << LEVEL_BITS) | (slot % LEVEL_SLOTS)) << shift;
      return start - T->now;
   }
   if (!listEmpty(&T->lists[PARKED_LIST])) {
      /* Parked records enter the wheel when now's top byte reaches theirs. parkedMin's top
       * byte is above now's: it was exact at the last pass over the list, which happens
       * whenever now's top byte changes. */
      timeout_t entry = (T->parkedMin >> SPAN_BITS) << SPAN_BITS;
      return entry - T->now;
   }
   return UINT64_MAX;
}

/* The first tick of the record's schedule: relative ticks from now, absolute ticks as given;
 * for an interval record the tick is the period. */
static inline timeout_t firstExpiry(const struct timeouts* T, struct timeout* to, timeout_t tick) {
   if (to->flags & TIMEOUT_INT) {
      to->interval = tick;
      if (!tick)
         return T->now;
      if (!(to->flags & TIMEOUT_ABS))
         return addSaturated(T->now, tick);
      timeout_t passed = T->now / tick;
      if (passed >= UINT64_MAX / tick)
         return UINT64_MAX; /* the next multiple would not fit */
      return (passed + 1) * tick;
   }
   to->interval = 0;
   return (to->flags & TIMEOUT_ABS) ? tick : addSaturated(T->now, tick);
}

void timeouts_add(struct timeouts* T, struct timeout* to, timeout_t tick) {
   if (to->timeouts)
      unlinkFrom(to->timeouts, to);
   to->expires = firstExpiry(T, to, tick);
   to->timeouts = T;
   place(T, to);
}

/* Re-arms an interval record that has just been taken off the expired queue at the first tick
 * of its schedule after now, skipping missed periods. Returns false when none is left. */
static bool rearm(struct timeouts* T, struct timeout* to) {
   timeout_t period = to->interval;
   if (T->now == UINT64_MAX)
      return false;
   /* expires <= now here, so the subtraction does not wrap. */
   timeout_t periods = (T->now - to->expires) / period + 1;
   if (periods > (UINT64_MAX - to->expires) / period)
      to->expires = UINT64_MAX;
   else
      to->expires += periods * period;
   place(T, to);
   return true;
}

struct timeout* timeouts_get(struct timeouts* T) {
   struct timeout_link* queue = &T->lists[EXPIRED_LIST];
   if (listEmpty(queue))
      return NULL;
   struct timeout* to = recordOf(queue->next);
   struct timeout_link* next = to->link.next;
   queue->next = next;
   next->prev = queue;
   if (!(to->flags & TIMEOUT_INT) || !to->interval || !rearm(T, to))
      makeIdle(to);
   return to;
}

bool timeouts_pending(const struct timeouts* T) {
   return T->nonempty || !listEmpty(&T->lists[PARKED_LIST]);
}

bool timeouts_expired(const struct timeouts* T) {
   return !listEmpty(&T->lists[EXPIRED_LIST]);
}

/* --- Iteration ---------------------------------------------------------------------------- */

/* The first non-empty list at or after index list that the flags select, or LISTS. */
static unsigned nextList(const struct timeouts* T, int flags, unsigned list) {
   if (list == EXPIRED_LIST) {
      if ((flags & TIMEOUTS_EXPIRED) && !listEmpty(&T->lists[EXPIRED_LIST]))
         return EXPIRED_LIST;
      list = FIRST_SLOT;
   }
   if (!(flags & TIMEOUTS_PENDING))
      return LISTS;
   for (unsigned slot = list - FIRST_SLOT; slot < SLOTS;) {
      uint64_t bits = T->slotBits[slot / 64] & (~UINT64_C(0) << (slot % 64));
      if (bits)
         return FIRST_SLOT + (slot & ~63u) + (unsigned)__builtin_ctzll(bits);
      slot = (slot & ~63u) + 64;
   }
   return listEmpty(&T->lists[PARKED_LIST]) ? LISTS : PARKED_LIST;
}

struct timeout* timeouts_next(struct timeouts* T, struct timeouts_it* it) {
   struct timeout* to = it->next;
   if (!to) {
      if (it->list >= LISTS)
         return NULL;
      it->list = nextList(T, it->flags, it->list);
      if (it->list >= LISTS)
         return NULL;
      to = recordOf(T->lists[it->list].next);
   }
   /* Decide the successor now, while the list is as the caller last saw it: the caller may
    * delete or move the record we return. Reaching the head again ends this list. */
   struct timeout_link* next = to->link.next;
   if (next == &T->lists[it->list]) {
      it->next = NULL;
      it->list++;
   } else {
      it->next = recordOf(next);
   }
   if (it->flags & TIMEOUTS_CLEAR)
      timeouts_del(T, to);
   return to;
}

/* --- Checking ----------------------------------------------------------------------------- */

#define CHECK(cond, ...)                     \
   do {                                      \
      if (!(cond)) {                         \
         ok = false;                         \
         if (fp) {                           \
            fprintf(fp, "timeouts_check: "); \
            fprintf(fp, __VA_ARGS__);        \
            fputc('\n', fp);                 \
         }                                   \
      }                                      \
   } while (0)

static bool checkRecord(const struct timeouts* T, unsigned list, const struct timeout* to,
                        FILE* fp) {
   bool ok = true;
   CHECK(to->link.next->prev == &to->link, "list %u: record %p: next->prev is %p", list,
         (const void*)to, (const void*)to->link.next->prev);
   CHECK(to->timeouts == T, "list %u: record %p: wheel is %p, expected %p", list, (const void*)to,
         (const void*)to->timeouts, (const void*)T);
   unsigned expected = listOf(to->expires, T->now);
   CHECK(expected == list, "list %u: record %p: tick %llu at now %llu belongs on list %u", list,
         (const void*)to, (unsigned long long)to->expires, (unsigned long long)T->now, expected);
   return ok;
}

/* Walks one list; stops at the first broken link so that a corrupt list cannot loop forever
 * (every step checks next->prev, so a cycle that skips the head is caught). */
static bool checkList(const struct timeouts* T, unsigned list, FILE* fp) {
   bool ok = true;
   const struct timeout_link* head = &T->lists[list];
   const bool empty = listEmpty(head);
   if (list - FIRST_SLOT < SLOTS) {
      unsigned slot = list - FIRST_SLOT;
      bool marked = (T->slotBits[slot / 64] >> (slot % 64)) & 1;
      CHECK(marked == !empty, "list %u: bitmap says %s, list is %s", list,
            marked ? "non-empty" : "empty", empty ? "empty" : "non-empty");
   }
   CHECK(head->next->prev == head, "list %u: head's next->prev is %p", list,
         (const void*)head->next->prev);
   if (!ok)
      return ok;
   for (const struct timeout_link* link = head->next; link != head; link = link->next) {
      if (!checkRecord(T, list, (const struct timeout*)(const void*)link, fp))
         return false;
   }
   return ok;
}

bool timeouts_check(const struct timeouts* T, FILE* fp) {
   bool ok = true;
   CHECK(T->hz != 0, "hz is 0");
   for (unsigned word = 0; word < WORDS; word++) {
      bool summary = (T->nonempty >> word) & 1;
      CHECK(summary == (T->slotBits[word] != 0), "summary bit %u is %d, word is %#llx", word,
            (int)summary, (unsigned long long)T->slotBits[word]);
   }
   CHECK((T->nonempty >> (WORDS - 1) >> 1) == 0, "summary has bits beyond the levels: %#x",
         (unsigned)T->nonempty);
   for (unsigned list = 0; list < LISTS; list++)
      ok = checkList(T, list, fp) && ok;
   return ok;
}
