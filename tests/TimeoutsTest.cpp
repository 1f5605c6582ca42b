#include <Korvo/Timeouts.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace {

constexpr timeout_t kMax = UINT64_MAX;
constexpr int kUserBits = 4 | 8 | 16;

struct WheelCloser {
   void operator()(timeouts* T) const { timeouts_close(T); }
};
using Wheel = std::unique_ptr<timeouts, WheelCloser>;

Wheel openWheel(timeout_t hz = 100) {
   int error = -1;
   Wheel T(timeouts_open(hz, &error));
   EXPECT_TRUE(T);
   EXPECT_EQ(error, 0);
   return T;
}

// Drains the expired queue, returning the records in the order the wheel gave them.
std::vector<timeout*> drain(timeouts* T) {
   std::vector<timeout*> out;
   while (timeout* to = timeouts_get(T))
      out.push_back(to);
   return out;
}

size_t count(timeouts* T, int flags) {
   size_t n = 0;
   timeout* to;
   TIMEOUTS_FOREACH(to, T, flags) {
      n++;
   }
   return n;
}

std::string checkReport(const timeouts* T, bool* ok) {
   char* buf = nullptr;
   size_t len = 0;
   FILE* fp = open_memstream(&buf, &len);
   *ok = timeouts_check(T, fp);
   fclose(fp);
   std::string text(buf, len);
   free(buf);
   return text;
}

TEST(TimeoutsTest, OpensWithRateAndReportsEmptyWheel) {
   EXPECT_EQ(timeouts_version(), unsigned{TIMEOUTS_VERSION});
   Wheel byDefault = openWheel(0);
   EXPECT_EQ(timeouts_hz(byDefault.get()), TIMEOUT_mHZ);
   Wheel fine = openWheel(TIMEOUT_nHZ);
   EXPECT_EQ(timeouts_hz(fine.get()), TIMEOUT_C(1000) * TIMEOUT_uHZ);
   Wheel T = openWheel(100);
   EXPECT_EQ(timeouts_hz(T.get()), 100u);
   EXPECT_FALSE(timeouts_pending(T.get()));
   EXPECT_FALSE(timeouts_expired(T.get()));
   EXPECT_EQ(timeouts_timeout(T.get()), kMax);
   EXPECT_EQ(timeouts_get(T.get()), nullptr);
   EXPECT_TRUE(timeouts_check(T.get(), stderr));
   EXPECT_LE(timeouts_sizeof(), 16384u);
   EXPECT_LE(sizeof(timeout), 48u);
   Wheel noErrorSlot(timeouts_open(10, nullptr));
   EXPECT_TRUE(noErrorSlot);
   timeouts_close(nullptr);
}

TEST(TimeoutsTest, FiresInTheUpdateThatPassesItsTick) {
   timeout rel, abs;
   Wheel T = openWheel();
   timeouts_update(T.get(), 1000);
   timeout_init(&rel, 0);
   timeout_init(&abs, TIMEOUT_ABS);
   timeouts_add(T.get(), &rel, 10);  // relative: tick 1010
   timeouts_add(T.get(), &abs, 1020);
   EXPECT_EQ(rel.expires, 1010u);
   EXPECT_TRUE(timeout_pending(&rel));
   EXPECT_FALSE(timeout_expired(&rel));
   EXPECT_EQ(timeouts_timeout(T.get()), 10u);

   timeouts_update(T.get(), 1009);
   EXPECT_FALSE(timeouts_expired(T.get()));
   EXPECT_EQ(timeouts_timeout(T.get()), 1u);
   timeouts_update(T.get(), 1010);
   EXPECT_TRUE(timeout_expired(&rel));
   EXPECT_EQ(timeouts_timeout(T.get()), 0u);
   EXPECT_EQ(drain(T.get()), std::vector<timeout*>{&rel});
   EXPECT_FALSE(timeout_pending(&rel));
   EXPECT_FALSE(timeout_expired(&rel));
   EXPECT_EQ(rel.timeouts, nullptr);
   EXPECT_EQ(timeouts_timeout(T.get()), 10u);

   // Time never goes back: an earlier tick is ignored.
   timeouts_update(T.get(), 5);
   EXPECT_EQ(timeouts_timeout(T.get()), 10u);
   timeouts_step(T.get(), 10);
   EXPECT_EQ(drain(T.get()), std::vector<timeout*>{&abs});
   // Nothing fires twice.
   timeouts_step(T.get(), 100000);
   EXPECT_TRUE(drain(T.get()).empty());
   EXPECT_FALSE(timeouts_pending(T.get()));
}

