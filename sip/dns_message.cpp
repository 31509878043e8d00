#include "sip/dns_message.h"

#include "core/address.h"

namespace {

const char* const type_words[dns_type_count] = {"A", "SRV", "CNAME", "NAPTR", "AAAA"};
const int wire_types[dns_type_count] = {1, 33, 5, 35, 28};

constexpr int header_size = 12;
constexpr int max_name = 253;
constexpr int max_label = 63;
// A name has at most 127 labels; more jumps than that can only be a loop.
constexpr int max_jumps = 127;
// A UDP answer of 64 KiB can't hold more than this many records of 11 bytes.
constexpr int max_records = 65536 / 11;

int type_of_wire(int wire) {
  for (int i = 0; i < dns_type_count; i++)
    if (wire_types[i] == wire) return i;
  return -1;
}

int u16(const String& p, int at) { return (p.byte_at(at) << 8) | p.byte_at(at + 1); }

uint32_t u32(const String& p, int at) {
  return (static_cast<uint32_t>(u16(p, at)) << 16) | static_cast<uint32_t>(u16(p, at + 2));
}

void put16(String& out, int v) {
  out.append(static_cast<char>((v >> 8) & 0xff));
  out.append(static_cast<char>(v & 0xff));
}

void put32(String& out, uint32_t v) {
  put16(out, static_cast<int>(v >> 16));
  put16(out, static_cast<int>(v & 0xffff));
}

bool put_name(String& out, const String& name) {
  String n = name.trim_right('.');
  if (n.length() > max_name) return false;
  if (!n.empty()) {
    for (const String& label : n.split_keep('.')) {
      if (label.empty() || label.length() > max_label) return false;
      out.append(static_cast<char>(label.length()));
      out.append(label);
    }
  }
  out.append('\0');
  return true;
}

// Reads a possibly compressed name at `at`; `next` is where the record goes on. A
// pointer must point before the place it stands at, so that a chain always ends.
bool read_name(const String& p, int at, String& name, int& next) {
  name = String();
  next = -1;
  int pos = at;
  int jumps = 0;
  for (;;) {
    if (pos >= p.length()) return false;
    int len = p.byte_at(pos);
    if ((len & 0xc0) == 0xc0) {
      if (pos + 1 >= p.length()) return false;
      int target = ((len & 0x3f) << 8) | p.byte_at(pos + 1);
      if (next < 0) next = pos + 2;
      if (target >= pos || ++jumps > max_jumps) return false;
      pos = target;
      continue;
    }
    if (len & 0xc0) return false;  // the reserved label kinds
    if (len == 0) {
      if (next < 0) next = pos + 1;
      return true;
    }
    if (pos + 1 + len > p.length()) return false;
    if (name.length() + 1 + len > max_name + 1) return false;
    if (!name.empty()) name.append('.');
    name.append(p.substr(pos + 1, len).to_lower());
    pos += 1 + len;
  }
}

// A character string of NAPTR: a length byte and the bytes.
bool read_text(const String& p, int& at, int end, String& out) {
  if (at >= end) return false;
  int len = p.byte_at(at);
  if (at + 1 + len > end) return false;
  out = p.substr(at + 1, len);
  at += 1 + len;
  return true;
}

// The text of one record's data, which lies in [at, end).
bool read_rdata(const String& p, int type, int at, int end, DnsRecord& r) {
  switch (type) {
    case dns_a:
    case dns_aaaa: {
      int size = type == dns_a ? 4 : 16;
      if (end - at != size) {
        r.bad = true;
        r.text = hex(p.substr(at, end - at));
        return true;
      }
      r.text = adr_text(p.substr(at, size));
      return true;
    }
    case dns_cname: {
      int next;
      if (!read_name(p, at, r.text, next) || next > end) return false;
      return true;
    }
    case dns_srv: {
      if (end - at < 7) return false;
      String host;
      int next;
      if (!read_name(p, at + 6, host, next) || next > end) return false;
      r.text = format("%d %d %s %d", u16(p, at), u16(p, at + 2), host, u16(p, at + 4));
      return true;
    }
    case dns_naptr: {
      if (end - at < 4) return false;
      int pos = at + 4;
      String flags, service, regexp, replacement;
      if (!read_text(p, pos, end, flags) || !read_text(p, pos, end, service) || !read_text(p, pos, end, regexp))
        return false;
      int next;
      if (!read_name(p, pos, replacement, next) || next > end) return false;
      // Blanks separate the fields of the record text, so none may stand inside one.
      if (flags.contains(' ') || service.contains(' ') || regexp.contains(' ')) return false;
      // "-" holds the place of an empty field, so that the words keep their positions.
      if (flags.empty()) flags = "-";
      if (service.empty()) service = "-";
      if (regexp.empty()) regexp = "-";
      if (replacement.empty()) replacement = ".";
      r.text = format("%d %d %s %s %s %s", u16(p, at), u16(p, at + 2), flags, service, regexp, replacement);
      return true;
    }
    default:
      return false;
  }
}

bool put_rdata(String& out, const DnsRecord& r) {
  String data;
  switch (r.type) {
    case dns_a:
    case dns_aaaa:
      data = parse_adr(r.text);
      if (data.empty()) data = r.text;  // lets a test send a malformed address
      break;
    case dns_cname:
      if (!put_name(data, r.text)) return false;
      break;
    case dns_srv:
      put16(data, r.text.word(0, ' ').to_int());
      put16(data, r.text.word(1, ' ').to_int());
      put16(data, r.text.word(3, ' ').to_int());
      if (!put_name(data, r.text.word(2, ' '))) return false;
      break;
    case dns_naptr: {
      put16(data, r.text.word(0, ' ').to_int());
      put16(data, r.text.word(1, ' ').to_int());
      for (int i = 2; i <= 4; i++) {
        String t = r.text.word(i, ' ');
        if (t == "-") t = String();
        data.append(static_cast<char>(t.length()));
        data.append(t);
      }
      String replacement = r.text.word(5, ' ');
      if (!put_name(data, replacement == "." ? String() : replacement)) return false;
      break;
    }
    default:
      return false;
  }
  put16(out, data.length());
  out.append(data);
  return true;
}

}  // namespace

