#define KORVO_SOURCE_FILE "LibeventFactoryTimeoutsCpp"
#include "LibeventFactory.h"

#include <algorithm>
#include <vector>

// libevent keeps timeouts in a min-heap and in common-timeout queues, none of which its
// public interface lets us read or edit in place. What it does offer: walking every
// event of a base (event_base_foreach_event), reading an event's absolute expiry
// (event_pending), and adding an event again, which replaces its expiry. Adding is not
// allowed during the walk, so the walks below collect first and act afterwards.

namespace Korvo {

namespace {

void ignoreEvent(evutil_socket_t, short, void*) {}

struct PendingTimeout {
   event* ev;
   int64_t expiry;
};

// Timeouts of persistent events are left where they are: libevent takes a persistent
// event's period from the time it is added with, and its public interface has no way
// to move the expiry alone, so moving one would change its period for good (and a
// negative remaining time would make it fire on every pass).
bool movable(const event* ev, timeval* expiry) {
   return (event_get_events(ev) & EV_PERSIST) == 0 && event_pending(ev, EV_TIMEOUT, expiry);
}

int collectPending(const event_base*, const event* ev, void* out) {
   timeval expiry;
   if (movable(ev, &expiry)) {
      // The walk hands out const events; adding them again afterwards is what the
      // walk's owner may do.
      static_cast<std::vector<PendingTimeout>*>(out)->push_back(
          {const_cast<event*>(ev), microsFromTimeval(expiry)});
   }
   return 0;
}

struct Earliest {
   bool found = false;
   int64_t expiry = 0;
};

int findEarliest(const event_base*, const event* ev, void* out) {
   timeval expiry;
   if (movable(ev, &expiry)) {
      auto* earliest = static_cast<Earliest*>(out);
      const int64_t micros = microsFromTimeval(expiry);
      if (!earliest->found || micros < earliest->expiry) {
         earliest->found = true;
         earliest->expiry = micros;
      }
   }
   return 0;
}

}  // namespace

void event_base_now(event_base* base, timeval* now) {
   // libevent computes a zero timeout's expiry from exactly the reading of its clock
   // (cached or not) that any other event added now would get, and event_pending maps
   // it as it maps every other expiry.
   event scratch;
   event_assign(&scratch, base, -1, 0, &ignoreEvent, nullptr);
   const timeval zero{0, 0};
   event_add(&scratch, &zero);
   event_pending(&scratch, EV_TIMEOUT, now);
   event_del(&scratch);
   event_debug_unassign(&scratch);
}

int event_base_get_first_timeout(event_base* base, timeval* first) {
   Earliest earliest;
   event_base_foreach_event(base, &findEarliest, &earliest);
   if (!earliest.found) {
      return -1;
   }
   *first = timevalFromMicros(earliest.expiry);
   return 0;
}

namespace {

// Adds `ev` so that it expires at `target` and returns the base's present time as that
// add saw it (both on the event_pending scale). libevent only takes a remaining time,
// measured from its own reading of the clock at the add; `now` is our best guess of
// that reading. Reading the expiry back shows what the add actually measured from; if
// the clock moved on since the guess, the event is added once more with the
// correction. Without this each event would land late by the time spent so far, and
// the slip would pile up over many jumps.
int64_t addAt(event* ev, int64_t target, int64_t now) {
   for (int attempt = 0; attempt < 2; ++attempt) {
      const int64_t left = target - now;
      // Negative when the new expiry is already past: libevent then files it at its
      // exact place in the past, ahead of later ones, rather than all at "now".
      const timeval tv = timevalFromMicros(left);
      event_add(ev, &tv);
      timeval expiry;
      if (!event_pending(ev, EV_TIMEOUT, &expiry)) {
         break;  // refused (a finalizing event): nothing to correct
      }
      const int64_t seen = microsFromTimeval(expiry) - left;
      if (seen == now) {
         break;
      }
      now = seen;
   }
   return now;
}

}  // namespace

int event_base_timeout_subtract_offset(event_base* base, const timeval* delta) {
   const int64_t shift = microsFromTimeval(*delta);
   if (shift < 0) {
      return -1;
   }
   if (shift == 0) {
      return 0;
   }
   // "Now" is read before the walk, so that it and the expiries the walk reads are
   // mapped to the wall clock by the same offset.
   timeval nowTv;
   event_base_now(base, &nowTv);
   int64_t now = microsFromTimeval(nowTv);

   std::vector<PendingTimeout> pending;
   pending.reserve(static_cast<size_t>(
       event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED | EVENT_BASE_COUNT_ACTIVE)));
   event_base_foreach_event(base, &collectPending, &pending);
   // In expiry order, so that equal new expiries keep their old order in the heap.
   std::sort(pending.begin(), pending.end(),
             [](const PendingTimeout& a, const PendingTimeout& b) { return a.expiry < b.expiry; });

   for (const PendingTimeout& p : pending) {
      now = addAt(p.ev, p.expiry - shift, now);
   }
   return static_cast<int>(pending.size());
}

}  // namespace Korvo