TEST(TimeoutsTest, AddingAtOrBeforeNowExpiresAtOnce) {
   timeout now, past, zero;
   Wheel T = openWheel();
   timeouts_update(T.get(), 500);
   timeouts_add(T.get(), timeout_init(&now, TIMEOUT_ABS), 500);
   timeouts_add(T.get(), timeout_init(&past, TIMEOUT_ABS), 3);
   timeouts_add(T.get(), timeout_init(&zero, 0), 0);
   EXPECT_TRUE(timeout_expired(&now));
   EXPECT_TRUE(timeout_expired(&past));
   EXPECT_TRUE(timeout_expired(&zero));
   EXPECT_FALSE(timeouts_pending(T.get()));
   EXPECT_TRUE(timeouts_expired(T.get()));
   EXPECT_EQ(timeouts_timeout(T.get()), 0u);
   EXPECT_EQ(drain(T.get()), (std::vector<timeout*>{&now, &past, &zero}));
}

TEST(TimeoutsTest, DeleteIsIdempotentAndWorksInEveryState) {
   timeout to = TIMEOUT_INITIALIZER(4);
   EXPECT_EQ(to.flags, 4);
   EXPECT_FALSE(timeout_pending(&to));
   Wheel T = openWheel();
   timeout_init(&to, 0);
   timeout_del(&to);  // idle: nothing to do
   timeouts_del(T.get(), &to);
   timeouts_add(T.get(), &to, 100);
   timeout_del(&to);
   timeout_del(&to);
   EXPECT_FALSE(timeout_pending(&to));
   EXPECT_FALSE(timeouts_pending(T.get()));
   EXPECT_EQ(timeouts_timeout(T.get()), kMax);

   timeouts_add(T.get(), &to, 100);
   timeouts_step(T.get(), 100);
   EXPECT_TRUE(timeout_expired(&to));
   timeout_del(&to);
   timeouts_del(T.get(), &to);
   EXPECT_FALSE(timeout_expired(&to));
   EXPECT_FALSE(timeouts_expired(T.get()));
   EXPECT_EQ(timeouts_get(T.get()), nullptr);
   EXPECT_TRUE(timeouts_check(T.get(), stderr));
}

TEST(TimeoutsTest, ReAddingMovesPendingAndExpiredRecords) {
   timeout to;
   Wheel T = openWheel();
   Wheel other = openWheel();
   timeout_init(&to, TIMEOUT_ABS);
   timeouts_add(T.get(), &to, 70000);  // a high level
   timeouts_add(T.get(), &to, 30);     // moved down
   EXPECT_EQ(timeouts_timeout(T.get()), 30u);
   timeouts_update(T.get(), 30);
   EXPECT_TRUE(timeout_expired(&to));
   timeouts_add(T.get(), &to, 40);  // expired back to pending
   EXPECT_FALSE(timeouts_expired(T.get()));
   EXPECT_TRUE(timeout_pending(&to));
   timeouts_add(other.get(), &to, 5);  // onto another wheel
   EXPECT_FALSE(timeouts_pending(T.get()));
   EXPECT_EQ(to.timeouts, other.get());
   timeouts_update(T.get(), 100);
   EXPECT_EQ(timeouts_get(T.get()), nullptr);
   timeouts_update(other.get(), 5);
   EXPECT_EQ(timeouts_get(other.get()), &to);
   EXPECT_TRUE(timeouts_check(T.get(), stderr));
   EXPECT_TRUE(timeouts_check(other.get(), stderr));
}

TEST(TimeoutsTest, UserFlagBitsAreNeverTouchedNorConsulted) {
   std::vector<timeout> recs(64);
   Wheel T = openWheel();
   for (size_t i = 0; i < recs.size(); i++)
      timeouts_add(T.get(), timeout_init(&recs[i], TIMEOUT_ABS | 4), 1 + i * 997);
   for (size_t i = 0; i < recs.size(); i++)
      recs[i].flags = TIMEOUT_ABS | (i % 2 ? 8 : 16);  // the owner changes its state while linked
   timeouts_update(T.get(), 1 + 32 * 997);
   for (size_t i = 0; i < recs.size(); i++)
      EXPECT_EQ(recs[i].flags, TIMEOUT_ABS | (i % 2 ? 8 : 16));
   EXPECT_EQ(drain(T.get()).size(), 33u);
   timeouts_update(T.get(), kMax);
   EXPECT_EQ(drain(T.get()).size(), 31u);
   for (size_t i = 0; i < recs.size(); i++)
      EXPECT_EQ(recs[i].flags & kUserBits, i % 2 ? 8 : 16);
}

