#include "core/tcp_socket.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/log.h"
#include "core/udp_socket.h"

namespace {

constexpr int send_chunk = 65536;

void log_text(int level, const String& text) {
  if (log_enabled(LOG_GENERAL, level)) log_add_message_global(LOG_GENERAL, level, 0, text);
}

void set_nonblocking(int fd) { fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK); }

}  // namespace

TcpSocket::Block::~Block() {
  if (fd >= 0) ::close(fd);
}

bool TcpSocket::listen(int port, const String& bind_adr) {
  bool v6 = bind_adr.length() == 16;
  const char* tag = v6 ? "TCP(IPv6):" : "TCP(IPv4):";
  int fd = socket(v6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    log_text(1, String(v6 ? "(IPv6)Could not open socket" : "TCP(IPv4):Could not open socket"));
    return false;
  }
  int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  if (v6 && is_any_adr(bind_adr)) setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof one);
  set_nonblocking(fd);
  Address a(bind_adr.length() == 4 || v6 ? bind_adr : any_ipv4, port);
  sockaddr_storage sa;
  socklen_t len;
  a.to_sockaddr(sa, len);
  if (bind(fd, reinterpret_cast<sockaddr*>(&sa), len) != 0) {
    int e = errno;
    String why = e == EACCES ? String(" (EACCES)") : e == EADDRINUSE ? String(" (EADDRINUSE)")
               : e == EINVAL ? String(" (EINVAL)") : String();
    if (is_any_adr(a.adr)) log_text(1, format("%s Could not bind socket to port %d%s", tag, port, why));
    else log_text(1, format("%s Could not bind socket to port %d on IP %s%s", tag, port, adr_text(a.adr), why));
    ::close(fd);
    return false;
  }
  if (::listen(fd, 128) != 0) {
    log_text(1, String("Could not listen"));
    ::close(fd);
    return false;
  }
  block_ = std::make_shared<Block>();
  block_->fd = fd;
  block_->listen_port = local().port;
  log_text(5, format("%s Opening socket on %s:%d", tag, adr_text(a.adr), block_->listen_port));
  return true;
}

bool TcpSocket::accept(const TcpSocket& listener) {
  block_.reset();
  if (!listener.valid()) return false;
  sockaddr_storage sa;
  socklen_t len = sizeof sa;
  int fd = accept4(listener.fd(), reinterpret_cast<sockaddr*>(&sa), &len, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (fd < 0) {
    bool v6 = listener.local().is_ipv6();
    int e = errno;
    String text = e == EAGAIN || e == EWOULDBLOCK ? String(v6 ? "Accept6 would block" : "Accept would block")
                : e == ECONNABORTED ? String(v6 ? "Accept6 connection already aborted" : "Accept connection already aborted")
                : e == ENFILE ? String("Too many open file descriptors")
                : e == EMFILE ? String("Too many open files")
                : String(v6 ? "Accept6 failed" : "Accept failed");
    log_text(8, text);
    return false;
  }
  block_ = std::make_shared<Block>();
  block_->fd = fd;
  block_->peer = Address::from_sockaddr(reinterpret_cast<sockaddr*>(&sa), len);
  return true;
}

bool TcpSocket::connect(const Address& to, bool nonblocking) {
  block_.reset();
  sockaddr_storage sa;
  socklen_t len;
  if (!to.to_sockaddr(sa, len)) {
    log_text(4, format("Could not set destination %s", address_text(to)));
    return false;
  }
  int fd = socket(sa.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    log_text(4, format("Could not open a socket for %s", address_text(to)));
    return false;
  }
  if (nonblocking) set_nonblocking(fd);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&sa), len) != 0 && errno != EINPROGRESS) {
    log_text(4, format("Could not connect to %s", address_text(to)));
    ::close(fd);
    return false;
  }
  block_ = std::make_shared<Block>();
  block_->fd = fd;
  block_->peer = to;
  return true;
}

bool TcpSocket::send(const String& text) {
  if (!valid()) {
    if (!text.empty() || (block_ && !block_->buffer.empty()))
      log_text(4, format("Could not send via TCP: %d bytes to %s, invalid socket", text.length(),
                         address_text(peer())));
    if (block_) {
      block_->queue.clear();
      block_->buffer = String();
    }
    return false;
  }
  Block& b = *block_;
  if (!text.empty()) b.queue.push_back(text);
  while (!b.queue.empty() && b.buffer.length() < send_chunk) {
    b.buffer.append(b.queue.front());
    b.queue.pop_front();
  }
  if (b.buffer.empty()) return true;
  int n = b.buffer.length() < send_chunk ? b.buffer.length() : send_chunk;
  ssize_t sent = ::send(b.fd, b.buffer.c_data(), static_cast<size_t>(n), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (sent < 0) {
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return true;
    log_text(4, format("Could not send %d bytes to %s, error code %d", n, address_text(b.peer), errno));
    b.buffer = String();
    return false;
  }
  b.buffer = b.buffer.tail(static_cast<int>(sent));
  return true;
}

String TcpSocket::receive() {
  if (!valid()) return String();
  char buf[32768];
  ssize_t n = recv(block_->fd, buf, sizeof buf, MSG_DONTWAIT);
  block_->would_block = n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
  if (n <= 0) return String();
  return String(buf, static_cast<int>(n));
}

bool TcpSocket::would_block() const { return block_ && block_->would_block; }
bool TcpSocket::pending_output() const { return block_ && (!block_->buffer.empty() || !block_->queue.empty()); }

int TcpSocket::queued_bytes() const {
  if (!block_) return 0;
  int n = block_->buffer.length();
  for (const String& s : block_->queue) n += s.length();
  return n;
}

bool TcpSocket::set_linger() {
  if (!valid()) return false;
  linger l = {1, 0};
  if (setsockopt(block_->fd, SOL_SOCKET, SO_LINGER, &l, sizeof l) != 0) {
    log_text(4, format("TCP: SO_LINGER could not be set, code %d", errno));
    return false;
  }
  return true;
}

bool TcpSocket::set_tos(const String& dscp) {
  if (!valid()) return false;
  int tos = dscp_value(dscp);
  if (local().is_ipv6()) return true;
  if (setsockopt(block_->fd, IPPROTO_IP, IP_TOS, &tos, sizeof tos) != 0) {
    log_text(4, String("TCP: TOS could not be set"));
    return false;
  }
  return true;
}

void TcpSocket::close() {
  if (block_ && block_->fd >= 0) {
    ::close(block_->fd);
    block_->fd = -1;
  }
  block_.reset();
}

Address TcpSocket::local() const {
  if (!valid()) return Address();
  sockaddr_storage sa;
  socklen_t len = sizeof sa;
  if (getsockname(block_->fd, reinterpret_cast<sockaddr*>(&sa), &len) != 0) return Address();
  return Address::from_sockaddr(reinterpret_cast<sockaddr*>(&sa), len);
}

int TcpSocket::port() const { return block_ ? block_->listen_port : 0; }
