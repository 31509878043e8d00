#include "sip/digest.h"

#include "core/format.h"
#include "core/random.h"
#include "security/md5.h"
#include "sip/sip_message.h"

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

DigestResult check_digest(const String& authorization, const String& method, const String& request_uri,
                          const String& realm, const Credential& credential, NonceStore& nonces) {
  if (!authorization.trim().starts_with_nocase(String("Digest"))) return digest_bad;
  auto p = digest_params(authorization);
  String username = p[String("username")];
  String uri = p[String("uri")];
  if (uri.empty()) uri = request_uri;
  if (username != credential.user) return digest_wrong_user;
  String nonce = p[String("nonce")];
  NonceStore::Entry* entry = nonces.find(nonce);
  if (nonce.empty() || !entry) return digest_unknown_nonce;
  String used_realm = p.count(String("realm")) ? p[String("realm")] : realm;
  String ha1 = md5_hex(format("%s:%s:%s", credential.user, used_realm, credential.password));
  String ha2 = md5_hex(format("%s:%s", method, uri));
  String qop = p[String("qop")];
  String response = p[String("response")].to_lower();
  if (qop.empty()) {
    if (response != md5_hex(format("%s:%s:%s", ha1, nonce, ha2))) return digest_mismatch;
    nonces.remove(nonce);
    return digest_ok;
  }
  String nc = p[String("nc")], cnonce = p[String("cnonce")];
  if (nc.empty() || cnonce.empty()) return digest_bad;
  if (response != md5_hex(format("%s:%s:%s:%s:%s:%s", ha1, nonce, nc, cnonce, qop, ha2))) return digest_mismatch;
  // A nonce with qop may be used again, with the same cnonce and a greater count.
  if (!entry->cnonce.empty() && (cnonce != entry->cnonce || !(nc > entry->nc))) return digest_mismatch;
  entry->cnonce = cnonce;
  entry->nc = nc;
  return digest_ok;
}

AuthOutcome check_credentials(const SipMessage& request, NonceStore& nonces, const String& realm,
                              const std::vector<Credential>& credentials, bool allow_empty) {
  AuthOutcome out;
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