TEST(TimeoutsTest, TimeoutNeverOverstatesAndReachesEachRecord) {
   // Whatever the level a record starts on, following timeouts_timeout() lands exactly on its
   // tick after a few wake-ups (one to leave the parked list, one per level it cascades
   // through, one to fire) and never past it.
   std::mt19937_64 rng(7);
   for (int round = 0; round < 2000; round++) {
      timeout to;
      Wheel T = openWheel();
      timeout_t start = rng() >> (rng() % 64);
      timeouts_update(T.get(), start);
      timeout_t tick = start + 1 + (rng() >> (rng() % 63 + 1));
      if (tick <= start)
         tick = kMax;
      timeouts_add(T.get(), timeout_init(&to, TIMEOUT_ABS), tick);
      timeout_t now = start;
      int wakeups = 0;
      while (!timeouts_expired(T.get())) {
         timeout_t wait = timeouts_timeout(T.get());
         ASSERT_GT(wait, 0u);
         ASSERT_LE(wait, tick - now) << "start " << start << " tick " << tick;
         now += wait;
         timeouts_update(T.get(), now);
         ASSERT_LE(++wakeups, 8) << "start " << start << " tick " << tick;
      }
      EXPECT_EQ(now, tick);
      EXPECT_EQ(timeouts_timeout(T.get()), 0u);
   }
}

TEST(TimeoutsTest, LargeTicksAndStepsDoNotOverflow) {
   timeout a, b, c, d;
   Wheel T = openWheel();
   timeout_t big = timeout_t(1) << 53;
   timeouts_update(T.get(), big);
   timeouts_add(T.get(), timeout_init(&a, TIMEOUT_ABS), big + 1);
   timeouts_add(T.get(), timeout_init(&b, 0), timeout_t(1) << 48);
   timeouts_add(T.get(), timeout_init(&c, 0), kMax);  // saturates at UINT64_MAX
   timeouts_add(T.get(), timeout_init(&d, TIMEOUT_ABS), kMax);
   EXPECT_EQ(c.expires, kMax);
   timeouts_step(T.get(), 1);
   EXPECT_EQ(drain(T.get()), std::vector<timeout*>{&a});
   timeouts_step(T.get(), (timeout_t(1) << 48) - 2);
   EXPECT_TRUE(drain(T.get()).empty());
   timeouts_step(T.get(), 1);
   EXPECT_EQ(drain(T.get()), std::vector<timeout*>{&b});
   timeouts_update(T.get(), kMax - 1);
   EXPECT_TRUE(drain(T.get()).empty());
   EXPECT_EQ(timeouts_timeout(T.get()), 1u);
   timeouts_step(T.get(), kMax);  // saturates
   EXPECT_EQ(drain(T.get()), (std::vector<timeout*>{&c, &d}));
   // At the end of time every add has already expired.
   timeouts_add(T.get(), &a, 5);
   EXPECT_TRUE(timeout_expired(&a));
   EXPECT_TRUE(timeouts_check(T.get(), stderr));
}

TEST(TimeoutsTest, ParkedRecordsNeverFireEarly) {
   timeout parked, near;
   Wheel T = openWheel();
   timeout_t far = timeout_t(3) << 60;
   timeouts_add(T.get(), timeout_init(&parked, TIMEOUT_ABS), far);
   EXPECT_TRUE(timeout_pending(&parked));
   EXPECT_TRUE(timeouts_pending(T.get()));
   // With only parked records the wait is until the earliest enters the wheel.
   EXPECT_EQ(timeouts_timeout(T.get()), far);
   timeouts_update(T.get(), (timeout_t(1) << 56) - 3);
   timeouts_add(T.get(), timeout_init(&near, TIMEOUT_ABS), (timeout_t(1) << 56) + 5);  // parked
   EXPECT_EQ(timeouts_timeout(T.get()), 3u);
   timeouts_update(T.get(), timeout_t(1) << 56);
   EXPECT_EQ(timeouts_timeout(T.get()), 5u);
   timeouts_update(T.get(), far - 1);
   EXPECT_EQ(drain(T.get()), std::vector<timeout*>{&near});
   EXPECT_TRUE(timeout_pending(&parked));
   EXPECT_EQ(timeouts_timeout(T.get()), 1u);
   timeouts_update(T.get(), far);
   EXPECT_EQ(drain(T.get()), std::vector<timeout*>{&parked});

   // One jump past everything.
   timeouts_add(T.get(), &parked, kMax - 1);
   timeouts_update(T.get(), kMax);
   EXPECT_EQ(drain(T.get()), std::vector<timeout*>{&parked});
}

