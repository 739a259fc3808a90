#include "Platform/Linux/ConnectionTable.hpp"

#include <map>
#include <tuple>

#include <sys/socket.h>

namespace quenzel::platform {

const HeldConnection* connectionToClose(const std::list<HeldConnection>& connections, uid_t newcomer) {
  std::map<uid_t, int> held{{newcomer, 1}};
  for (const HeldConnection& connection : connections) held[connection.user] += connection.leaving ? 0 : 1;

  const auto order = [&](const HeldConnection& connection) {
    return std::tuple(-held[connection.user], connection.busy, connection.since);
  };
  const HeldConnection* first = nullptr;
  for (const HeldConnection& connection : connections) {
    if (connection.leaving) continue;
    if (!first || order(connection) < order(*first)) first = &connection;
  }
  return first;
}

ConnectionTable::Place ConnectionTable::enter(uid_t user, int socket) {
  const MutexLock guard(lock_);
  return connections_.insert(connections_.end(), {.user = user, .socket = socket, .since = ++events_});
}

void ConnectionTable::leave(Place place) {
  const MutexLock guard(lock_);
  connections_.erase(place);
}

bool ConnectionTable::beginRequest(Place place) { return setBusy(place, true); }

bool ConnectionTable::endRequest(Place place) { return setBusy(place, false); }

bool ConnectionTable::setBusy(Place place, bool busy) {
  const MutexLock guard(lock_);
  place->busy = busy;
  place->since = ++events_;
  return !place->leaving;
}

void ConnectionTable::closeOneFor(uid_t newcomer) {
  const MutexLock guard(lock_);
  const HeldConnection* const chosen = connectionToClose(connections_, newcomer);
  for (HeldConnection& connection : connections_) {
    if (&connection != chosen) continue;
    connection.leaving = true;
    // Its thread, which waits for the client, sees the end of the connection and leaves.
    if (!connection.busy) ::shutdown(connection.socket, SHUT_RDWR);
  }
}

}  // namespace quenzel::platform
