#include "sip/digest.h"

#include "core/format.h"
#include "core/random.h"
#include "security/md5.h"
#include "sip/sip_message.h"
#include "sip/sip_params.h"

namespace {

String md5_hex(const String& text) { return hex(md5(text)); }

// A quoted value with backslash escapes, as the challenge carries them.
String quoted_value(const String& v) {
  String out("\"");
  for (int i = 0; i < v.length(); i++) {
    char c = v.at(i);
    if (c == '"' || c == '\\') out.append('\\');
    out.append(c);
  }
  out.append('"');
  return out;
}

}  // namespace

String NonceStore::issue() {
  static const char digits[] = "0123456789abcdef";
  String raw = random_string(16);
  String nonce;
  for (int i = 0; i < raw.length(); i++) {
    nonce.append(digits[raw.byte_at(i) >> 4]);
    nonce.append(digits[raw.byte_at(i) & 15]);
  }
  while (static_cast<int>(entries_.size()) >= limit) {
    auto oldest = entries_.begin();
    for (auto it = entries_.begin(); it != entries_.end(); ++it)
      if (it->second.order < oldest->second.order) oldest = it;
    entries_.erase(oldest);
  }
  entries_[nonce] = Entry{String(), String(), ++counter_};
  return nonce;
}

NonceStore::Entry* NonceStore::find(const String& nonce) {
  auto it = entries_.find(nonce);
  return it == entries_.end() ? nullptr : &it->second;
}

std::map<String, String> digest_params(const String& header) {
  std::map<String, String> out;
  String rest = header.trim();
  int space = rest.find(' ');
  if (space < 0) return out;
  rest = rest.tail(space + 1);
  int i = 0, n = rest.length();
  while (i < n) {
    while (i < n && (rest.at(i) == ' ' || rest.at(i) == ',' || rest.at(i) == '\t')) i++;
    int name_start = i;
    while (i < n && rest.at(i) != '=' && rest.at(i) != ',') i++;
    String name = rest.substr(name_start, i - name_start).trim().to_lower();
    if (i >= n || rest.at(i) != '=') {
      continue;
    }
    i++;
    while (i < n && rest.at(i) == ' ') i++;
    String value;
    if (i < n && rest.at(i) == '"') {
      i++;
      while (i < n && rest.at(i) != '"') {
        if (rest.at(i) == '\\' && i + 1 < n) i++;
        value.append(rest.at(i++));
      }
      i++;
    } else {
      int start = i;
      while (i < n && rest.at(i) != ',') i++;
      value = rest.substr(start, i - start).trim();
    }
    if (!name.empty()) out[name] = value;
  }
  return out;
}

namespace {

// The fields a server needs from an Authorization, read in one pass without a map.
struct DigestFields {
  String username, realm, nonce, uri, response, qop, nc, cnonce;
  bool has_realm = false;
};

bool read_fields(const String& header, DigestFields& f) {
  String rest = header.trim();
  if (!rest.starts_with_nocase(String("Digest"))) return false;
  const char* d = rest.c_data();
  int n = rest.length(), i = 6;
  while (i < n) {
    while (i < n && (d[i] == ' ' || d[i] == ',' || d[i] == '\t')) i++;
    int name_start = i;
    while (i < n && d[i] != '=' && d[i] != ',' && d[i] != ' ') i++;
    String name = rest.substr(name_start, i - name_start);
    while (i < n && d[i] == ' ') i++;
    if (i >= n || d[i] != '=') continue;
    i++;
    while (i < n && d[i] == ' ') i++;
    String value;
    if (i < n && d[i] == '"') {
      int start = ++i;
      bool escaped = false;
      while (i < n && d[i] != '"') {
        if (d[i] == '\\' && i + 1 < n) {
          escaped = true;
          i++;
        }
        i++;
      }
      value = rest.substr(start, i - start);
      if (escaped) value = unescape_quoted(value);
      i++;
    } else {
      int start = i;
      while (i < n && d[i] != ',') i++;
      value = rest.substr(start, i - start).trim();
    }
    if (name.equals_nocase("username")) f.username = value;
    else if (name.equals_nocase("realm")) f.realm = value, f.has_realm = true;
    else if (name.equals_nocase("nonce")) f.nonce = value;
    else if (name.equals_nocase("uri")) f.uri = value;
    else if (name.equals_nocase("response")) f.response = value;
    else if (name.equals_nocase("qop")) f.qop = value;
    else if (name.equals_nocase("nc")) f.nc = value;
    else if (name.equals_nocase("cnonce")) f.cnonce = value;
  }
  return true;
}

// MD5 of the parts joined by ":", as lower-case hexadecimal.
String md5_joined(std::initializer_list<const String*> parts) {
  Md5 h;
  bool first = true;
  for (const String* p : parts) {
    if (!first) h.update(reinterpret_cast<const uint8_t*>(":"), 1);
    first = false;
    h.update(*p);
  }
  return hex(h.final());
}

}  // namespace

