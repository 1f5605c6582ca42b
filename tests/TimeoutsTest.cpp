#include <Korvo/Timeouts.h>

#include <gmock/gmock.h>

#include <cstdint>
#include <cstdlib>
#include <random>
#include <set>
#include <tuple>
#include <vector>

namespace {

constexpr timeout_t kMax = UINT64_MAX;

size_t count(timeouts* T, int flags) {
   size_t n = 0;
   timeout* to;
   TIMEOUTS_FOREACH(to, T, flags) n++;
   return n;
}

TEST(TimeoutsTest, OpenCheckAndClose) {
   EXPECT_EQ(timeouts_version(), unsigned{TIMEOUTS_VERSION});
   EXPECT_LE(timeouts_sizeof(), 30720u);
   int error = -1;
   timeouts* T = timeouts_open(0, &error);
   EXPECT_EQ(error, 0);
   EXPECT_EQ(timeouts_hz(T), TIMEOUT_mHZ);
   timeout recs[3], ticker;
   for (auto& r : recs)
      timeouts_add(T, timeout_init(&r, 0), 300);
   recs[1].expires = 5;  // what a broken wheel reports
   testing::internal::CaptureStderr();
   EXPECT_FALSE(timeouts_check(T, stderr));
   EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr("belongs on list"));
   recs[1].expires = recs[0].expires;
   // An interval whose next period would pass the end of time ends there.
   timeouts_update(T, kMax - 10);
   timeouts_add(T, timeout_init(&ticker, TIMEOUT_INT), 8);
   timeouts_update(T, kMax - 1);
   while (timeouts_get(T) != &ticker) {
   }
   EXPECT_EQ(ticker.expires, kMax);
   timeouts_close(T);  // leaves every record idle; deleting one then is harmless
   EXPECT_EQ(recs[0].timeouts, nullptr);
   timeout_del(&recs[0]);
   timeouts_close(nullptr);
}

// A wheel beside its reference: pending records in an ordered set by tick; the expired queue
// as (batch, tick, arming order, record), one batch per update and per add at or before now.
// Within a batch the wheel gives same-tick records in arming order.
struct ModelCheck {
   static bool HasFailure() { return testing::Test::HasFailure(); }
   enum class State { idle, pending, expired };
   struct Rec {
      timeout to;  // first: a record's address is its Rec's
      int flags = 0;
      State state = State::idle;
      timeout_t expires = 0, period = 0;
      uint64_t seq = 0, batch = 0;
   };
   using Key = std::tuple<uint64_t, timeout_t, uint64_t, size_t>;

   // Runs that start near the top of the tick space exercise parking and saturation.
   ModelCheck(uint64_t seed, size_t records, timeout_t start)
       : rng(seed), recs(records), now(start) {
      timeouts_update(T, start);
      for (Rec& r : recs) {
         r.flags = int(rng() % 8) * 4;  // user bits 4, 8, 16: the wheel never touches them
         r.flags |= rng() % 8 == 0 ? TIMEOUT_INT | (rng() % 4 ? 0 : TIMEOUT_ABS)
                                   : (rng() % 2 ? TIMEOUT_ABS : 0);
         timeout_init(&r.to, r.flags);
      }
   }
   ~ModelCheck() { timeouts_close(T); }

   // A value of a random bit length, so that deltas reach every level and beyond the span.
   timeout_t bits(unsigned maxBits) {
      const unsigned n = rng() % (maxBits + 1);
      return n >= 64 ? rng() : rng() & ((timeout_t(1) << n) - 1);
   }
   static timeout_t plus(timeout_t a, timeout_t b) { return a + b < a ? kMax : a + b; }
   // A tick at or next to a block boundary of some level: where off-by-one faults hide.
   timeout_t boundaryNear(timeout_t tick) {
      const unsigned shift = 8 * unsigned(1 + rng() % 7), how = rng() % 3;
      const timeout_t aligned = tick >> shift << shift;
      return how == 0 ? aligned : how == 1 ? aligned - (aligned > 0) : plus(aligned, 1);
   }
   // The first tick after now of base + k * period, clamped; in 128 bits so that it does not
   // share the wheel's overflow reasoning.
   timeout_t nextOfSchedule(timeout_t base, timeout_t period) const {
      const unsigned __int128 next = base + ((unsigned __int128)(now - base) / period + 1) * period;
      return next > kMax ? kMax : timeout_t(next);
   }
   size_t id(const Rec& r) const { return size_t(&r - recs.data()); }

