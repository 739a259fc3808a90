#pragma once

#include <functional>
#include <memory>
#include <string>

#include "Base/ScopedResource.hpp"
#include "Platform/RequestTransport.hpp"
#include "Tests/Support/ScopedEnvironment.hpp"
#include "Tests/Support/TemporaryDirectory.hpp"

namespace quenzel::testing {

/// A private place for daemons: socket, shared directory and tools lie in a folder of their own, for this
/// process and for those it starts.
class DaemonSurroundings {
 public:
  DaemonSurroundings();

  const TemporaryDirectory& folder() const { return folder_; }
  std::string socketPath() const;
  /// Puts a shell script in the place of the tool at that absolute path.
  void installTool(const std::string& path, const std::string& script) const;
  /// A connection that has said nothing yet.
  FileDescriptor connectSocket() const;
  FileDescriptor listeningSocket() const;

 private:
  TemporaryDirectory folder_;
  ScopedEnvironment environment_;
};

/// A real daemon process with umask 077 that logs everything; killed at the end of the scope, and its log
/// printed when the test has failed by then.
class DaemonProcess {
 public:
  /// @param preparation what the shell does first that becomes the daemon
  /// @param socket what the daemon has as descriptor 3; -1 for none
  explicit DaemonProcess(const DaemonSurroundings& surroundings, const std::string& arguments = "",
                         const std::string& preparation = "", int socket = -1);
  ~DaemonProcess();
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  /// All it has written so far.
  std::string log() const;
  /// Connects as soon as it listens; throws when it has not within 10 seconds.
  std::unique_ptr<platform::RequestClient> connect() const;
  /// Waits for its own end; its exit status.
  int exitStatus();
  void kill();
  /// Entries of /proc/<pid>/task or /proc/<pid>/fd.
  std::size_t count(const std::string& what) const;

 private:
  std::string logPath_;
  pid_t pid_ = -1;
};

/// Whether the condition comes true within 10 seconds; looks again every few milliseconds.
bool eventually(const std::function<bool()>& condition);

}  // namespace quenzel::testing