DigestResult check_digest(const String& authorization, const String& method, const String& request_uri,
                          const String& realm, const Credential& credential, NonceStore& nonces) {
  DigestFields f;
  if (!read_fields(authorization, f)) return digest_bad;
  if (f.uri.empty()) f.uri = request_uri;
  if (f.username != credential.user) return digest_wrong_user;
  NonceStore::Entry* entry = nonces.find(f.nonce);
  if (f.nonce.empty() || !entry) return digest_unknown_nonce;
  const String& used_realm = f.has_realm ? f.realm : realm;
  String ha1 = md5_joined({&credential.user, &used_realm, &credential.password});
  String ha2 = md5_joined({&method, &f.uri});
  String response = f.response.to_lower();
  if (f.qop.empty()) {
    if (response != md5_joined({&ha1, &f.nonce, &ha2})) return digest_mismatch;
    nonces.remove(f.nonce);
    return digest_ok;
  }
  if (f.nc.empty() || f.cnonce.empty()) return digest_bad;
  if (response != md5_joined({&ha1, &f.nonce, &f.nc, &f.cnonce, &f.qop, &ha2})) return digest_mismatch;
  // A nonce with qop may be used again, with the same cnonce and a greater count.
  if (!entry->cnonce.empty() && (f.cnonce != entry->cnonce || !(f.nc > entry->nc))) return digest_mismatch;
  entry->cnonce = f.cnonce;
  entry->nc = f.nc;
  return digest_ok;
}

bool address_in_list(const String& adr, const String& list) {
  int n = adr.length();
  if (n != 4 && n != 16) return false;
  String items = list;
  items.replace_all(String(","), String(" "));
  for (const String& raw : items.split(' ')) {
    String item = raw.trim();
    if (item.empty()) continue;
    int slash = item.find('/');
    String net = parse_adr(slash >= 0 ? item.head(slash) : item);
    if (net.length() != n) continue;
    int bits = n * 8;
    if (slash >= 0) {
      String mask = item.tail(slash + 1).trim();
      if (mask.is_int()) {
        bits = mask.to_int();
      } else {
        // A dotted mask counts its leading ones; a mask with holes matches nothing.
        String m = parse_adr(mask);
        if (m.length() != n) continue;
        bits = 0;
        bool ended = false, holes = false;
        for (int i = 0; i < n; i++)
          for (int b = 7; b >= 0; b--) {
            bool set = (m.byte_at(i) >> b) & 1;
            if (set && ended) holes = true;
            if (set) bits++;
            else ended = true;
          }
        if (holes) continue;
      }
      if (bits < 0 || bits > n * 8) continue;
    }
    bool same = true;
    for (int i = 0; i < n && same; i++) {
      int keep = bits - i * 8;
      int mask = keep >= 8 ? 0xff : keep <= 0 ? 0 : (0xff << (8 - keep)) & 0xff;
      same = (adr.byte_at(i) & mask) == (net.byte_at(i) & mask);
    }
    if (same) return true;
  }
  return false;
}

AuthOutcome check_credentials(const SipMessage& request, NonceStore& nonces, const String& realm,
                              const std::vector<Credential>& credentials, bool allow_empty, const String& auth_adr) {
  AuthOutcome out;
  if (request.transport_authenticated) {
    out.passed = true;
    return out;
  }
  if (!auth_adr.trim().empty()) {
    // An account bound to addresses takes no password from anywhere else.
    out.by_address = out.passed = address_in_list(request.source.adr, auth_adr);
    if (!out.passed) out.status = 403;
    return out;
  }
  std::vector<String> headers = request.header_values(String("Authorization"));
  bool known_nonce_failed = false;
  String request_uri = request.request_uri.text();
  for (const Credential& c : credentials) {
    if (c.password.empty() && allow_empty) {
      out.passed = true;
      out.username = c.user;
      return out;
    }
    for (const String& h : headers) {
      DigestResult r = check_digest(h, request.method, request_uri, realm, c, nonces);
      if (r == digest_ok) {
        out.passed = true;
        out.username = c.user;
        return out;
      }
      if (r == digest_mismatch) known_nonce_failed = true;
    }
  }
  if (credentials.size() == 1 && credentials[0].password.empty()) {
    out.status = 403;
    return out;
  }
  out.status = 401;
  if (known_nonce_failed) {
    out.warning = format("399 %s Password does not match", realm);
  } else {
    out.www_authenticate = format("Digest realm=%s,nonce=%s,domain=%s,algorithm=MD5", quoted_value(realm),
                                  quoted_value(nonces.issue()), quoted_value(request_uri));
  }
  return out;
}

String answer_challenge_header(const String& challenge, const String& method, const String& uri,
                               const Credential& credential, const String& default_realm) {
  auto p = digest_params(challenge);
  String realm = p[String("realm")];
  if (realm.empty()) realm = default_realm;
  String nonce = p[String("nonce")];
  String opaque = p[String("opaque")];
  bool auth = false;
  for (const String& q : p[String("qop")].split(','))
    if (q.trim() == "auth") auth = true;
  String ha1 = md5_hex(format("%s:%s:%s", credential.user, realm, credential.password));
  String ha2 = md5_hex(format("%s:%s", method, uri));
  String nc("00000001"), cnonce;
  String response;
  if (auth) {
    cnonce = hex(random_string(8));
    response = md5_hex(format("%s:%s:%s:%s:auth:%s", ha1, nonce, nc, cnonce, ha2));
  } else {
    response = md5_hex(format("%s:%s:%s", ha1, nonce, ha2));
  }
  String out = format("Digest realm=%s,nonce=%s,response=%s,username=%s,uri=%s", quoted_value(realm),
                      quoted_value(nonce), quoted_value(response), quoted_value(credential.user), quoted_value(uri));
  if (auth) out.append(format(",qop=%s,nc=%s,cnonce=%s", String("auth"), nc, quoted_value(cnonce)));
  if (!opaque.empty()) out.append(format(",opaque=%s", quoted_value(opaque)));
  out.append(",algorithm=MD5");
  return out;
}
