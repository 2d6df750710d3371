#ifndef KXINTERFACE_H
#define KXINTERFACE_H

#include "KXexport.h"

class KXcomponent;

/// A part of an application that starts with its component, in three phases.
///
/// KXcomponent::start calls phase 0 of every interface, then phase 1 of every interface, then phase 2, each
/// time in the order in which they were added. A common use: create objects in phase 0, register stubs in
/// phase 1, subscribe proxies in phase 2. The phases run on the thread that called start, before the event
/// loop: calls that wait for kxcore are fine there, messages that arrive meanwhile are dispatched when the
/// loop runs.
class KX_EXPORT KXinterface {
 public:
  virtual ~KXinterface() = default;

  /// One phase of the start of `cmp`, the component that is starting. What it throws leaves start.
  /// @{
  virtual void startup_phase0(KXcomponent* cmp) = 0;
  virtual void startup_phase1(KXcomponent* cmp) = 0;
  virtual void startup_phase2(KXcomponent* cmp) = 0;
  /// @}
};

#endif
