#include <Korvo/Timeouts.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace {

constexpr timeout_t kMax = UINT64_MAX;

struct WheelCloser {
   void operator()(timeouts* T) const { timeouts_close(T); }
};
using Wheel = std::unique_ptr<timeouts, WheelCloser>;

Wheel openWheel(timeout_t hz = 100) {
   int error = -1;
   Wheel T(timeouts_open(hz, &error));
   EXPECT_EQ(error, 0);
   return T;
}

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

std::string checkReport(const timeouts* T) {
   char* buf = nullptr;
   size_t len = 0;
   FILE* fp = open_memstream(&buf, &len);
   const bool ok = timeouts_check(T, fp);
   fclose(fp);
   std::string text(buf, len);
   free(buf);
   EXPECT_EQ(ok, text.empty());
   return text;
}

TEST(TimeoutsTest, OpenFireOrderAndBrokenInvariants) {
   EXPECT_EQ(timeouts_version(), unsigned{TIMEOUTS_VERSION});
   EXPECT_LE(timeouts_sizeof(), 16384u);
   EXPECT_EQ(timeouts_hz(openWheel(0).get()), TIMEOUT_mHZ);
   EXPECT_EQ(timeouts_hz(openWheel(TIMEOUT_nHZ).get()), TIMEOUT_nHZ);

   // A record fires in the update that reaches its tick, not before, and once.
   timeout rel, abs, recs[3];
   Wheel T = openWheel();
   timeouts_update(T.get(), 1000);
   timeouts_add(T.get(), timeout_init(&rel, 0), 10);
   timeouts_add(T.get(), timeout_init(&abs, TIMEOUT_ABS), 1020);
   EXPECT_EQ(rel.expires, 1010u);
   EXPECT_EQ(timeouts_timeout(T.get()), 10u);
   timeouts_update(T.get(), 1009);
   EXPECT_FALSE(timeouts_expired(T.get()));
   timeouts_update(T.get(), 1010);
   EXPECT_EQ(drain(T.get()), std::vector<timeout*>{&rel});
   timeouts_update(T.get(), 5);  // time never goes back
   EXPECT_EQ(timeouts_timeout(T.get()), 10u);
   timeouts_step(T.get(), 100000);
   EXPECT_EQ(drain(T.get()), std::vector<timeout*>{&abs});

   for (auto& r : recs)
      timeouts_add(T.get(), timeout_init(&r, 0), 300);
   EXPECT_EQ(checkReport(T.get()), "");
   recs[1].expires = 5;
   EXPECT_NE(checkReport(T.get()).find("belongs on list"), std::string::npos);
   recs[1].expires = recs[0].expires;
   timeout* saved = recs[2].prev;
   recs[2].prev = &recs[2];
   EXPECT_NE(checkReport(T.get()).find("next->prev"), std::string::npos);
   recs[2].prev = saved;

   // Closing leaves every record idle; deleting one then is harmless.
   T.reset();
   EXPECT_EQ(recs[0].timeouts, nullptr);
   timeout_del(&recs[0]);
   EXPECT_FALSE(timeout_pending(&recs[0]));
}

TEST(TimeoutsTest, TimeoutNeverOverstatesAndReachesEachRecord) {
   // Following timeouts_timeout() lands exactly on a record's tick after a few wake-ups (one to
   // leave the parked list, one per level it cascades through, one to fire), never past it.
   std::mt19937_64 rng(7);
   for (int round = 0; round < 2000; round++) {
      timeout to;
      Wheel T = openWheel();
      const timeout_t start = rng() >> (rng() % 64);
      timeouts_update(T.get(), start);
      timeout_t tick = start + 1 + (rng() >> (rng() % 63 + 1));
      tick = tick <= start ? kMax : tick;
      timeouts_add(T.get(), timeout_init(&to, TIMEOUT_ABS), tick);
      timeout_t now = start;
      for (int wakeups = 1; !timeouts_expired(T.get()); wakeups++) {
         const timeout_t wait = timeouts_timeout(T.get());
         ASSERT_GT(wait, 0u);
         ASSERT_LE(wait, tick - now) << "start " << start << " tick " << tick;
         ASSERT_LE(wakeups, 8) << "start " << start << " tick " << tick;
         timeouts_update(T.get(), now += wait);
      }
      EXPECT_EQ(now, tick);
   }
}

// The reference: pending records in a multimap by tick; the expired queue as (batch, tick,
// arming order, record), one batch per update and per add at or before now. Within a batch the
// wheel gives same-tick records in arming order.
class ModelCheck {
public:
   // Runs that start near the top of the tick space exercise parking and saturation.
   ModelCheck(uint64_t seed, size_t records, timeout_t start) : rng_(seed), recs_(records) {
      T_ = timeouts_open(100, nullptr);
      timeouts_update(T_, now_ = start);
      for (Rec& r : recs_) {
         int flags = int(rng_() % 8) * 4;  // user bits 4, 8, 16: never touched by the wheel
         if (rng_() % 8 == 0)
            flags |= TIMEOUT_INT | (rng_() % 4 == 0 ? TIMEOUT_ABS : 0);
         else if (rng_() % 2)
            flags |= TIMEOUT_ABS;
         timeout_init(&r.to, r.flags = flags);
      }
   }
   ~ModelCheck() { timeouts_close(T_); }

