#define KORVO_SOURCE_FILE "LibeventFactoryTimeoutsCpp"
#include "LibeventFactory.h"

#include <algorithm>
#include <vector>

// libevent keeps timeouts in a min-heap and in common-timeout queues, none of which its
// public interface lets us read or edit in place. What it does offer: walking every
// event of a base (event_base_foreach_event), reading an event's absolute expiry
// (event_pending), and adding an event again, which replaces its expiry. Adding is not
// allowed during the walk, so the walks below collect first and act afterwards.
//
// event_pending reports an expiry as the base's monotonic time plus the base's offset
// to the wall clock. libevent refreshes that offset every few seconds when it reads its
// clock, and with the coarse clock it can move by a whole clock step, so two readings
// are comparable only when no clock reading (an event_add, say) came between them.

namespace Korvo {

namespace {

void ignoreEvent(evutil_socket_t, short, void*) {}

int64_t expiryOf(const event* ev) {
   timeval expiry;
   event_pending(ev, EV_TIMEOUT, &expiry);
   return microsFromTimeval(expiry);
}

// A zero timeout added on the stack: libevent computes its expiry from exactly the
// reading of its clock (cached or not) that any other event added at that moment would
// get, so it marks "now" on the base's own scale for as long as it is pending.
class NowMark {
public:
   explicit NowMark(event_base* base) : event_(base, timeval{0, 0}, &ignoreEvent) {}

   const event* mark() const { return event_.get(); }
   int64_t now() const { return expiryOf(event_.get()); }
   // How far `ev` expires after the mark, free of the wall-clock offset.
   int64_t after(const event* ev) const { return expiryOf(ev) - now(); }

private:
   ScopedTimerEvent event_;
};

struct PendingTimeout {
   event* ev;
   int64_t expiry;
};

struct Walk {
   const event* skip = nullptr;
   std::vector<PendingTimeout> pending;
   bool found = false;
   int64_t earliest = 0;
};

// Timeouts of persistent events are left where they are: libevent takes a persistent
// event's period from the time it is added with, and its public interface has no way
// to move the expiry alone, so moving one would change its period for good (and a
// negative remaining time would make it fire on every pass).
//
// Our loop runners' break events are not timers either: the end of a span of real
// time must not be moved by a jump (the loop would end early), and the end of a pass
// is no timer for the loop to jump to.
bool movable(const Walk& walk, const event* ev, timeval* expiry) {
   return ev != walk.skip && (event_get_events(ev) & EV_PERSIST) == 0 &&
          event_get_callback(ev) != &EvLoopBreak::handleBaseLoopBreak &&
          event_pending(ev, EV_TIMEOUT, expiry);
}

int collectPending(const event_base*, const event* ev, void* out) {
   auto* walk = static_cast<Walk*>(out);
   timeval expiry;
   if (movable(*walk, ev, &expiry)) {
      // The walk hands out const events; adding them again afterwards is what the
      // walk's owner may do.
      walk->pending.push_back({const_cast<event*>(ev), microsFromTimeval(expiry)});
   }
   return 0;
}

int findEarliest(const event_base*, const event* ev, void* out) {
   auto* walk = static_cast<Walk*>(out);
   timeval expiry;
   if (movable(*walk, ev, &expiry)) {
      const int64_t micros = microsFromTimeval(expiry);
      if (!walk->found || micros < walk->earliest) {
         walk->found = true;
         walk->earliest = micros;
      }
   }
   return 0;
}

// Adds `ev` to expire `target` after the mark. libevent only takes a remaining time,
// measured from its own reading of the clock at the add, which may have moved on since
// the mark was set (`advance` is our latest knowledge of how far). Reading the result
// back against the mark shows what the add measured from; when the clock moved on, the
// event is added again with the correction. Without this each event would land late by
// the time spent so far, and the slips would pile up over many jumps. A precise clock
// can tick on between two adds too, hence a few attempts; what is left after them is a
// microsecond late, never early. Returns the advance the last add saw.
int64_t addAfterMark(const NowMark& mark, event* ev, int64_t target, int64_t advance) {
   for (int attempt = 0; attempt < 4; ++attempt) {
      // Negative when the new expiry is already past: libevent then files it at its
      // exact place in the past, ahead of later ones, rather than all at "now".
      const int64_t left = target - advance;
      const timeval tv = timevalFromMicros(left);
      event_add(ev, &tv);
      if (!event_pending(ev, EV_TIMEOUT, nullptr)) {
         break;  // refused (a finalizing event): nothing to correct
      }
      const int64_t got = mark.after(ev);
      advance = got - left;
      if (got == target) {
         break;
      }
   }
   return advance;
}

}  // namespace

void event_base_now(event_base* base, timeval* now) {
   const NowMark mark(base);
   *now = timevalFromMicros(mark.now());
}

int event_base_get_first_timeout(event_base* base, timeval* first) {
   Walk walk;
   event_base_foreach_event(base, &findEarliest, &walk);
   if (!walk.found) {
      return -1;
   }
   *first = timevalFromMicros(walk.earliest);
   return 0;
}

int event_base_timeout_subtract_offset(event_base* base, const timeval* delta) {
   const int64_t shift = microsFromTimeval(*delta);
   if (shift < 0) {
      return -1;
   }
   if (shift == 0) {
      return 0;
   }
   // The mark is set before the walk, so that it and the expiries the walk reads are on
   // the same scale, and it stays pending until every event is back, as the reference
   // all their new expiries are measured against.
   const NowMark mark(base);
   Walk walk;
   walk.skip = mark.mark();
   walk.pending.reserve(static_cast<size_t>(
       event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED | EVENT_BASE_COUNT_ACTIVE)));
   event_base_foreach_event(base, &collectPending, &walk);
   const int64_t now = mark.now();
   // In expiry order, so that equal new expiries keep their old order in the heap.
   std::sort(walk.pending.begin(), walk.pending.end(),
             [](const PendingTimeout& a, const PendingTimeout& b) { return a.expiry < b.expiry; });

   int64_t advance = 0;
   for (const PendingTimeout& p : walk.pending) {
      advance = addAfterMark(mark, p.ev, p.expiry - shift - now, advance);
   }
   return static_cast<int>(walk.pending.size());
}

}  // namespace Korvo
