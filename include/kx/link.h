/// @file
/// One end of a service on a bus, as a kx::port hands it out.
#ifndef KX_LINK_H
#define KX_LINK_H

#include <cstdint>
#include <type_traits>

#include "KXmessage.h"

namespace kx {

/// A command of a service: any integer or enumerator from 0 to 255.
struct command {
  std::uint8_t code;  ///< as it travels
  /// From a number or an enumerator; what is not in a byte is left out.
  template <class T, class = std::enable_if_t<std::is_integral_v<T> || std::is_enum_v<T>>>
  constexpr command(T value)  // NOLINT(google-explicit-constructor): commands are written as numbers
      : code(static_cast<std::uint8_t>(value)) {}
};

/// The kind of a service.
enum class kind { function, signal };

/// Who gets the messages of a service.
class receiver {
 public:
  /// Handles one message, on the thread of the loop. It is the caller's, and others may have read in it.
  virtual void receive(KXmessage& message) = 0;

 protected:
  ~receiver() = default;
};

/// One end of a service on the bus. Destroying it takes it off the bus.
class link {
 public:
  /// What became of a synchronous request.
  enum class outcome {
    answered,   ///< the message holds the answer
    own,        ///< not sent: the application itself offers the service
    not_sent,   ///< the message could not be sent
    no_answer,  ///< none came within 10 seconds
  };

  link() = default;
  link(const link&) = delete;
  link& operator=(const link&) = delete;
  virtual ~link() = default;

  /// The ids of this end and of the service's.
  /// @{
  virtual std::uint32_t siid() const = 0;
  virtual std::uint32_t service_siid() const = 0;
  /// @}

  /// Sends a message of which the header's msg_type and cmd, and the payload, are set. Of an end that uses a
  /// service it is addressed here, and then has its msg_id; who offers one addresses it. May block for about
  /// two seconds when the core takes nothing. @return whether it was sent
  virtual bool send(KXmessage& message) = 0;

  /// Sends a request in the same way, and waits for the answer, which takes its place. Not of an end that
  /// offers.
  virtual outcome call(KXmessage& message) = 0;
};

}  // namespace kx

#endif