TEST(TimeoutsTest, SameTickFiresInArmingOrderThroughCascades) {
   std::vector<timeout> recs(50);
   Wheel T = openWheel();
   timeouts_update(T.get(), 1234567);
   const timeout_t tick = 1234567 + 6000;
   std::vector<timeout*> expect;
   for (size_t i = 0; i < recs.size(); i++) {
      timeout_init(&recs[i], TIMEOUT_ABS);
      timeouts_add(T.get(), &recs[i], tick);
      expect.push_back(&recs[i]);
      timeouts_step(T.get(), 100);  // later records are armed from ever closer
   }
   // Re-arming moves a record to the back.
   timeouts_add(T.get(), &recs[0], tick);
   expect.erase(expect.begin());
   expect.push_back(&recs[0]);
   timeouts_update(T.get(), tick);
   EXPECT_EQ(drain(T.get()), expect);
}

TEST(TimeoutsTest, IntervalRecordsRearmAndSkipMissedPeriods) {
   timeout to;
   Wheel T = openWheel();
   timeouts_update(T.get(), 3);
   timeouts_add(T.get(), timeout_init(&to, TIMEOUT_INT | 8), 10);
   EXPECT_EQ(to.expires, 13u);
   timeouts_update(T.get(), 13);
   EXPECT_EQ(timeouts_get(T.get()), &to);
   EXPECT_TRUE(timeout_pending(&to));  // armed again
   EXPECT_EQ(to.expires, 23u);
   timeouts_update(T.get(), 58);  // 23, 33, 43, 53 passed: fires once
   EXPECT_EQ(timeouts_get(T.get()), &to);
   EXPECT_EQ(timeouts_get(T.get()), nullptr);
   EXPECT_EQ(to.expires, 63u);
   EXPECT_EQ(to.flags, TIMEOUT_INT | 8);

   // Deleting stops it, pending or expired.
   timeout_del(&to);
   timeouts_update(T.get(), 100);
   EXPECT_EQ(timeouts_get(T.get()), nullptr);
   timeouts_add(T.get(), &to, 10);
   timeouts_update(T.get(), 110);
   EXPECT_TRUE(timeout_expired(&to));
   timeouts_del(T.get(), &to);
   EXPECT_FALSE(timeouts_pending(T.get()));
   EXPECT_FALSE(timeouts_expired(T.get()));

   // Clearing the flag while linked makes the next firing the last.
   timeouts_add(T.get(), &to, 10);
   to.flags &= ~TIMEOUT_INT;
   timeouts_update(T.get(), 120);
   EXPECT_EQ(timeouts_get(T.get()), &to);
   EXPECT_FALSE(timeout_pending(&to));

   // Absolute: aligned to multiples of the period.
   timeouts_add(T.get(), timeout_init(&to, TIMEOUT_INT | TIMEOUT_ABS), 50);
   EXPECT_EQ(to.expires, 150u);
   timeouts_update(T.get(), 260);
   EXPECT_EQ(timeouts_get(T.get()), &to);
   EXPECT_EQ(to.expires, 300u);

   // Period 0: a one-shot that has already expired.
   timeouts_add(T.get(), timeout_init(&to, TIMEOUT_INT), 0);
   EXPECT_TRUE(timeout_expired(&to));
   EXPECT_EQ(timeouts_get(T.get()), &to);
   EXPECT_FALSE(timeout_pending(&to));

   // Near the end of time: a schedule that still fits is kept, one that does not is clamped,
   // then it ends.
   timeouts_update(T.get(), kMax - 10);
   timeouts_add(T.get(), timeout_init(&to, TIMEOUT_INT), 4);
   timeouts_update(T.get(), kMax - 5);
   EXPECT_EQ(timeouts_get(T.get()), &to);
   EXPECT_EQ(to.expires, kMax - 2);
   timeout_del(&to);
   timeouts_add(T.get(), timeout_init(&to, TIMEOUT_INT), 3);
   timeouts_update(T.get(), kMax - 2);
   EXPECT_EQ(timeouts_get(T.get()), &to);
   EXPECT_EQ(to.expires, kMax);
   timeouts_update(T.get(), kMax);
   EXPECT_EQ(timeouts_get(T.get()), &to);
   EXPECT_FALSE(timeout_pending(&to));
   EXPECT_TRUE(timeouts_check(T.get(), stderr));
}

