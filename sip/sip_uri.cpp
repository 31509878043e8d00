#include "sip/sip_uri.h"

#include <cstring>

#include "sip/internal/char_class.h"
#include "sip/internal/slice.h"

namespace {

bool is_letter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool is_digit(char c) { return c >= '0' && c <= '9'; }

int scan_letters(const char* p, int n) {
  int i = 0;
  while (i < n && is_letter(p[i])) i++;
  return i;
}

// A field from bytes [b, e) of s: a slice, or the decoded text when it holds a "%".
void set_field(String& dest, const String& s, const char* p, int b, int e) {
  for (int i = b; i < e; i++)
    if (p[i] == '%') {
      dest = uri_decoded(s.substr(b, e - b));
      return;
    }
  set_slice(dest, s, b, e - b);
}

// Reads `;name=value` (or `&name=value`) items from `pos` on, each led by `lead`, until a
// `stop` byte outside an item; returns where reading stopped.
int read_items(const String& s, const char* p, int n, int pos, char lead, char stop,
               bool first_is_led, ParamList& out) {
  while (pos < n && (p[pos] == lead || first_is_led)) {
    if (!first_is_led) pos++;
    first_is_led = false;
    int name_start = pos;
    while (pos < n && p[pos] != '=' && p[pos] != lead && p[pos] != stop) pos++;
    int name_end = pos;
    int value_start = pos;
    int value_end = pos;
    if (pos < n && p[pos] == '=') {
      pos++;
      value_start = pos;
      while (pos < n && p[pos] != lead && p[pos] != stop) pos++;
      value_end = pos;
    }
    if (name_end > name_start) {
      SipParam& prm = out.emplace_back();
      set_field(prm.name, s, p, name_start, name_end);
      set_field(prm.value, s, p, value_start, value_end);
    }
  }
  return pos;
}

}  // namespace

void SipUri::assign(const String& text) {
  raw_ = text;
  unparsed_ = true;
  dirty_ = false;
}

void SipUri::assign_slice(const String& src, int pos, int length) {
  set_slice(raw_, src, pos, length);
  unparsed_ = true;
  dirty_ = false;
}

void SipUri::parse() const {
  unparsed_ = false;
  params_at_ = -1;
  scheme_.clear();
  user_.clear();
  password_.clear();
  host_.clear();
  port_.clear();
  params_.clear();
  headers_.clear();

  const String& t = raw_;
  const char* p = t.c_data();
  int tb = 0;
  int n = t.length();
  trim_span(p, tb, n);
  const void* found = tb < n ? memchr(p + tb, '@', static_cast<size_t>(n - tb)) : nullptr;
  int at = found ? static_cast<int>(static_cast<const char*>(found) - p) : n;
  int user_b = tb;  // the user part, empty without an "@"
  int user_e = tb;
  int rest = tb;
  if (at >= n) {
    int i = tb + scan_letters(p + tb, n - tb);
    if (i < n && p[i] == ':') {
      // host:5060 keeps its port; sip:host gets a scheme.
      int j = i + 1;
      bool digits = j < n && p[j] != ';';
      for (; j < n && p[j] != ';'; j++)
        if (!is_digit(p[j])) {
          digits = false;
          break;
        }
      if (!digits) {
        set_slice(scheme_, t, tb, i - tb);
        rest = i + 1;
      }
    }
  } else {
    user_e = at;
    rest = at + 1;
    int i = tb + scan_letters(p + tb, at - tb);
    if (i < at && p[i] == ':') {
      set_slice(scheme_, t, tb, i - tb);
      user_b = i + 1;
    }
  }

  if (user_e > user_b) {
    int colon = -1;
    for (int i = user_b; i < user_e; i++) {
      if (p[i] == '%') {
        i += 2;
      } else if (p[i] == ':') {
        colon = i;
        break;
      }
    }
    if (colon < 0) {
      set_field(user_, t, p, user_b, user_e);
    } else {
      set_field(user_, t, p, user_b, colon);
      set_field(password_, t, p, colon + 1, user_e);
    }
  }

  int pos = rest;
  int depth = 0;
  while (pos < n) {
    char c = p[pos];
    if (c == '[') depth++;
    else if (c == ']' && depth > 0) depth--;
    else if (depth == 0 && (c == ';' || c == '?' || c == ':')) break;
    pos++;
  }
  set_slice(host_, t, rest, pos - rest);
  if (pos < n && p[pos] == ':') {
    pos++;
    int start = pos;
    // A port may still be a placeholder that the sending side fills in.
    int close = pos < n && p[pos] == '{' ? placeholder_end(p, n, pos) : -1;
    if (close >= 0) {
      pos = close + 1;
    } else {
      while (pos < n && is_digit(p[pos])) pos++;
    }
    set_slice(port_, t, start, pos - start);
  }
  params_at_ = pos < n ? pos : -1;
}