   void forget(Rec& r) {
      const size_t erased = r.state == State::pending ? pending.erase({r.expires, id(r)})
                            : r.state == State::expired
                                ? expired.erase(Key(r.batch, r.expires, r.seq, id(r)))
                                : 1;
      EXPECT_EQ(erased, 1u);
      r.state = State::idle;
   }
   void arm(Rec& r, timeout_t expires) {
      r.expires = expires;
      r.seq = ++seq;
      r.state = expires <= now ? State::expired : State::pending;
      if (r.state == State::expired)
         expired.emplace(r.batch = ++batches, expires, r.seq, id(r));
      else
         pending.emplace(expires, id(r));
   }

   void add(Rec& r) {
      timeout_t tick, expires;
      const unsigned how = rng() % 10;
      if (r.flags & TIMEOUT_INT) {
         r.period = tick = how == 0 ? bits(40) : rng() % 2000;
         expires = !tick ? now : r.flags & TIMEOUT_ABS ? nextOfSchedule(0, tick) : plus(now, tick);
      } else if (r.flags & TIMEOUT_ABS) {
         expires = tick = how < 4   ? plus(now, bits(64))
                          : how < 6 ? boundaryNear(plus(now, bits(64)))
                          : how < 8 ? now - std::min(now, timeout_t(rng() % 100))
                                    : bits(64);
      } else {
         expires = plus(now, tick = how < 3 ? bits(64) : bits(16));
      }
      forget(r);
      timeouts_add(T, &r.to, tick);
      arm(r, expires);
      EXPECT_EQ(r.to.expires, expires) << "tick " << tick << " now " << now;
   }

   void del(Rec& r) {
      forget(r);
      rng() % 2 ? timeout_del(&r.to) : timeouts_del(T, &r.to);
      EXPECT_EQ(r.to.timeouts, nullptr);
   }

   void randomUpdate() {
      const unsigned how = rng() % 1000;
      const timeout_t delta = how < 700   ? bits(9)
                              : how < 950 ? bits(24)
                              : how < 995 ? bits(48)
                                          : bits(now < (timeout_t(1) << 61) ? 60 : 20);
      update(how % 10 == 0   ? now - std::min(now, delta)  // backwards: ignored
             : how % 10 == 1 ? boundaryNear(plus(now, delta))
                             : plus(now, delta),
             how % 10 > 1 && how % 2);
   }

   void update(timeout_t tick, bool viaStep) {
      viaStep&& tick > now ? timeouts_step(T, tick - now) : timeouts_update(T, tick);
      if (tick <= now)
         return;
      now = tick;
      for (++batches; !pending.empty() && pending.begin()->first <= now;) {
         Rec& r = recs[pending.begin()->second];
         pending.erase(pending.begin());
         r.state = State::expired;
         expired.emplace(r.batch = batches, r.expires, r.seq, id(r));
         EXPECT_TRUE(timeout_expired(&r.to)) << "tick " << r.expires << " now " << now;
      }
      EXPECT_EQ(count(T, TIMEOUTS_EXPIRED), expired.size()) << "fired early at now " << now;
   }

   // Following timeouts_timeout() reaches the first pending tick in a few wake-ups (one to leave
   // the parked list, one per level it cascades through, one to fire), never past it.
   void follow() {
      for (int wakeups = 0; expired.empty() && !pending.empty() && !HasFailure(); wakeups++) {
         EXPECT_LE(wakeups, 8) << "now " << now << " first " << pending.begin()->first;
         check(false);
         update(plus(now, timeouts_timeout(T)), false);
      }
   }

   void get() {
      timeout* to = timeouts_get(T);
      ASSERT_EQ(to == nullptr, expired.empty());
      if (!to)
         return;
      ASSERT_TRUE(&recs.front().to <= to && to <= &recs.back().to);
      Rec& r = *reinterpret_cast<Rec*>(to);
      ASSERT_EQ(r.state, State::expired);
      // From the oldest batch, and the first armed of its tick there.
      ASSERT_EQ(r.batch, std::get<0>(*expired.begin()));
      const Key first = *expired.lower_bound(Key(r.batch, r.expires, 0, 0));
      ASSERT_EQ(std::get<2>(first), r.seq) << "same-tick records out of arming order";
      forget(r);
      if ((r.flags & TIMEOUT_INT) && r.period && now != kMax)
         arm(r, nextOfSchedule(r.expires, r.period));
      EXPECT_EQ(timeout_pending(&r.to), r.state == State::pending);
      EXPECT_EQ(r.to.timeouts ? r.to.expires : 0, r.state == State::pending ? r.expires : 0);
   }

