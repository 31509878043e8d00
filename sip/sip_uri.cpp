#include "sip/sip_uri.h"

#include "sip/internal/char_class.h"

namespace {

bool is_letter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool is_digit(char c) { return c >= '0' && c <= '9'; }

int scan_letters(const char* p, int n) {
  int i = 0;
  while (i < n && is_letter(p[i])) i++;
  return i;
}

// Reads `;name=value` or `&name=value` items from `pos` on until a byte in `stop` outside
// an item; returns the offset where reading stopped.
int read_items(const String& s, const char* p, int n, int pos, char lead, char stop,
               ParamList& out) {
  while (pos < n && p[pos] == lead) {
    pos++;
    int name_start = pos;
    while (pos < n && p[pos] != '=' && p[pos] != lead && p[pos] != stop) pos++;
    String name = s.substr(name_start, pos - name_start);
    String value;
    if (pos < n && p[pos] == '=') {
      pos++;
      int value_start = pos;
      while (pos < n && p[pos] != lead && p[pos] != stop) pos++;
      value = uri_decoded(s.substr(value_start, pos - value_start));
    }
    if (!name.empty()) out.push_back(SipParam{uri_decoded(name), value});
  }
  return pos;
}

}  // namespace

void SipUri::assign(const String& text) {
  raw_ = text;
  unparsed_ = true;
  dirty_ = false;
}

void SipUri::parse() const {
  unparsed_ = false;
  scheme_.clear();
  user_.clear();
  password_.clear();
  host_.clear();
  port_.clear();
  params_.clear();
  headers_.clear();

  String t = raw_.trim();
  const char* p = t.c_data();
  int n = t.length();
  int at = t.find('@');
  String user_part;
  String rest;
  if (at < 0) {
    rest = t;
    int i = scan_letters(p, n);
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
        scheme_ = t.head(i);
        rest = t.tail(i + 1);
      }
    }
  } else {
    user_part = t.head(at);
    rest = t.tail(at + 1);
    int i = scan_letters(p, at);
    if (i < at && p[i] == ':') {
      scheme_ = t.head(i);
      user_part = t.substr(i + 1, at - i - 1);
    }
  }

  if (!user_part.empty()) {
    const char* u = user_part.c_data();
    int un = user_part.length();
    int colon = -1;
    for (int i = 0; i < un; i++) {
      if (u[i] == '%') {
        i += 2;
      } else if (u[i] == ':') {
        colon = i;
        break;
      }
    }
    if (colon < 0) {
      user_ = uri_decoded(user_part);
    } else {
      user_ = uri_decoded(user_part.head(colon));
      password_ = uri_decoded(user_part.tail(colon + 1));
    }
  }

  const char* r = rest.c_data();
  int rn = rest.length();
  int pos = 0;
  int depth = 0;
  while (pos < rn) {
    char c = r[pos];
    if (c == '[') depth++;
    else if (c == ']' && depth > 0) depth--;
    else if (depth == 0 && (c == ';' || c == '?' || c == ':')) break;
    pos++;
  }
  host_ = rest.head(pos);
  if (pos < rn && r[pos] == ':') {
    pos++;
    int start = pos;
    // A port may still be a placeholder that the sending side fills in.
    int close = r[pos] == '{' ? placeholder_end(r, rn, pos) : -1;
    if (close >= 0) {
      pos = close + 1;
    } else {
      while (pos < rn && is_digit(r[pos])) pos++;
    }
    port_ = rest.substr(start, pos - start);
  }
  pos = read_items(rest, r, rn, pos, ';', '?', params_);
  if (pos < rn && r[pos] == '?') {
    // The first header follows the "?" just as the next ones follow "&".
    ParamList& h = headers_;
    pos++;
    while (pos <= rn) {
      int start = pos;
      while (pos < rn && r[pos] != '&') pos++;
      String item = rest.substr(start, pos - start);
      int eq = item.find('=');
      String name = eq < 0 ? item : item.head(eq);
      String value = eq < 0 ? String() : uri_decoded(item.tail(eq + 1));
      if (!name.empty()) h.push_back(SipParam{uri_decoded(name), value});
      pos++;
    }
  }
}

void SipUri::append_built(String& out) const {
  parsed();
  if (!scheme_.empty()) {
    out.append(scheme_);
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
    out.append(host_);
    if (!port_.empty()) {
      out.append(':');
      out.append(port_);
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
    out.append(lead);
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
