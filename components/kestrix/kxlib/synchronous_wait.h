// Lives as long as a proxy waits for a response: tells an event loop on another thread that the data socket
// is being read, and wakes it for what was set aside, in whatever way the wait ends. m_mutex is held
// meanwhile.
#ifndef SYNCHRONOUS_WAIT_H
#define SYNCHRONOUS_WAIT_H

class KXcomponent;

class synchronous_wait {
 public:
  explicit synchronous_wait(KXcomponent& component);
  ~synchronous_wait();
  synchronous_wait(const synchronous_wait&) = delete;
  synchronous_wait& operator=(const synchronous_wait&) = delete;

 private:
  KXcomponent& m_component;
};

#endif
