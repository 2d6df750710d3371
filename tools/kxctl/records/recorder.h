// Ways to keep records: all of them, or those before something happens.
#ifndef KXCTL_RECORDER_H
#define KXCTL_RECORDER_H

#include <memory>
#include <string>

#include "entry.h"
#include "verbs.h"

class recorder {
 public:
  virtual ~recorder() = default;

  // `is_wanted`: it is to be kept. Whether it is.
  virtual bool take(const entry& what, bool is_wanted) = 0;

  // All have been taken that were there.
  virtual void flush() {}

  virtual unsigned long count() const = 0;  // of what -n limits
  virtual std::string summary() const = 0;  // for people
};

std::unique_ptr<recorder> make_file_recorder(const capture_options& what);
std::unique_ptr<recorder> make_ring_recorder(const capture_options& what);

#endif
