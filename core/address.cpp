#include "core/address.h"

#include <arpa/inet.h>

#include <cstring>

const String any_ipv4 = String::repeat(0, 4);
const String any_ipv6 = String::repeat(0, 16);

bool is_any_adr(const String& adr) { return adr == any_ipv4 || adr == any_ipv6; }

bool Address::to_sockaddr(sockaddr_storage& out, socklen_t& length) const {
  memset(&out, 0, sizeof out);
  if (adr.length() == 4) {
    auto* a = reinterpret_cast<sockaddr_in*>(&out);
    a->sin_family = AF_INET;
    a->sin_port = htons(static_cast<uint16_t>(port));
    memcpy(&a->sin_addr, adr.c_data(), 4);
    length = sizeof(sockaddr_in);
    return true;
  }
  if (adr.length() == 16) {
    auto* a = reinterpret_cast<sockaddr_in6*>(&out);
    a->sin6_family = AF_INET6;
    a->sin6_port = htons(static_cast<uint16_t>(port));
    memcpy(&a->sin6_addr, adr.c_data(), 16);
    length = sizeof(sockaddr_in6);
    return true;
  }
  length = 0;
  return false;
}

Address Address::from_sockaddr(const sockaddr* a, socklen_t length) {
  if (a->sa_family == AF_INET && length >= static_cast<socklen_t>(sizeof(sockaddr_in))) {
    auto* v4 = reinterpret_cast<const sockaddr_in*>(a);
    return Address(String(reinterpret_cast<const char*>(&v4->sin_addr), 4), ntohs(v4->sin_port));
  }
  if (a->sa_family == AF_INET6 && length >= static_cast<socklen_t>(sizeof(sockaddr_in6))) {
    auto* v6 = reinterpret_cast<const sockaddr_in6*>(a);
    return Address(String(reinterpret_cast<const char*>(&v6->sin6_addr), 16), ntohs(v6->sin6_port));
  }
  return Address();
}

String adr_text(const String& adr, bool brackets) {
  if (adr.length() == 16) {
    const unsigned char* b = reinterpret_cast<const unsigned char*>(adr.c_data());
    int groups[8];
    for (int i = 0; i < 8; i++) groups[i] = (b[2 * i] << 8) | b[2 * i + 1];
    // The longest run of at least two zero groups becomes "::".
    int best = -1, best_len = 0;
    for (int i = 0; i < 8;) {
      if (groups[i] != 0) {
        i++;
        continue;
      }
      int j = i;
      while (j < 8 && groups[j] == 0) j++;
      if (j - i > best_len && j - i >= 2) {
        best = i;
        best_len = j - i;
      }
      i = j;
    }
    String out;
    if (brackets) out.append('[');
    for (int i = 0; i < 8; i++) {
      if (i == best) {
        out.append("::");
        i += best_len - 1;
        continue;
      }
      if (i > 0 && i != best + best_len) out.append(':');
      char text[8];
      snprintf(text, sizeof text, "%x", groups[i]);
      out.append(text);
    }
    if (brackets) out.append(']');
    return out;
  }
  if (adr.length() == 4)
    return format("%d.%d.%d.%d", adr.byte_at(0), adr.byte_at(1), adr.byte_at(2), adr.byte_at(3));
  return String("0.0.0.0");
}

String address_text(const Address& a) {
  return a.is_ipv6() ? format("[%s]:%d", adr_text(a.adr), a.port) : format("%s:%d", adr_text(a.adr), a.port);
}

String transport_address_text(const String& transport, const Address& a) {
  return a.is_ipv6() ? format("%s:[%s]:%d", transport, adr_text(a.adr), a.port)
                     : format("%s:%s:%d", transport, adr_text(a.adr), a.port);
}

String parse_adr(const String& text) {
  String t = text.trim();
  if (t.starts_with(String("[")) && t.ends_with(String("]"))) t = t.substr(1, t.length() - 2);
  if (t.empty() || t.length() > 45) return String();
  char buf[64];
  memcpy(buf, t.c_data(), static_cast<size_t>(t.length()));
  buf[t.length()] = 0;
  unsigned char out[16];
  if (!t.contains(':')) {
    // Only the strict dotted quad: inet_pton refuses the short forms that inet_aton takes.
    if (inet_pton(AF_INET, buf, out) == 1) return String(reinterpret_cast<char*>(out), 4);
    return String();
  }
  if (inet_pton(AF_INET6, buf, out) == 1) return String(reinterpret_cast<char*>(out), 16);
  return String();
}

String host_part(const String& text) {
  if (text.starts_with(String("["))) {
    int close = text.find(']');
    return close < 0 ? text.tail(1) : text.substr(1, close - 1);
  }
  int colon = text.find(':');
  // More than one colon without brackets: a bare IPv6 address.
  if (colon < 0 || text.find(':', colon + 1) >= 0) return text;
  return text.head(colon);
}

String port_part(const String& text) {
  if (text.starts_with(String("["))) {
    int close = text.find(']');
    if (close < 0 || close + 1 >= text.length() || text.at(close + 1) != ':') return String();
    return text.tail(close + 2);
  }
  int colon = text.find(':');
  if (colon < 0 || text.find(':', colon + 1) >= 0) return String();
  return text.tail(colon + 1);
}

Address parse_address(const String& text, int default_port) {
  String port = port_part(text);
  return Address(parse_adr(host_part(text)), port.empty() ? default_port : port.to_int());
}

FormatSlot address_slot(const Address& a, String& keep) {
  keep = address_text(a);
  return FormatSlot::address(keep);
}