   void run(uint64_t ops) {
      for (uint64_t op = 0; op < ops && !::testing::Test::HasFatalFailure(); op++) {
         step();
         if (op % 1024 == 0)
            fullCheck();
      }
      fullCheck();
      if (rng_() % 2)
         return clearAll();
      update(kMax, false);
      while (!expired_.empty())
         get();
      fullCheck();
   }

private:
   enum class State { idle, pending, expired };
   struct Rec {
      timeout to;
      int flags = 0;
      State state = State::idle;
      timeout_t expires = 0, period = 0;
      uint64_t seq = 0, batch = 0;
      std::multimap<timeout_t, size_t>::iterator pendingAt;
   };
   using QueueKey = std::tuple<uint64_t, timeout_t, uint64_t, size_t>;

   void step() {
      const unsigned what = rng_() % 100;
      const size_t id = rng_() % recs_.size();
      if (what < 40)
         add(recs_[id]);
      else if (what < 55)
         del(recs_[id]);
      else if (what < 78)
         randomUpdate();
      else if (what < 98)
         get();
      else
         recs_[id].to.flags = recs_[id].flags ^= int(rng_() % 8) * 4;
      checkCheap();
   }

   // A value of a random bit length, so that deltas reach every level and beyond the span.
   timeout_t randomBits(unsigned maxBits) {
      const unsigned bits = rng_() % (maxBits + 1);
      return bits >= 64 ? rng_() : rng_() & ((timeout_t(1) << bits) - 1);
   }
   static timeout_t saturated(timeout_t a, timeout_t b) { return a + b < a ? kMax : a + b; }
   // A tick at or next to a block boundary of some level: where off-by-one faults hide.
   timeout_t boundaryNear(timeout_t tick) {
      const unsigned shift = 8 * unsigned(1 + rng_() % 7);
      const timeout_t aligned = tick >> shift << shift;
      const unsigned how = rng_() % 3;
      return how == 0 ? aligned : how == 1 ? aligned - (aligned > 0) : saturated(aligned, 1);
   }
   // The first tick after now of base + k * period, clamped; in 128 bits so that it does not
   // share the wheel's overflow reasoning.
   timeout_t nextOfSchedule(timeout_t base, timeout_t period) const {
      const unsigned __int128 next =
          base + ((unsigned __int128)(now_ - base) / period + 1) * period;
      return next > kMax ? kMax : timeout_t(next);
   }
   size_t idOf(const Rec& r) const { return size_t(&r - recs_.data()); }

   void forget(Rec& r) {
      const size_t erased = r.state == State::pending ? (pending_.erase(r.pendingAt), 1)
                            : r.state == State::expired
                                ? expired_.erase(QueueKey(r.batch, r.expires, r.seq, idOf(r)))
                                : 1;
      ASSERT_EQ(erased, 1u);
      r.state = State::idle;
   }

   void arm(Rec& r, timeout_t expires) {
      r.expires = expires;
      r.seq = ++seq_;
      if (expires <= now_) {
         r.state = State::expired;
         expired_.emplace(r.batch = ++batches_, expires, r.seq, idOf(r));
      } else {
         r.state = State::pending;
         r.pendingAt = pending_.emplace(expires, idOf(r));
      }
   }

   void add(Rec& r) {
      timeout_t tick, expires;
      if (r.flags & TIMEOUT_INT) {
         r.period = tick = rng_() % 16 == 0 ? randomBits(40) : rng_() % 2000;
         expires = tick == 0               ? now_
                   : r.flags & TIMEOUT_ABS ? nextOfSchedule(0, tick)
                                           : saturated(now_, tick);
      } else if (r.flags & TIMEOUT_ABS) {
         const unsigned how = rng_() % 10;
         expires = tick = how < 4   ? saturated(now_, randomBits(64))
                          : how < 6 ? boundaryNear(saturated(now_, randomBits(64)))
                          : how < 8 ? now_ - std::min(now_, timeout_t(rng_() % 100))
                                    : randomBits(64);
      } else {
         tick = rng_() % 4 == 0 ? randomBits(64) : randomBits(16);
         expires = saturated(now_, tick);
      }
      forget(r);
      timeouts_add(T_, &r.to, tick);
      arm(r, expires);
      ASSERT_EQ(r.to.expires, expires) << "tick " << tick << " now " << now_;
   }

   void del(Rec& r) {
      forget(r);
      if (rng_() % 2)
         timeout_del(&r.to);
      else
         timeouts_del(T_, &r.to);
      ASSERT_EQ(r.to.timeouts, nullptr);
   }