   void check(bool full) {
      EXPECT_EQ(timeouts_expired(T), !expired.empty());
      EXPECT_EQ(timeouts_pending(T), !pending.empty());
      const timeout_t wait = timeouts_timeout(T);
      if (!expired.empty() || pending.empty()) {
         EXPECT_EQ(wait, expired.empty() ? kMax : 0u);
      } else {
         EXPECT_GT(wait, 0u);
         EXPECT_LE(wait, pending.begin()->first - now) << "overstated at now " << now;
      }
      if (!full)
         return;
      EXPECT_TRUE(timeouts_check(T, stderr));
      for (Rec& r : recs) {
         EXPECT_EQ(r.to.flags, r.flags);
         EXPECT_EQ(timeout_pending(&r.to), r.state == State::pending);
         EXPECT_EQ(timeout_expired(&r.to), r.state == State::expired);
         EXPECT_EQ(r.state == State::idle ? 0 : r.to.expires,
                   r.state == State::idle ? 0 : r.expires);
      }
      EXPECT_EQ(count(T, TIMEOUTS_PENDING), pending.size());
      EXPECT_EQ(count(T, TIMEOUTS_ALL), pending.size() + expired.size());
   }

   void run(uint64_t ops) {
      for (uint64_t op = 0; op < ops && !HasFailure(); op++) {
         const unsigned what = rng() % 100;
         Rec& r = recs[rng() % recs.size()];
         if (what < 40)
            add(r);
         else if (what < 55)
            del(r);
         else if (what < 75)
            randomUpdate();
         else if (what < 78)
            follow();
         else if (what < 98)
            get();
         else
            r.to.flags = r.flags ^= int(rng() % 8) * 4;
         check(op % 1024 == 0);
      }
      check(true);
      if (rng() % 2)
         return clearAll();
      update(kMax, false);
      while (!expired.empty() && !HasFailure())
         get();
      check(true);
   }

   // Iterates over everything while deleting every other pending record it returns (allowed),
   // then clears the rest through the iterator.
   void clearAll() {
      timeouts_it it = TIMEOUTS_IT_INITIALIZER(TIMEOUTS_ALL);
      std::set<timeout*> seen;
      size_t deleted = 0;
      while (timeout* to = timeouts_next(T, &it)) {
         EXPECT_TRUE(seen.insert(to).second);
         if (timeout_pending(to) && deleted++ % 2 == 0)
            timeout_del(to);
      }
      EXPECT_EQ(seen.size(), pending.size() + expired.size());
      EXPECT_TRUE(timeouts_check(T, stderr));
      size_t cleared = 0;
      for (timeouts_it_init(&it, TIMEOUTS_ALL | TIMEOUTS_CLEAR);
           timeout* to = timeouts_next(T, &it); cleared++)
         EXPECT_EQ(to->timeouts, nullptr);
      EXPECT_EQ(cleared, seen.size() - (deleted + 1) / 2);
      EXPECT_FALSE(timeouts_pending(T) || timeouts_expired(T));
   }

   std::mt19937_64 rng;
   std::vector<Rec> recs;
   timeouts* T = timeouts_open(100, nullptr);
   timeout_t now;
   uint64_t seq = 0, batches = 0;
   std::set<std::pair<timeout_t, size_t>> pending;
   std::set<Key> expired;
};

// 10^6 operations over eight runs by default; KORVO_TIMEOUTS_SOAK_OPS sets another total for a
// longer run and KORVO_TIMEOUTS_SEED another first seed.
TEST(TimeoutsTest, ModelCheckAgainstOrderedSets) {
   const char *ops = getenv("KORVO_TIMEOUTS_SOAK_OPS"), *seed = getenv("KORVO_TIMEOUTS_SEED");
   const size_t sizes[] = {8, 64, 512, 4096};
   const timeout_t starts[] = {0, (timeout_t(1) << 56) - 1000000, kMax - (timeout_t(1) << 32)};
   for (uint64_t i = 0; i < 8 && !HasFailure(); i++) {
      SCOPED_TRACE(i);
      ModelCheck((seed ? strtoull(seed, nullptr, 0) : 1) + i, sizes[i % 4], starts[i % 3])
          .run((ops ? strtoull(ops, nullptr, 0) : 1000000) / 8);
   }
}

}  // namespace
