#include "sip/sip_message.h"

#include <cstdint>
#include <cstring>

#include "sip/internal/slice.h"
#include "sip/sip_names.h"

namespace {

bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_space(char c) { return c == ' ' || c == '\t'; }

// Leading blanks, then an optional sign, then digits up to the first other byte.
// Saturates instead of wrapping.
int64_t leading_decimal(const char* p, int i, int n, bool allow_minus) {
  while (i < n && is_space(p[i])) i++;
  bool neg = false;
  if (i < n && (p[i] == '+' || (allow_minus && p[i] == '-'))) {
    neg = p[i] == '-';
    i++;
  }
  int64_t v = 0;
  for (; i < n && is_digit(p[i]); i++) {
    v = v * 10 + (p[i] - '0');
    if (v > 0xffffffffLL) v = 0xffffffffLL;
  }
  return neg ? -v : v;
}

// Offset of the first CR or LF in [i, n), or n. Eight bytes at a time: headers are long
// and this scan is most of what reading a message costs.
int find_line_break(const char* p, int i, int n) {
  constexpr uint64_t ones = 0x0101010101010101ULL;
  constexpr uint64_t highs = 0x8080808080808080ULL;
  while (i + 8 <= n) {
    uint64_t w;
    memcpy(&w, p + i, 8);
    uint64_t cr = w ^ (ones * '\r');
    uint64_t lf = w ^ (ones * '\n');
    uint64_t hit = ((cr - ones) & ~cr & highs) | ((lf - ones) & ~lf & highs);
    if (hit) break;
    i += 8;
  }
  while (i < n && p[i] != '\r' && p[i] != '\n') i++;
  return i;
}

int32_t clamp_int(int64_t v) {
  if (v > INT32_MAX) return INT32_MAX;
  if (v < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(v);
}

// The next word in [pos, n) of p, words separated by runs of blanks and tabs; false when
// there is none. `pos` moves behind it.
bool next_word(const char* p, int& pos, int n, int& b, int& e) {
  while (pos < n && is_space(p[pos])) pos++;
  if (pos >= n) return false;
  b = pos;
  while (pos < n && !is_space(p[pos])) pos++;
  e = pos;
  return true;
}

// Walks [b, e) of p and calls cut(item_b, item_e) for each trimmed item between commas
// outside double quotes (and outside angle brackets with `angles`); stops when cut
// returns false.
template <class F>
void split_list(const char* p, int b, int e, bool angles, F cut) {
  // Most lists hold one element: without a comma there is nothing to walk.
  if (b >= e || !memchr(p + b, ',', static_cast<size_t>(e - b))) {
    trim_span(p, b, e);
    cut(b, e);
    return;
  }
  bool quoted = false;
  bool angle = false;
  int start = b;
  for (int i = b; i <= e; i++) {
    if (i < e) {
      char c = p[i];
      if (quoted) {
        if (c == '\\' && i + 1 < e) i++;
        else if (c == '"') quoted = false;
        continue;
      }
      if (c == '"') quoted = true;
      else if (angles && c == '<') angle = true;
      else if (angles && c == '>') angle = false;
      if (c != ',' || angle) continue;
    }
    int ib = start;
    int ie = i;
    trim_span(p, ib, ie);
    if (!cut(ib, ie)) return;
    start = i + 1;
  }
}

template <class List>
void split_nameaddr_list(const String& src, int b, int e, List& out, int& budget) {
  split_list(src.c_data(), b, e, true, [&](int ib, int ie) {
    if (ie <= ib) return true;
    if (budget <= 0) return false;
    budget--;
    out.emplace_back().assign_slice(src, ib, ie - ib);
    return true;
  });
}

// Via values split at commas outside quotes; an empty item ends the split.
void split_via(const String& src, int b, int e, SmallList<String, 4>& out, int& budget) {
  split_list(src.c_data(), b, e, false, [&](int ib, int ie) {
    if (ie <= ib || budget <= 0) return false;
    budget--;
    out.emplace_made([&] { return src.substr(ib, ie - ib); });
    return true;
  });
}

// Splits at commas outside double quotes, trimmed, empties left out.
void split_commas(const String& value, std::vector<String>& out) {
  split_list(value.c_data(), 0, value.length(), false, [&](int ib, int ie) {
    if (ie > ib) out.push_back(value.substr(ib, ie - ib));
    return true;
  });
}

}  // namespace

SipMessage::SipMessage(const String& text) : raw(text) { parse(); }

SipMessage::SipMessage(const String& method_, const NameAddr& from_, const NameAddr& to_,
                       const String& call_id_, const String& cseq_method_)
    : is_request(true),
      method(method_),
      from(from_),
      to(to_),
      call_id(call_id_),
      cseq_method(cseq_method_.empty() ? method_ : cseq_method_) {}

SipMessage::SipMessage(int status_, const String& reason_, const SipMessage& request)
    : is_request(false),
      socket_key(request.socket_key),
      method(sip_version),
      status(status_),
      reason(reason_),
      from(request.from),
      to(request.to),
      call_id(request.call_id),
      cseq(request.cseq),
      cseq_method(request.cseq_method),
      max_forwards(0),
      web_client(request.web_client),
      port_index(request.port_index),
      domain_id(request.domain_id),
      domain_known(request.domain_known),
      via(request.via),
      record_route(request.record_route),
      path(request.path),
      history_info(request.history_info) {}

void SipMessage::parse() {
  const char* p = raw.c_data();
  int n = raw.length();
  auto line_end = [p, n](int pos, int& next) {
    int i = find_line_break(p, pos, n);
    next = i;
    if (i < n) next = (p[i] == '\r' && i + 1 < n && p[i + 1] == '\n') ? i + 2 : i + 1;
    return i;
  };

  int next = 0;
  int first_end = line_end(0, next);
  int pos = 0;
  int wb = 0;
  int we = 0;
  if (next_word(p, pos, first_end, wb, we)) set_slice(method, raw, wb, we - wb);
  is_request = method != sip_version;
  if (is_request) {
    if (next_word(p, pos, first_end, wb, we)) request_uri.assign_slice(raw, wb, we - wb);
    if (next_word(p, pos, first_end, wb, we)) set_slice(version, raw, wb, we - wb);
  } else {
    if (next_word(p, pos, first_end, wb, we)) status = clamp_int(leading_decimal(p, wb, we, true));
    if (next_word(p, pos, first_end, wb, we)) {
      int re = first_end;
      trim_span(p, wb, re);
      set_slice(reason, raw, wb, re - wb);
    }
  }

  int64_t content_length = -1;
  int fields = 0;
  int open_b = -1;  // the header being read: a slice of raw, or `folded` once continued
  int open_e = -1;
  String folded;
  bool is_folded = false;
  auto close = [&]() {
    if (open_b < 0) return;
    const char* h = p;
    int b = open_b;
    int e = open_e;
    const String* src = &raw;
    if (is_folded) {
      src = &folded;
      h = folded.c_data();
      b = 0;
      e = folded.length();
    }
    open_b = -1;
    is_folded = false;
    const void* found = memchr(h + b, ':', static_cast<size_t>(e - b));
    int colon = found ? static_cast<int>(static_cast<const char*>(found) - h) : e;
    if (colon >= e || ++fields > sip_max_header_fields) return;
    int nb = b;
    int ne = colon;
    trim_span(h, nb, ne);
    int vb = colon + 1;
    int ve = e;
    trim_span(h, vb, ve);
    if (ne <= nb) return;
    SipHeader id = sip_header_of(h + nb, ne - nb);
    if (id == SipHeader::content_length) {
      content_length = leading_decimal(h, vb, ve, true);
    } else if (id == SipHeader::other) {
      SipParam& prm = headers.emplace_back();
      set_slice(prm.name, *src, nb, ne - nb);
      set_slice(prm.value, *src, vb, ve - vb);
    } else {
      file_header(id, *src, vb, ve);
    }
  };

  pos = next;
  int body_start = n;
  while (pos < n) {
    int e = line_end(pos, next);
    if (e == pos) {
      body_start = next;
      break;
    }
    if ((p[pos] == ' ' || p[pos] == '\t') && open_b >= 0) {
      int b = pos;
      while (b < e && (p[b] == ' ' || p[b] == '\t')) b++;
      if (!is_folded) {
        folded = raw.substr(open_b, open_e - open_b);
        is_folded = true;
      }
      if (folded.length() + (e - b) <= sip_max_header_length) folded.append(p + b, e - b);
    } else {
      close();
      open_b = pos;
      open_e = e;
    }
    pos = next;
  }
  close();

  if (content_length < 1) {
    parts.clear();
    return;
  }
  int available = n - body_start;
  body = raw.substr(body_start, content_length < available ? static_cast<int>(content_length) : available);
  read_body_parts(body, content_type, boundary, parts);
}

void SipMessage::add_header(const String& name, const String& value) {
  if (name.empty()) return;
  SipHeader id = sip_header_of(name);
  if (id == SipHeader::other) {
    if (headers.size() < sip_max_header_fields) headers.push_back(SipParam{name, value});
    return;
  }
  file_header(id, value, 0, value.length());
}

void SipMessage::file_header(SipHeader id, const String& src, int b, int e) {
  const char* p = src.c_data();
  switch (id) {
    case SipHeader::from:
      from.assign_slice(src, b, e - b);
      break;
    case SipHeader::to:
      to.assign_slice(src, b, e - b);
      break;
    case SipHeader::call_id:
      set_slice(call_id, src, b, e - b);
      break;
    case SipHeader::cseq: {
      cseq = static_cast<uint32_t>(leading_decimal(p, b, e, false));
      int pos = b;
      int wb = 0;
      int we = 0;
      cseq_method.clear();
      if (next_word(p, pos, e, wb, we) && next_word(p, pos, e, wb, we))
        set_slice(cseq_method, src, wb, we - wb);
      break;
    }
    case SipHeader::content_type:
      set_slice(content_type, src, b, e - b);
      break;
    case SipHeader::content_length:
      // Computed when the text is sent.
      break;
    case SipHeader::expires:
      set_slice(expires, src, b, e - b);
      break;
    case SipHeader::route:
      split_nameaddr_list(src, b, e, route, list_budget_);
      break;
    case SipHeader::record_route:
      split_nameaddr_list(src, b, e, record_route, list_budget_);
      break;
    case SipHeader::path:
      split_nameaddr_list(src, b, e, path, list_budget_);
      break;
    case SipHeader::history_info:
      split_nameaddr_list(src, b, e, history_info, list_budget_);
      break;
    case SipHeader::contact:
      split_nameaddr_list(src, b, e, contact, list_budget_);
      break;
    case SipHeader::via:
      split_via(src, b, e, via, list_budget_);
      break;
    case SipHeader::max_forwards:
      max_forwards = clamp_int(leading_decimal(p, b, e, true));
      break;
    case SipHeader::other:
      break;
  }
}

void SipMessage::add_header_line(const String& text) {
  int colon = text.find(':');
  if (colon < 0) return;
  add_header(text.head(colon).trim(), text.tail(colon + 1).trim());
}

namespace {

bool name_matches(const String& have, const String& name, const String& compact) {
  return have.equals_nocase(name) || (!compact.empty() && have.equals_nocase(compact));
}

}  // namespace

String SipMessage::header(const String& name, const String& compact) const {
  for (const SipParam& h : headers)
    if (name_matches(h.name, name, compact)) return h.value;
  return String();
}

String SipMessage::header_text(const String& name) const {
  switch (sip_header_of(name)) {
    case SipHeader::from: return from.text();
    case SipHeader::to: return to.text();
    case SipHeader::call_id: return call_id;
    case SipHeader::cseq: {
      String out(cseq);
      out.append(' ');
      out.append(cseq_method);
      return out;
    }
    case SipHeader::content_type: return content_type;
    case SipHeader::expires: return expires;
    case SipHeader::max_forwards: return String(max_forwards);
    case SipHeader::content_length:
    case SipHeader::contact:
    case SipHeader::route:
    case SipHeader::record_route:
    case SipHeader::via: return String();
    default: return header(name);
  }
}

std::vector<String> SipMessage::header_values(const String& name) const {
  std::vector<String> out;
  auto each = [&out](const auto& list) {
    for (const auto& a : list) out.push_back(a.text());
  };
  switch (sip_header_of(name)) {
    case SipHeader::from:
    case SipHeader::to:
    case SipHeader::call_id:
    case SipHeader::cseq:
    case SipHeader::content_type:
    case SipHeader::expires:
    case SipHeader::max_forwards:
      out.push_back(header_text(name));
      return out;
    case SipHeader::content_length:
      out.push_back(String());
      return out;
    case SipHeader::contact: each(contact); return out;
    case SipHeader::route: each(route); return out;
    case SipHeader::record_route: each(record_route); return out;
    case SipHeader::path: each(path); return out;
    case SipHeader::history_info: each(history_info); return out;
    case SipHeader::via:
      for (const String& v : via) out.push_back(v);
      return out;
    case SipHeader::other: break;
  }
  // Credentials and challenges carry commas between their own parameters.
  bool whole = name.equals_nocase(hdr_authorization) || name.equals_nocase(hdr_proxy_authorization) ||
               name.equals_nocase(hdr_www_authenticate) || name.equals_nocase(hdr_proxy_authenticate);
  for (const SipParam& h : headers) {
    if (!h.name.equals_nocase(name)) continue;
    if (whole) out.push_back(h.value);
    else split_commas(h.value, out);
  }
  return out;
}

void SipMessage::remove_header(const String& name, const String& compact) {
  headers.erase_if([&](const SipParam& h) { return name_matches(h.name, name, compact); });
}

void SipMessage::set_header(const String& name, const String& compact,
                            const std::vector<String>& values) {
  remove_header(name, compact);
  for (const String& v : values) headers.push_back(SipParam{name, v});
}