void SipUri::parse_params() const {
  const String& t = raw_;
  const char* p = t.c_data();
  int b = 0;
  int n = t.length();
  trim_span(p, b, n);
  int pos = params_at_;
  params_at_ = -1;
  pos = read_items(t, p, n, pos, ';', '?', false, params_);
  if (pos < n && p[pos] == '?') read_items(t, p, n, pos + 1, '&', '&', true, headers_);
}

void SipUri::append_built(String& out) const {
  parsed_all();
  if (!scheme_.empty()) {
    put(out, scheme_);
    out.append(':');
  }
  if (!user_.empty()) {
    append_uri_encoded(out, user_, cc_user);
    if (!password_.empty()) {
      out.append(':');
      append_uri_encoded(out, password_, cc_user);
    }
    out.append('@');
  }
  if (!host_.empty()) {
    put(out, host_);
    if (!port_.empty()) {
      out.append(':');
      put(out, port_);
    }
  }
  for (const SipParam& prm : params_) {
    out.append(';');
    append_uri_encoded(out, prm.name, cc_uri_param);
    if (!prm.value.empty()) {
      out.append('=');
      append_uri_encoded(out, prm.value, cc_uri_param);
    }
  }
  char lead = '?';
  for (const SipParam& h : headers_) {
    put(out, lead);
    lead = '&';
    append_uri_encoded(out, h.name, cc_uri_header);
    out.append('=');
    append_uri_encoded(out, h.value, cc_uri_header);
  }
}

const String& SipUri::text() const {
  if (dirty_) {
    String built;
    append_built(built);
    raw_ = built;
    dirty_ = false;
  }
  return raw_;
}

String uri_param(const SipUri& uri, const String& name) {
  const SipParam* p = find_param(uri.params(), name);
  return p ? p->value : String();
}

void uri_set_param(SipUri& uri, const String& name, const String& value) {
  set_param(uri.params_mutable(), name, value);
}

bool uri_has_param(const SipUri& uri, const String& name) {
  return find_param(uri.params(), name) != nullptr;
}

String uri_header(const SipUri& uri, const String& name) {
  const SipParam* p = find_param(uri.headers(), name);
  return p ? p->value : String();
}

void uri_set_header(SipUri& uri, const String& name, const String& value) {
  set_param(uri.headers_mutable(), name, value);
}

bool uri_has_header(const SipUri& uri, const String& name) {
  return find_param(uri.headers(), name) != nullptr;
}

namespace {

// Parameters that make two URIs differ when only one side has them.
bool must_match(const String& name) {
  return name == "user" || name == "ttl" || name == "method" || name == "maddr";
}

bool params_agree(const ParamList& a, const ParamList& b) {
  for (const SipParam& p : a) {
    const SipParam* q = nullptr;
    for (const SipParam& x : b)
      if (x.name == p.name) {
        q = &x;
        break;
      }
    if (q ? q->value != p.value : must_match(p.name)) return false;
  }
  return true;
}

}  // namespace

bool uri_equal(const SipUri& a, const SipUri& b) {
  if (a.scheme() != b.scheme() || a.user() != b.user() || a.password() != b.password() ||
      a.host() != b.host() || a.port() != b.port())
    return false;
  if (!params_agree(a.params(), b.params()) || !params_agree(b.params(), a.params())) return false;
  const ParamList& ha = a.headers();
  const ParamList& hb = b.headers();
  if (ha.size() != hb.size()) return false;
  for (const SipParam& h : ha) {
    const SipParam* m = nullptr;
    for (const SipParam& x : hb)
      if (x.name == h.name) {
        m = &x;
        break;
      }
    if (!m || m->value != h.value) return false;
  }
  return true;
}