String dns_type_word(int type) {
  if (type < 0 || type >= dns_type_count) return String();
  return String(type_words[type]);
}

int dns_type_from_word(const String& word) {
  for (int i = 0; i < dns_type_count; i++)
    if (word.equals_nocase(type_words[i])) return i;
  return -1;
}

String dns_encode_query(int id, const String& name, int type) {
  if (type < 0 || type >= dns_type_count || name.empty()) return String();
  String out;
  put16(out, id & 0xffff);
  put16(out, 0x0100);  // a query, recursion desired
  put16(out, 1);
  put16(out, 0);
  put16(out, 0);
  put16(out, 0);
  if (!put_name(out, name)) return String();
  put16(out, wire_types[type]);
  put16(out, 1);  // class IN
  return out;
}

bool dns_decode_answer(const String& pdu, DnsAnswer& out) {
  out = DnsAnswer();
  if (pdu.length() < header_size) return false;
  int flags = u16(pdu, 2);
  if (!(flags & 0x8000)) return false;  // a query, not a response
  out.id = u16(pdu, 0);
  out.truncated = (flags & 0x0200) != 0;
  out.rcode = flags & 0x000f;
  int questions = u16(pdu, 4);
  int answers = u16(pdu, 6);
  if (questions > 1 || answers > max_records) return false;
  int pos = header_size;
  if (questions == 1) {
    int next;
    if (!read_name(pdu, pos, out.question, next) || next + 4 > pdu.length()) return false;
    out.question_type = type_of_wire(u16(pdu, next));
    pos = next + 4;
  }
  for (int i = 0; i < answers; i++) {
    DnsRecord r;
    int next;
    if (!read_name(pdu, pos, r.name, next) || next + 10 > pdu.length()) return false;
    int wire = u16(pdu, next);
    int klass = u16(pdu, next + 2);
    uint32_t ttl = u32(pdu, next + 4);
    int rdlength = u16(pdu, next + 8);
    int data = next + 10;
    if (data + rdlength > pdu.length()) return false;
    pos = data + rdlength;
    r.type = type_of_wire(wire);
    if (r.type < 0 || klass != 1) continue;
    r.ttl = ttl > 0x7fffffff ? 0 : static_cast<int>(ttl);
    if (!read_rdata(pdu, r.type, data, data + rdlength, r)) return false;
    out.records.push_back(r);
  }
  return true;
}

String dns_encode_answer(const String& query, int rcode, const std::vector<DnsRecord>& records) {
  if (query.length() < header_size) return String();
  String out = query.head(2);
  put16(out, 0x8180 | (rcode & 0xf));
  put16(out, 1);
  put16(out, static_cast<int>(records.size()));
  put16(out, 0);
  put16(out, 0);
  out.append(query.tail(header_size));
  for (const DnsRecord& r : records) {
    if (r.type < 0 || r.type >= dns_type_count) return String();
    if (!put_name(out, r.name)) return String();
    put16(out, wire_types[r.type]);
    put16(out, 1);
    put32(out, static_cast<uint32_t>(r.ttl));
    if (!put_rdata(out, r)) return String();
  }
  return out;
}