TEST(TimeoutsTest, IteratesPendingExpiredAndAll) {
   std::vector<timeout> recs(300);
   Wheel T = openWheel();
   for (size_t i = 0; i < recs.size(); i++)
      timeouts_add(T.get(), timeout_init(&recs[i], 0), i % 3 ? 1 + (i * 7919) % 100000 : 0);
   size_t expiredAtOnce = recs.size() / 3;
   timeouts_update(T.get(), 50000);
   size_t expired = 0;
   for (auto& r : recs)
      expired += timeout_expired(&r);
   EXPECT_GT(expired, expiredAtOnce);
   EXPECT_EQ(count(T.get(), TIMEOUTS_EXPIRED), expired);
   EXPECT_EQ(count(T.get(), TIMEOUTS_PENDING), recs.size() - expired);
   EXPECT_EQ(count(T.get(), TIMEOUTS_ALL), recs.size());

   // Pending records come out in tick order at the granularity of slots; expired ones first.
   timeouts_it it = TIMEOUTS_IT_INITIALIZER(TIMEOUTS_ALL);
   std::set<timeout*> seen;
   bool inPending = false;
   while (timeout* to = timeouts_next(T.get(), &it)) {
      EXPECT_TRUE(seen.insert(to).second);
      if (timeout_pending(to))
         inPending = true;
      else
         EXPECT_FALSE(inPending) << "expired record after a pending one";
   }
   EXPECT_EQ(timeouts_next(T.get(), &it), nullptr);

   // Iterations nest.
   size_t pairs = 0;
   timeout *outer, *inner;
   TIMEOUTS_FOREACH(outer, T.get(), TIMEOUTS_EXPIRED) {
      TIMEOUTS_FOREACH(inner, T.get(), TIMEOUTS_EXPIRED) {
         pairs += outer != inner;
      }
   }
   EXPECT_EQ(pairs, expired * (expired - 1));

   // Deleting the record just returned is allowed.
   TIMEOUTS_IT_INIT(&it, TIMEOUTS_PENDING);
   size_t deleted = 0;
   while (timeout* to = timeouts_next(T.get(), &it)) {
      if (deleted++ % 2 == 0)
         timeout_del(to);
   }
   EXPECT_EQ(deleted, recs.size() - expired);
   EXPECT_EQ(count(T.get(), TIMEOUTS_PENDING), deleted / 2);
   EXPECT_TRUE(timeouts_check(T.get(), stderr));

   // Clearing leaves everything idle.
   timeouts_it_init(&it, TIMEOUTS_ALL | TIMEOUTS_CLEAR);
   size_t cleared = 0;
   while (timeout* to = timeouts_next(T.get(), &it)) {
      EXPECT_EQ(to->timeouts, nullptr);
      cleared++;
   }
   EXPECT_EQ(cleared, expired + deleted / 2);
   EXPECT_FALSE(timeouts_pending(T.get()));
   EXPECT_FALSE(timeouts_expired(T.get()));
   EXPECT_TRUE(timeouts_check(T.get(), stderr));
}

TEST(TimeoutsTest, CloseLeavesRecordsIdle) {
   timeout a, b;
   {
      Wheel T = openWheel();
      timeouts_add(T.get(), timeout_init(&a, 0), 10);
      timeouts_add(T.get(), timeout_init(&b, 0), 0);
   }
   EXPECT_EQ(a.timeouts, nullptr);
   EXPECT_EQ(b.timeouts, nullptr);
   timeout_del(&a);
   EXPECT_FALSE(timeout_pending(&a));
}

