// The two servers of the SIP comparisons, each started pinned to one core on a free
// loopback port: this daemon with a working directory of numbered extensions, and
// kamailio as a digest registrar that answers OPTIONS (bindings in memory only).
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

class DaemonProcess;
class TempDir;

struct PeerUser {
  std::string number;
  std::string password;
};

// The users of the registrar runs: `count` extensions from 100000 up, one password each.
std::vector<PeerUser> peer_users(int count);
// A sipp injection file for them (field0 the extension, field1 the credentials).
bool write_injection_file(const std::string& path, const std::vector<PeerUser>& users);

class PeerServer {
 public:
  virtual ~PeerServer() = default;
  virtual const char* name() const = 0;
  int port() const { return port_; }
  pid_t pid() const { return pid_; }
  // Waits until an OPTIONS is answered on the port.
  bool answering(int seconds = 20) const;
  // Waits (at most `seconds`) until the process has used less than 5% of a core over half
  // a second, so that start-up work is not measured. False if it stayed busy.
  bool settled(int seconds = 30) const;
  // Resident memory of the main process in kB, from /proc; -1 if unknown.
  long resident_kb() const;
  // How a process that has ended but was not yet waited for ended ("signal 6"), or empty.
  std::string end_note() const;

 protected:
  int port_ = 0;
  pid_t pid_ = -1;
};

class DaemonPeer : public PeerServer {
 public:
  // Every extension in `users` gets its password; the domain is "localhost".
  DaemonPeer(const std::vector<PeerUser>& users, int cpu);
  ~DaemonPeer() override;
  const char* name() const override { return "exchsrv"; }
  // Rows of the registrations table on disk.
  int registration_rows() const;
  const std::string& dir() const;

 private:
  std::unique_ptr<TempDir> dir_;
  std::unique_ptr<DaemonProcess> process_;
};

class KamailioPeer : public PeerServer {
 public:
  // Every user's password is `password` (kamailio's pv_www_authenticate takes one).
  KamailioPeer(const std::string& password, int cpu);
  ~KamailioPeer() override;
  const char* name() const override { return "kamailio"; }
  static bool available();

 private:
  std::unique_ptr<TempDir> dir_;
};