   void randomUpdate() {
      const unsigned how = rng_() % 1000;
      const timeout_t delta = how < 700   ? randomBits(9)
                              : how < 950 ? randomBits(24)
                              : how < 995 ? randomBits(48)
                                          : randomBits(now_ < (timeout_t(1) << 61) ? 60 : 20);
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
      const uint64_t batch = ++batches_;
      while (!pending_.empty() && pending_.begin()->first <= now_) {
         Rec& r = recs_[pending_.begin()->second];
         pending_.erase(pending_.begin());
         r.state = State::expired;
         expired_.emplace(r.batch = batch, r.expires, r.seq, idOf(r));
         ASSERT_TRUE(timeout_expired(&r.to)) << "tick " << r.expires << " now " << now_;
      }
      ASSERT_EQ(count(T_, TIMEOUTS_EXPIRED), expired_.size()) << "fired early at now " << now_;
   }

   void get() {
      timeout* to = timeouts_get(T_);
      ASSERT_EQ(to == nullptr, expired_.empty());
      if (!to)
         return;
      ASSERT_TRUE(&recs_.front().to <= to && to <= &recs_.back().to);
      Rec& r = *reinterpret_cast<Rec*>(to);  // the record is the first member
      ASSERT_EQ(r.state, State::expired);
      // From the oldest batch, and the first armed of its tick there.
      ASSERT_EQ(r.batch, std::get<0>(*expired_.begin()));
      const auto first = expired_.lower_bound(QueueKey(r.batch, r.expires, 0, 0));
      ASSERT_EQ(std::get<2>(*first), r.seq) << "same-tick records out of arming order";
      forget(r);
      if ((r.flags & TIMEOUT_INT) && r.period && now_ != kMax)
         arm(r, nextOfSchedule(r.expires, r.period));
      ASSERT_EQ(timeout_pending(&r.to), r.state == State::pending);
      ASSERT_EQ(r.to.timeouts ? r.to.expires : 0, r.state == State::pending ? r.expires : 0);
   }

   void checkCheap() {
      ASSERT_EQ(timeouts_expired(T_), !expired_.empty());
      ASSERT_EQ(timeouts_pending(T_), !pending_.empty());
      const timeout_t wait = timeouts_timeout(T_);
      if (!expired_.empty() || pending_.empty()) {
         ASSERT_EQ(wait, expired_.empty() ? kMax : 0u);
      } else {
         ASSERT_GT(wait, 0u);
         ASSERT_LE(wait, pending_.begin()->first - now_) << "overstated at now " << now_;
      }
   }

   void fullCheck() {
      ASSERT_TRUE(timeouts_check(T_, stderr));
      for (Rec& r : recs_) {
         ASSERT_EQ(r.to.flags, r.flags);
         ASSERT_EQ(timeout_pending(&r.to), r.state == State::pending);
         ASSERT_EQ(timeout_expired(&r.to), r.state == State::expired);
         ASSERT_EQ(r.state == State::idle ? 0 : r.to.expires,
                   r.state == State::idle ? 0 : r.expires);
      }
      ASSERT_EQ(count(T_, TIMEOUTS_PENDING), pending_.size());
      ASSERT_EQ(count(T_, TIMEOUTS_ALL), pending_.size() + expired_.size());
   }

   // Iterates everything while deleting every other pending record it returns (allowed), then
   // clears the rest through the iterator.
   void clearAll() {
      timeouts_it it = TIMEOUTS_IT_INITIALIZER(TIMEOUTS_ALL);
      std::set<timeout*> seen;
      size_t deleted = 0;
      while (timeout* to = timeouts_next(T_, &it)) {
         ASSERT_TRUE(seen.insert(to).second);
         if (timeout_pending(to) && deleted++ % 2 == 0)
            timeout_del(to);
      }
      ASSERT_EQ(seen.size(), pending_.size() + expired_.size());
      ASSERT_TRUE(timeouts_check(T_, stderr));
      size_t cleared = 0;
      for (timeouts_it_init(&it, TIMEOUTS_ALL | TIMEOUTS_CLEAR);
           timeout* to = timeouts_next(T_, &it); cleared++)
         ASSERT_EQ(to->timeouts, nullptr);
      EXPECT_EQ(cleared, seen.size() - (deleted + 1) / 2);
      EXPECT_FALSE(timeouts_pending(T_) || timeouts_expired(T_));
   }

   std::mt19937_64 rng_;
   std::vector<Rec> recs_;
   timeouts* T_ = nullptr;
   timeout_t now_ = 0;
   uint64_t seq_ = 0, batches_ = 0;
   std::multimap<timeout_t, size_t> pending_;
   std::set<QueueKey> expired_;
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
   for (uint64_t i = 0; i < 8 && !HasFatalFailure(); i++) {
      SCOPED_TRACE("seed " + std::to_string(firstSeed + i) + " records " +
                   std::to_string(sizes[i % 4]) + " start " + std::to_string(starts[i % 3]));
      ModelCheck(firstSeed + i, sizes[i % 4], starts[i % 3]).run(total / 8);
   }
}

}  // namespace