TEST(TimeoutsTest, CheckReportsBrokenInvariants) {
   std::vector<timeout> recs(3);
   Wheel T = openWheel();
   for (auto& r : recs)
      timeouts_add(T.get(), timeout_init(&r, 0), 300);
   bool ok = false;
   EXPECT_EQ(checkReport(T.get(), &ok), "");
   EXPECT_TRUE(ok);

   recs[1].expires = 5;  // now it sits in the wrong slot
   std::string report = checkReport(T.get(), &ok);
   EXPECT_FALSE(ok);
   EXPECT_NE(report.find("belongs on list"), std::string::npos) << report;
   recs[1].expires = 300;

   timeout* saved = recs[2].prev;
   recs[2].prev = &recs[2];  // a broken link
   report = checkReport(T.get(), &ok);
   EXPECT_FALSE(ok);
   EXPECT_NE(report.find("next->prev"), std::string::npos) << report;
   recs[2].prev = saved;
   EXPECT_TRUE(timeouts_check(T.get(), nullptr));
}

// ---- Model check against an ordered multimap ------------------------------------------------

// The reference: pending records in a multimap by tick; the expired queue as a sequence of
// batches (one per update, one per add at or before now), each ordered by (tick, arming order).
class ModelCheck {
public:
   // start: the wheel's first tick; runs that start near the top of the tick space exercise
   // parking and saturation.
   ModelCheck(uint64_t seed, size_t records, timeout_t start)
       : rng_(seed), recs_(records), tos_(records) {
      T_ = timeouts_open(100, nullptr);
      timeouts_update(T_, start);
      now_ = start;
      for (size_t i = 0; i < recs_.size(); i++) {
         int flags = int(rng_() % 8) * 4;  // user bits 4, 8, 16
         if (rng_() % 8 == 0)
            flags |= TIMEOUT_INT;
         else if (rng_() % 2)
            flags |= TIMEOUT_ABS;
         if ((flags & TIMEOUT_INT) && rng_() % 4 == 0)
            flags |= TIMEOUT_ABS;
         timeout_init(&tos_[i], flags);
         recs_[i].flags = flags;
      }
   }
   ~ModelCheck() { timeouts_close(T_); }

   void run(uint64_t ops) {
      for (uint64_t op = 0; op < ops; op++) {
         step();
         if (::testing::Test::HasFatalFailure())
            return;
         if (op % 1024 == 0)
            fullCheck();
      }
      fullCheck();
      update(kMax, false);
      while (!expired_.empty())
         get();
      fullCheck();
   }

private:
   enum class State { idle, pending, expired };
   struct Rec {
      int flags = 0;
      State state = State::idle;
      timeout_t expires = 0;
      timeout_t period = 0;
      uint64_t seq = 0;    // arming order
      uint64_t batch = 0;  // while expired
      std::multimap<timeout_t, size_t>::iterator pendingAt;
   };
   using QueueKey = std::tuple<timeout_t, uint64_t, size_t>;  // tick, seq, record

   void step() {
      unsigned what = rng_() % 100;
      size_t id = rng_() % recs_.size();
      if (what < 40)
         add(id);
      else if (what < 55)
         del(id);
      else if (what < 78)
         randomUpdate();
      else if (what < 98)
         get();
      else
         toggleUserBits(id);
      checkCheap();
   }

   // A value of a random bit length, so that deltas reach every level and beyond the span.
   timeout_t randomBits(unsigned maxBits) {
      unsigned bits = rng_() % (maxBits + 1);
      return bits >= 64 ? rng_() : rng_() & ((timeout_t(1) << bits) - 1);
   }

   size_t idOf(const Rec& r) const { return size_t(&r - recs_.data()); }
   timeout& record(Rec& r) { return tos_[idOf(r)]; }

   // A tick at or next to a block boundary of some level: where off-by-one faults hide.
   timeout_t boundaryNear(timeout_t tick) {
      unsigned shift = 8 * unsigned(1 + rng_() % 7);
      timeout_t aligned = tick >> shift << shift;
      switch (rng_() % 3) {
         case 0:
            return aligned;
         case 1:
            return aligned ? aligned - 1 : aligned;
         default:
            return saturated(aligned, 1);
      }
   }

   static timeout_t saturated(timeout_t a, timeout_t b) { return a + b < a ? kMax : a + b; }

   // Next tick strictly after now of the schedule base + k * period, clamped at UINT64_MAX;
   // computed in 128 bits so it does not share the wheel's overflow reasoning.
   timeout_t nextOfSchedule(timeout_t base, timeout_t period) const {
      unsigned __int128 k = (unsigned __int128)(now_ - base) / period + 1;
      unsigned __int128 next = base + k * period;
      return next > kMax ? kMax : timeout_t(next);
   }

