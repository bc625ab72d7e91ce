// SemanticHandler: binds one event of a handler object to a grammar rule.
//
// A Boost.Spirit (classic) rule accepts an action object that it calls with
// the first and the one-past-last iterator of the text it matched. Grammars
// in this code base report what they recognise to a separate handler object
// (for the command line, qvd::CommandLineEventHandler) through member
// functions such as OnOptionName(first, last). SemanticHandler is the pair
// "which object, which member function"; its nested SemanticActionBinder is
// the small copyable action that Spirit stores inside the rule and that
// forwards each match to the pair.
//
// A grammar keeps its SemanticHandler fields for as long as it lives and
// hands binders that refer to them to its rules. Spirit copies actions freely
// while it builds parsers, so the binder holds only a pointer to the binding:
// the binding, not the copies, decides which object receives the events.
//
// Both fields are checked on every call. A null handler or a null member
// function can only come from a grammar that was wired wrongly, which is a
// programming error: the assertions stop the process with a report that names
// the missing field ("instance" or "eventFunc").
#ifndef PORVANE_INCLUDE_SEMANTICHANDLER_H
#define PORVANE_INCLUDE_SEMANTICHANDLER_H

#include "Assert.h"

namespace qvd {

// Handler: the class that receives the events.
// Iterator: the iterator type of the parsed text (const char* for argv).
template <typename Handler, typename Iterator>
struct SemanticHandler {
  // The shape of every event: the matched text as [first, last).
  typedef void (Handler::*EventFunction)(Iterator first, Iterator last);

  // The object that receives the event. Not owned; it must remain live for
  // as long as a rule may fire.
  Handler* instance;
  // The member function of Handler that is called on a match.
  EventFunction eventFunc;

  // Binds nothing: both fields null. Calling such a binding is an error.
  SemanticHandler() : instance(nullptr), eventFunc(nullptr) {}

  // Binds inEventFunc on inInstance. Either may be null here; the check
  // happens when the event fires, so that a half-built grammar is caught
  // where it is used.
  SemanticHandler(Handler* inInstance, EventFunction inEventFunc)
      : instance(inInstance), eventFunc(inEventFunc) {}

  // The action object for a Spirit rule: rule[binding.Binder()].
  class SemanticActionBinder {
   public:
    // REQUIRES: inBinding remains live (at the same address) for as long as
    // this binder or any copy of it may be called.
    explicit SemanticActionBinder(const SemanticHandler& inBinding)
        : mBinding(&inBinding) {}

    // Called by Spirit with the matched text.
    void operator()(Iterator first, Iterator last) const {
      mBinding->Fire(first, last);
    }

   private:
    const SemanticHandler* mBinding;
  };

  // The action that forwards matches to this binding.
  SemanticActionBinder Binder() const { return SemanticActionBinder(*this); }

  // Calls eventFunc on instance with [first, last).
  // Aborts with a failed assertion when instance or eventFunc is null.
  void Fire(Iterator first, Iterator last) const;
};

// Kept out of the class body so that the two checks sit on their own lines
// and a report points at the field that was missing. The reports read
// "include/SemanticHandler.h:<line>: failed assertion `instance'" and
// "... `eventFunc'". Spirit gives no way to refuse a match from an action,
// and continuing with a missing receiver would silently lose options, so
// stopping is the only safe answer.
//
// The handler is not const: an event records what was matched in it.
//
// No exception is caught here; whatever the event throws reaches the caller
// of the parse.
template <typename Handler, typename Iterator>
void SemanticHandler<Handler, Iterator>::Fire(Iterator first, Iterator last) const {
  QVD_ASSERT(instance);
  QVD_ASSERT(eventFunc);
  (instance->*eventFunc)(first, last);
}

}  // namespace qvd

#endif  // PORVANE_INCLUDE_SEMANTICHANDLER_H
