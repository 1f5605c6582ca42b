#ifndef KORVO_SRC_DEBUGCOMPONENT_H
#define KORVO_SRC_DEBUGCOMPONENT_H

// The library components' own trace handlers ("KorvoLibevent", "KorvoTimerWheel",
// "KorvoPlugin", "KorvoUtil", "TaskScheduler") and the trace macro of the sites that
// begin their lines with where they traced. Not installed.

#include "Korvo/Debug.h"

#include <atomic>
#include <memory>

namespace Korvo {
namespace Impl {

// One component's handler, defined with KORVO_COMPONENT_DEBUG. It is made while the
// library loads, after the tracing defaults and TRACE are in place, so that it starts
// with the levels the registry gives its name and no event path ever has to make it.
// It is never destroyed: loops and tasks of other threads, thread-exit and static
// destructors still trace after the library's own statics are gone; a global keeps it
// reachable for leak checkers. Calling the object returns the handler: one load and a
// well-predicted test. Only code that runs before the library finished loading (another
// library's static initialiser) takes the cold path that makes it, under the library
// lock, so that any thread may be the first.
class ComponentDebug {
public:
   explicit constexpr ComponentDebug(const char* name) : name_(name) {}
   ComponentDebug(const ComponentDebug&) = delete;
   ComponentDebug& operator=(const ComponentDebug&) = delete;

   Platform::DebugHandler& operator()() const {
      Platform::DebugHandler* handler = handler_.load(std::memory_order_acquire);
      return __builtin_expect(handler != nullptr, 1) ? *handler : make();
   }
   // Makes the handler unless it exists.
   [[gnu::cold, gnu::noinline]] Platform::DebugHandler& make() const;

private:
   const char* name_;
   mutable std::atomic<Platform::DebugHandler*> handler_{nullptr};
   mutable std::shared_ptr<Platform::DebugHandler>* holder_ = nullptr;
};

}  // namespace Impl

namespace Platform::Impl {
// Lets the trace macros take a component's handler object as it is.
inline const DebugHandler& handlerRef(const Korvo::Impl::ComponentDebug& debug) {
   return debug();
}
}  // namespace Platform::Impl

}  // namespace Korvo

// Defines `var`, the handler of one component named `name`, and makes it at load.
#define KORVO_COMPONENT_DEBUG(var, name)              \
   constinit ::Korvo::Impl::ComponentDebug var(name); \
   [[maybe_unused]] static const bool var##MadeAtLoad_ = (var.make(), true)

// KORVO_TRACE for hot member functions: the line is built in a cold out-of-line
// function, so that a hot path that traces keeps a small frame and makes no call while
// the level is off; that function copies what it prints, since a reference would pin
// those values to the stack on the hot path too.
#define KORVO_COLD_TRACE(handler, level, msg)                                   \
   do {                                                                         \
      const ::Korvo::Platform::DebugHandler& korvoColdH_ =                      \
          ::Korvo::Platform::Impl::handlerRef(handler);                         \
      if (__builtin_expect(korvoColdH_.enabled(level), 0)) {                    \
         [ =, this, &korvoColdH_, func = __func__, line = __LINE__ ]()          \
             __attribute__((noinline, cold)) {                                  \
            (void)this;                                                         \
            ::Korvo::Platform::Impl::TraceStream korvoColdL_;                   \
            ::Korvo::Platform::DebugStream& korvoColdS_ = korvoColdL_.stream(); \
            korvoColdS_ << msg;                                                 \
            korvoColdH_.dump(korvoColdS_, (level), __FILE__, line, func);       \
         }                                                                      \
         ();                                                                    \
      }                                                                         \
   } while (0)

// KORVO_COLD_TRACE of "where:line msg", `where` being a literal "Class::method": the
// line leads back to its site without the line-info field.
#define KORVO_SITE_TRACE(handler, level, where, msg) \
   KORVO_COLD_TRACE(handler, level, where ":" << __LINE__ << " " << msg)

#endif