   void forget(Rec& r) {
      if (r.state == State::pending)
         pending_.erase(r.pendingAt);
      else if (r.state == State::expired)
         dequeue(r);
      r.state = State::idle;
   }

   void dequeue(Rec& r) {
      auto batch = expired_.find(r.batch);
      ASSERT_NE(batch, expired_.end());
      ASSERT_EQ(batch->second.erase(QueueKey(r.expires, r.seq, idOf(r))), 1u);
      if (batch->second.empty())
         expired_.erase(batch);
   }

   void arm(Rec& r, timeout_t expires) {
      size_t id = idOf(r);
      r.expires = expires;
      r.seq = ++seq_;
      if (expires <= now_) {
         r.state = State::expired;
         r.batch = ++batches_;
         expired_[r.batch].insert(QueueKey(r.expires, r.seq, id));
      } else {
         r.state = State::pending;
         r.pendingAt = pending_.emplace(expires, id);
      }
   }

   void add(size_t id) {
      Rec& r = recs_[id];
      timeout_t tick, expires;
      if (r.flags & TIMEOUT_INT) {
         tick = rng_() % 16 == 0 ? randomBits(40) : rng_() % 2000;
         r.period = tick;
         if (tick == 0)
            expires = now_;
         else if (r.flags & TIMEOUT_ABS)
            expires = nextOfSchedule(0, tick);
         else
            expires = saturated(now_, tick);
      } else if (r.flags & TIMEOUT_ABS) {
         unsigned how = rng_() % 10;
         if (how < 4)
            tick = saturated(now_, randomBits(64));
         else if (how < 6)
            tick = boundaryNear(saturated(now_, randomBits(64)));
         else if (how < 8)
            tick = now_ - std::min(now_, timeout_t(rng_() % 100));
         else
            tick = randomBits(64);
         expires = tick;
      } else {
         tick = rng_() % 4 == 0 ? randomBits(64) : randomBits(16);
         expires = saturated(now_, tick);
      }
      forget(r);
      timeouts_add(T_, &record(r), tick);
      arm(r, expires);
      ASSERT_EQ(record(r).expires, expires) << "tick " << tick << " now " << now_;
   }

   void del(size_t id) {
      Rec& r = recs_[id];
      forget(r);
      if (rng_() % 2)
         timeout_del(&record(r));
      else
         timeouts_del(T_, &record(r));
      ASSERT_EQ(record(r).timeouts, nullptr);
   }

   void randomUpdate() {
      unsigned how = rng_() % 1000;
      timeout_t delta;
      if (how < 700)
         delta = randomBits(9);
      else if (how < 950)
         delta = randomBits(24);
      else if (how < 995)
         delta = randomBits(48);
      else
         delta = now_ < (timeout_t(1) << 61) ? randomBits(60) : randomBits(20);
      if (how % 10 == 0)
         update(now_ - std::min(now_, delta), false);  // backwards: ignored
      else if (how % 10 == 1)
         update(boundaryNear(saturated(now_, delta)), false);
      else
         update(saturated(now_, delta), how % 2);
   }

   void update(timeout_t tick, bool viaStep) {
      if (viaStep && tick > now_)
         timeouts_step(T_, tick - now_);
      else
         timeouts_update(T_, tick);
      if (tick <= now_)
         return;
      now_ = tick;
      uint64_t batch = ++batches_;
      while (!pending_.empty() && pending_.begin()->first <= now_) {
         size_t id = pending_.begin()->second;
         Rec& r = recs_[id];
         pending_.erase(pending_.begin());
         r.state = State::expired;
         r.batch = batch;
         expired_[batch].insert(QueueKey(r.expires, r.seq, id));
         ASSERT_TRUE(timeout_expired(&record(r))) << "tick " << r.expires << " now " << now_;
      }
      size_t expected = 0;
      for (auto& [b, queue] : expired_)
         expected += queue.size();
      ASSERT_EQ(count(T_, TIMEOUTS_EXPIRED), expected) << "fired early at now " << now_;
   }

