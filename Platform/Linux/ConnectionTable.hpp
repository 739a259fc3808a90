#pragma once

#include <cstdint>
#include <list>

#include <sys/types.h>

#include "Base/Mutex.hpp"

namespace quenzel::platform {

/// A client's connection as the server sees it.
struct HeldConnection {
  uid_t user = 0;           ///< who connected
  int socket = -1;          ///< not owned
  bool busy = false;        ///< a request of it is being worked on
  bool leaving = false;     ///< told to go
  std::uint64_t since = 0;  ///< when it last began or ended a request, in the order of all such events
};

/// The connection that has to go so that `newcomer` gets one: of the user who holds most (the newcomer's one
/// counted) that which has been idle longest; of users who hold the same number, that of them all. Requests
/// in progress come last. Those that are leaving already count for nobody. Null when there is none.
const HeldConnection* connectionToClose(const std::list<HeldConnection>& connections, uid_t newcomer);

/// All connections of a server. No user can keep another one out: when there are as many as may be, the one
/// that connectionToClose() names is closed, an idle one at once and a busy one after its reply. Thread-safe.
class ConnectionTable {
 public:
  using Place = std::list<HeldConnection>::iterator;

  Place enter(uid_t user, int socket);
  /// To be called before the socket is closed.
  void leave(Place place);

  /// These two tell whether the connection may go on.
  bool beginRequest(Place place);
  bool endRequest(Place place);

  void closeOneFor(uid_t newcomer);

 private:
  bool setBusy(Place place, bool busy);

  Mutex lock_;
  std::list<HeldConnection> connections_ GUARDED_BY(lock_);
  std::uint64_t events_ GUARDED_BY(lock_) = 0;
};

}  // namespace quenzel::platform
