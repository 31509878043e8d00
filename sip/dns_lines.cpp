#include "sip/dns_lines.h"

#include <regex>
#include <string>

#include "core/address.h"
#include "core/log.h"
#include "sip/dns_resolver.h"

namespace {

void log_dns(int level, const String& text) {
  if (log_enabled(LOG_DNS, level)) log_add_message_global(LOG_DNS, level, 0, text);
}

struct Services {
  bool sip = false, sips = false, d2u = false, d2t = false, e2u = false, e2t = false;
};

Services services_of(const String& text) {
  Services s;
  String words = text;
  words.replace_all(String("+"), String(":"));
  for (const String& word : words.split(':')) {
    if (word.equals_nocase("SIP")) s.sip = true;
    else if (word.equals_nocase("SIPS")) s.sips = true;
    else if (word.equals_nocase("D2U")) s.d2u = true;
    else if (word.equals_nocase("D2T")) s.d2t = true;
    else if (word.equals_nocase("E2U")) s.e2u = true;
    else if (word.equals_nocase("E2T")) s.e2t = true;
  }
  return s;
}

// The lines of one usable record for one transport and its port.
void add_target(std::vector<String>& out, char flag, const String& transport, const String& target, int port) {
  switch (flag) {
    case 's': out.push_back(format("srv %s %s", transport, target)); break;
    case 'a':
      out.push_back(format("aaaa %s %s %d", transport, target, port));
      out.push_back(format("a %s %s %d", transport, target, port));
      break;
    case 'u': out.push_back(format("url %s", target)); break;
    default: break;
  }
}

bool is_wanted(const String& wanted, const char* transport) { return wanted.empty() || wanted == transport; }

constexpr int max_quantifiers = 4;
constexpr int max_subject = 128;

// The library's matcher backtracks without a limit, so a pattern from the network must
// be one whose cost is small: no quantified group (the nested repetition of "(a*)*b"),
// no quantifier of a quantifier (".**" is the same nesting), and few quantifiers in all.
// ENUM patterns in use ("^.*$", "^\+49(.*)$") pass easily.
bool tame_pattern(const String& p) {
  int quantifiers = 0;
  bool after_quantifier = false;
  for (int i = 0; i < p.length(); i++) {
    char c = p[i];
    if (c == '\\') {
      i++;
      after_quantifier = false;
      continue;
    }
    bool quantifier = c == '*' || c == '+' || c == '?' || c == '{';
    if (quantifier && (after_quantifier || (i > 0 && p[i - 1] == ')'))) return false;
    if (quantifier && ++quantifiers > max_quantifiers) return false;
    if (c == '{') {
      // Bounds are small numbers: the matcher builds a state per repetition, and reads
      // a long number into an overflowing integer. What follows "}" is quantified again.
      int digits = 0;
      for (i++; i < p.length() && p[i] != '}'; i++) {
        if (p[i] == ',') digits = 0;
        else if (p[i] < '0' || p[i] > '9' || ++digits > 2) return false;
      }
    }
    after_quantifier = quantifier;
  }
  return true;
}

}  // namespace

String naptr_apply_regexp(const String& regexp, const String& subject) {
  if (regexp.length() < 3 || regexp.length() > 255 || subject.length() > max_subject) return String();
  char delimiter = regexp[0];
  std::vector<String> parts = regexp.tail(1).split_keep(delimiter);
  if (parts.size() != 3) return String();
  if (!tame_pattern(parts[0])) return String();
  std::string pattern(parts[0].c_data(), static_cast<size_t>(parts[0].length()));
  std::string replacement(parts[1].c_data(), static_cast<size_t>(parts[1].length()));
  std::string text(subject.c_data(), static_cast<size_t>(subject.length()));
  auto flags = std::regex::extended;
  if (parts[2] == "i") flags |= std::regex::icase;
  // The expression comes from the network: a malformed one is an empty result, and the
  // library's exception must not leave this function.
  try {
    std::regex re(pattern, flags);
    std::smatch m;
    if (!std::regex_search(text, m, re)) return String();
    std::string out = m.format(replacement, std::regex_constants::format_sed);
    return String(out.data(), static_cast<int>(out.size()));
  } catch (const std::exception&) {
    return String();
  }
}

std::vector<String> naptr_lines(const String& records, const String& wanted, bool is_enum, const String& enum_subject) {
  std::vector<String> out;
  for (const String& record : dns_sort_lines(records, false)) {
    String flags = record.word(2, ' ').to_lower();
    Services s = services_of(record.word(3, ' '));
    String regexp = record.word(4, ' ');
    String replacement = record.word(5, ' ');
    if (flags.contains('p')) {
      log_dns(5, String("P Flag on NAPTR record ignored"));
      continue;
    }
    char flag = flags.contains('s') ? 's' : flags.contains('a') ? 'a' : flags.contains('u') ? 'u' : 0;
    if (!flag) {
      log_dns(5, String("NAPTR: No flag set"));
      continue;
    }
    if (is_enum) {
      if (flag != 'u' || !(s.e2u || s.e2t)) continue;
      String uri = regexp == "-" ? String() : naptr_apply_regexp(regexp, enum_subject);
      if (!uri.empty()) out.push_back(format("url %s", uri));
      continue;
    }
    if (replacement.empty() || replacement == ".") {
      if (flag != 'u') continue;
    }
    String target = flag == 'u' && regexp != "-" ? naptr_apply_regexp(regexp, enum_subject) : replacement;
    if (target.empty()) continue;
    if (s.sip && s.d2u && is_wanted(wanted, "udp")) add_target(out, flag, String("udp"), target, 5060);
    if (s.sip && s.d2t && is_wanted(wanted, "tcp")) add_target(out, flag, String("tcp"), target, 5060);
    if ((s.sips && s.d2t && is_wanted(wanted, "tls")) || (s.sip && wanted == "tls" && (s.d2t || s.d2u)))
      add_target(out, flag, String("tls"), target, 5061);
  }
  return out;
}

std::vector<String> naptr_fallback_lines(const String& host, const String& wanted, int port) {
  std::vector<String> out;
  const char* const transports[] = {"tls", "tcp", "udp"};
  for (const char* t : transports) {
    if (!wanted.empty() && wanted != t) continue;
    if (wanted.empty() && String(t) != "udp") continue;  // without a transport, UDP is the default
    int p = port > 0 ? port : String(t) == "tls" ? 5061 : 5060;
    out.push_back(format("a %s %s %d", t, host, p));
    out.push_back(format("aaaa %s %s %d", t, host, p));
  }
  if (is_wanted(wanted, "udp")) out.push_back(format("srv udp _sip._udp.%s", host));
  if (is_wanted(wanted, "tcp")) out.push_back(format("srv tcp _sip._tcp.%s", host));
  if (is_wanted(wanted, "tls")) {
    out.push_back(format("srv tls _sips._tcp.%s", host));
    out.push_back(format("srv tls _sip._tls.%s", host));
  }
  return out;
}

std::vector<String> srv_lines(const String& records, const String& transport, bool ipv4, bool ipv6, int& names) {
  std::vector<String> out;
  names = 0;
  for (const String& record : dns_sort_lines(records, true)) {
    String host = record.word(2, ' ');
    String port = record.word(3, ' ');
    if (host.empty() || !port.is_int() || port.to_int() <= 0) continue;
    if (!parse_adr(host).empty()) {
      out.push_back(format("%s %s %s", transport, host, port));
      continue;
    }
    if (ipv6) out.push_back(format("aaaa %s %s %s", transport, host, port));
    if (ipv4) out.push_back(format("a %s %s %s", transport, host, port));
    names++;
  }
  return out;
}