   void get() {
      timeout* to = timeouts_get(T_);
      if (expired_.empty()) {
         ASSERT_EQ(to, nullptr);
         return;
      }
      ASSERT_NE(to, nullptr);
      ASSERT_TRUE(to >= tos_.data() && to < tos_.data() + tos_.size());
      Rec& r = recs_[size_t(to - tos_.data())];
      ASSERT_EQ(r.state, State::expired);
      // It comes from the oldest batch, and is the first armed of its tick there.
      auto& queue = expired_.begin()->second;
      ASSERT_EQ(r.batch, expired_.begin()->first);
      auto first = queue.lower_bound(QueueKey(r.expires, 0, 0));
      ASSERT_EQ(std::get<1>(*first), r.seq) << "same-tick records out of arming order";
      dequeue(r);
      r.state = State::idle;
      if ((r.flags & TIMEOUT_INT) && r.period && now_ != kMax)
         arm(r, nextOfSchedule(r.expires, r.period));
      ASSERT_EQ(timeout_pending(&record(r)), r.state == State::pending);
      if (r.state == State::pending) {
         ASSERT_EQ(record(r).expires, r.expires);
      } else {
         ASSERT_EQ(record(r).timeouts, nullptr);
      }
   }

   void toggleUserBits(size_t id) {
      Rec& r = recs_[id];
      r.flags ^= int(rng_() % 8) * 4;
      record(r).flags = r.flags;
   }

   void checkCheap() {
      bool anyExpired = !expired_.empty();
      ASSERT_EQ(timeouts_expired(T_), anyExpired);
      ASSERT_EQ(timeouts_pending(T_), !pending_.empty());
      timeout_t wait = timeouts_timeout(T_);
      if (anyExpired) {
         ASSERT_EQ(wait, 0u);
      } else if (pending_.empty()) {
         ASSERT_EQ(wait, kMax);
      } else {
         ASSERT_GT(wait, 0u);
         ASSERT_LE(wait, pending_.begin()->first - now_) << "overstated at now " << now_;
      }
   }

   void fullCheck() {
      ASSERT_TRUE(timeouts_check(T_, stderr));
      size_t expired = 0;
      for (Rec& r : recs_) {
         ASSERT_EQ(record(r).flags, r.flags);
         ASSERT_EQ(timeout_pending(&record(r)), r.state == State::pending);
         ASSERT_EQ(timeout_expired(&record(r)), r.state == State::expired);
         if (r.state != State::idle) {
            ASSERT_EQ(record(r).expires, r.expires);
         }
         expired += r.state == State::expired;
      }
      ASSERT_EQ(count(T_, TIMEOUTS_PENDING), pending_.size());
      ASSERT_EQ(count(T_, TIMEOUTS_EXPIRED), expired);
   }

   std::mt19937_64 rng_;
   std::vector<Rec> recs_;
   std::vector<timeout> tos_;  // the wheel's records, beside their reference state
   timeouts* T_ = nullptr;
   timeout_t now_ = 0;
   uint64_t seq_ = 0;
   uint64_t batches_ = 0;
   std::multimap<timeout_t, size_t> pending_;
   std::map<uint64_t, std::set<QueueKey>> expired_;
};

uint64_t envNumber(const char* name, uint64_t fallback) {
   const char* text = getenv(name);
   return text && *text ? strtoull(text, nullptr, 0) : fallback;
}

// 10^6 operations by default; KORVO_TIMEOUTS_SOAK_OPS sets another total for a longer run and
// KORVO_TIMEOUTS_SEED another first seed.
TEST(TimeoutsTest, ModelCheckAgainstOrderedMultimap) {
   const uint64_t total = envNumber("KORVO_TIMEOUTS_SOAK_OPS", 1000000);
   const uint64_t firstSeed = envNumber("KORVO_TIMEOUTS_SEED", 1);
   const size_t sizes[] = {8, 64, 512, 4096};
   const timeout_t starts[] = {0, (timeout_t(1) << 56) - 1000000, kMax - (timeout_t(1) << 32)};
   const uint64_t seeds = 8;
   for (uint64_t i = 0; i < seeds; i++) {
      uint64_t seed = firstSeed + i;
      timeout_t start = starts[i % 3];
      SCOPED_TRACE("seed " + std::to_string(seed) + " records " + std::to_string(sizes[i % 4]) +
                   " start " + std::to_string(start));
      ModelCheck model(seed, sizes[i % 4], start);
      model.run(total / seeds);
      if (HasFatalFailure())
         return;
   }
}

}  // namespace
