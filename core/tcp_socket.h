// A counted handle on a non-blocking TCP socket with its send queue. Copies share the
// connection; the last one closes it.
#pragma once

#include <deque>
#include <memory>

#include "core/address.h"

class TcpSocket {
 public:
  TcpSocket() = default;

  // SO_REUSEADDR, and IPv6 only on the IPv6 any-address, then bind and listen.
  [[nodiscard]] bool listen(int port, const String& bind_adr);
  // Takes one waiting connection from a listener; invalid on failure (logged).
  [[nodiscard]] bool accept(const TcpSocket& listener);
  // Starts a connection; in progress counts as success.
  [[nodiscard]] bool connect(const Address& to, bool nonblocking = true);

  // Queues `text` and writes as much of the queue as the socket takes now. Called with
  // an empty text when the socket is writable, to flush.
  bool send(const String& text);
  // At most 32,768 bytes; empty on error or end of stream.
  String receive();
  bool would_block() const;  // the last receive found nothing to read
  bool pending_output() const;
  int queued_bytes() const;

  bool set_linger();
  bool set_tos(const String& dscp);
  void close();

  bool valid() const { return block_ && block_->fd >= 0; }
  int fd() const { return block_ ? block_->fd : -1; }
  Address peer() const { return block_ ? block_->peer : Address(); }
  Address local() const;
  int port() const;  // of a listener

 private:
  struct Block {
    int fd = -1;
    Address peer;
    std::deque<String> queue;
    String buffer;
    bool would_block = false;
    int listen_port = 0;
    ~Block();
  };
  std::shared_ptr<Block> block_;
};
