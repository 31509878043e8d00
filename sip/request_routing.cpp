#include "sip/request_routing.h"

#include <vector>

#include "core/format.h"
#include "core/log.h"
#include "core/mutex.h"
#include "core/posting.h"
#include "core/server.h"
#include "core/tick.h"
#include "security/md5.h"
#include "sip/branch.h"
#include "sip/internal/sip_log.h"
#include "sip/domain_names.h"
#include "sip/sip_hooks.h"
#include "sip/sip_params.h"
#include "sip/transaction.h"

RoutingHooks routing_hooks;
const String allow_methods("INVITE, ACK, CANCEL, BYE, REFER, PRACK, INFO, UPDATE");

namespace {

const String default_blacklist("sipcli sipvicious sip-scan sipsak sundayddr friendly-scanner iWar CSipSimple SIVuS Gulp");
String blacklist_text;
bool blacklist_read = false;
std::vector<String> blacklist_words;

// Blank-separated words; double quotes and a backslash keep a word whole.
std::vector<String> read_words(const String& text) {
  std::vector<String> out;
  String word;
  bool quoted = false, any = false;
  for (int i = 0; i < text.length(); i++) {
    char c = text.at(i);
    if (c == '\\' && i + 1 < text.length()) {
      word.append(text.at(++i));
      any = true;
    } else if (c == '"') {
      quoted = !quoted;
      any = true;
    } else if ((c == ' ' || c == '\t') && !quoted) {
      if (any) out.push_back(word);
      word = String();
      any = false;
    } else {
      word.append(c);
      any = true;
    }
  }
  if (any) out.push_back(word);
  return out;
}

const std::vector<String>& blacklisted_agents() {
  String setting = sip_setting(String("blacklist_user_agent"));
  if (setting.empty()) setting = default_blacklist;
  if (!blacklist_read || setting != blacklist_text) {
    blacklist_read = true;
    blacklist_text = setting;
    blacklist_words = read_words(setting);
    log_sip(5, "Ignore traffic from user-agents %s", setting);
  }
  return blacklist_words;
}


// The arrival times of recent INVITEs over UDP, for the rate guard.
int64_t invite_times[256];
int invite_head = 0, invite_count = 0;

// True when a new UDP INVITE goes over `max_udp_invite` a second (0 switches it off).
bool udp_invite_flood() {
  String setting = sip_setting(String("max_udp_invite"));
  int limit = setting.is_int() ? setting.to_int() : 10;
  if (limit == 0) return false;
  int64_t now = Tick::now().ns;
  while (invite_count > 0 && now - invite_times[(invite_head - invite_count + 256) % 256] > 1000000000) invite_count--;
  if (invite_count >= 254 || invite_count >= limit) return true;
  invite_times[invite_head] = now;
  invite_head = (invite_head + 1) % 256;
  invite_count++;
  return false;
}

// True when the CPU load is over `performance_limit` percent (active from 1 to 99).
bool cpu_over_limit() {
  String setting = sip_setting(String("performance_limit"));
  int limit = setting.is_int() ? setting.to_int() : 50;
  if (limit < 1 || limit > 99) return false;
  int load = (rtp_cpu_load() + 50) / 100;
  if (load <= limit) return false;
  log_sip(2, "CPU usage %d exceeded limit %d, rejecting incoming call", load, limit);
  return true;
}

void on_received(const String& value) {
  must_own(srv_run_mutex, "receive_packet", 1);
  ReceivedPacket packet;
  if (read_received_packet(value, packet)) receive_packet(packet);
}

void on_local_response(SipMessage& response) { travel_backward(response); }

bool keep_alive_request(const SipMessage& m) {
  if (m.via.empty()) return false;
  if (m.method == method_ping) return true;
  return m.method == method_notify && m.transport == Transport::udp &&
         m.header(String("Event"), String("o")).word(0, ';').trim().equals_nocase("keep-alive");
}

// Counts the Contacts of a REGISTER or SUBSCRIBE: -1 for a lone "*".
int count_contacts(const SipMessage& m, bool& wildcard) {
  wildcard = false;
  int n = 0;
  for (const NameAddr& c : m.contact) {
    if (c.raw().trim() == "*") {
      wildcard = true;
      continue;
    }
    const String& scheme = c.uri().scheme();
    if (!scheme.equals_nocase("sip") && !scheme.equals_nocase("sips")) continue;
    if (uri_param(c.uri(), String("expires")) == "0") continue;
    n++;
  }
  return n;
}

}  // namespace

void reply(const SipMessage& request, int status, const char* reason) {
  SipMessage r(status, String(reason), request);
  if (r.to.tag().empty() && !request.to.tag().empty()) r.to.set_tag(request.to.tag());
  send_packet(static_cast<SipMessage&&>(r));
}

void via_fix_received(SipMessage& m, const Address& source) {
  if (m.via.empty()) return;
  String& via = m.via[0];
  String protocol = via.word(0, ' ');
  String rest = via.words_from(1, ' ');
  int semi = rest.find(';');
  String sent_by = (semi >= 0 ? rest.head(semi) : rest).trim();
  String params = semi >= 0 ? rest.tail(semi) : String();
  String source_text = adr_text(source.adr);
  bool differs = host_part(sent_by) != source_text;
  bool has_rport = false;
  String rebuilt;
  for (const String& p : params.split(';')) {
    String name = p.word(0, '=').trim();
    if (name.equals_nocase("rport")) {
      has_rport = true;
      rebuilt.append(format(";rport=%d", source.port));
    } else {
      rebuilt.append(';');
      rebuilt.append(p);
    }
  }
  if (!has_rport && source.adr.length() == 4) {
    differs = true;
    rebuilt.append(format(";rport=%d", source.port));
  }
  if (differs) {
    rebuilt.append(format(";received=%s", source_text));
    m.received = source_text;
  }
  via = protocol + " " + sent_by + rebuilt;
}

namespace {

// The packet trace is switched per class of traffic, so that the registrations of a
// thousand phones don't drown the one call being looked at; a watched address is always
// traced.
const String set_log_sip_register("log_sip_register"), set_log_sip_subnot("log_sip_subnot"),
    set_log_sip_dialog("log_sip_dialog"), set_log_sip_other("log_sip_other"),
    set_log_sip_watchlist("log_sip_watchlist");

const String& packet_class_setting(const SipMessage& m) {
  const String& method = m.is_request ? m.method : m.cseq_method;
  if (method == method_register) return set_log_sip_register;
  if (method == method_subscribe || method == method_notify) return set_log_sip_subnot;
  if (method == method_invite || method == method_cancel || m.port_index >= 0) return set_log_sip_dialog;
  return set_log_sip_other;
}

bool watched(const Address& source) {
  static String parsed_value;
  static std::vector<String> addresses;
  String value = sip_setting(set_log_sip_watchlist);
  if (value.empty()) return false;
  if (value != parsed_value) {
    parsed_value = value;
    addresses.clear();
    String words = value;
    words.replace_all(String(","), String(" "));
    for (const String& w : words.split(' '))
      if (!w.trim().empty()) addresses.push_back(w.trim());
  }
  String adr = adr_text(source.adr);
  for (const String& a : addresses)
    if (a == adr) return true;
  return false;
}

// A request from a stranger must be for one of our domains or for something we know,
// so that scanners that try random domain names get nothing.
bool has_home(const SipMessage& m) {
  if (domain_name_known(String("localhost")) || domain_name_known(m.request_uri.host())) return true;
  return routing_hooks.call_id_known && routing_hooks.call_id_known(m.call_id);
}

void log_received_packet(const SipMessage& m, const String& transport, const ReceivedPacket& packet) {
  bool watch = watched(packet.source);
  int level = log_level_value(sip_setting(packet_class_setting(m)));
  if (!watch && level <= 0 && !log_enabled(LOG_SIP, 9)) return;
  if (!log_enabled(LOG_WATCH, 0)) return;  // the log isn't on
  String title = format("SIP Rx %s:", transport_address_text(transport, packet.source));
  log_add_message_global(watch ? LOG_WATCH : LOG_SIP, watch || level <= 0 ? 9 : level, 0, title, packet.text);
}

}  // namespace

void receive_packet(const ReceivedPacket& packet) {
  if (packet.text.length() < 5) {
    if (packet.text.empty()) {
      log_sip(7, "Connection from %s closed", address_text(packet.source));
      if (routing_hooks.connection_closed) routing_hooks.connection_closed(packet.socket_key, packet.source);
    }
    return;
  }
  // The access lists belong to the control half, which checked this source just before it
  // posted the packet; reading them from here would race with its changes.
  String transport = packet.transport == "ws" ? String("tls") : packet.transport;
  SipMessage m(packet.text);
  m.socket_key = packet.socket_key;
  m.source = packet.source;
  m.local = packet.local;
  m.connection_id = packet.connection_id;
  m.transport = transport == "tcp" ? Transport::tcp : transport == "tls" ? Transport::tls : Transport::udp;
  m.transport_authenticated = m.web_client = packet.transport == "ws";
  log_received_packet(m, transport, packet);
  if (m.is_request) {
    String agent = m.header(String("User-Agent")).word(0, ' ').word(0, '/');
    if (!agent.empty()) {
      for (const String& word : blacklisted_agents()) {
        if (agent.equals_nocase(word)) {
          log_sip(4, "Traffic from %s ignored because of user-agent %s", address_text(packet.source), agent);
          return;
        }
      }
    }
    if (!packet.whitelisted && sip_setting(String("ignore_wrong_domain")) == "true" && !has_home(m)) {
      log_sip(5, "Traffic from %s ignored because domain %s was not found", address_text(packet.source),
                        m.request_uri.host());
      return;
    }
    if (keep_alive_request(m)) {
      via_fix_received(m, packet.source);
      reply(m, 200, "Keep Alive");
      return;
    }
  }
  if (message_repetition(m)) {
    log_sip(8, String("Message repetition, packet dropped"));
    return;
  }
  if (!m.is_request) {
    travel_backward(m);
    return;
  }
  via_fix_received(m, packet.source);
  travel_forward(m);
}

void travel_forward(SipMessage& m) {
  if (m.via.empty()) return;
  if (m.transport == Transport::tls && routing_hooks.registered_on_connection &&
      routing_hooks.registered_on_connection(m)) {
    m.transport_authenticated = true;
    log_sip(7, String("Packet authenticated by transport layer"));
  }
  bool had_to_tag = !m.to.tag().empty();
  if (!had_to_tag) {
    if (m.method == method_register) {
      String h = hex(md5(format("%s %s %d", m.request_uri.text(), m.call_id, static_cast<int64_t>(m.cseq))));
      m.to.set_tag(h.head(10));
    } else if (m.method == method_subscribe || m.method == method_publish || m.method == method_options ||
               m.method == method_invite) {
      (void)set_local_tag(m);
    }
  }
  if (m.method == method_register || m.method == method_subscribe) {
    bool wildcard;
    int contacts = count_contacts(m, wildcard);
    if (contacts == 1 || (contacts == 0 && wildcard && routing_hooks.registration && m.method == method_register &&
                          m.expires == "0")) {
      if (routing_hooks.registration) routing_hooks.registration(m);
      else reply(m, 404, "Not Found");
    } else if (contacts == 0 && wildcard) {
      reply(m, 200, "Ok");
    } else {
      reply(m, 500, "Expecting One Contact");
    }
    return;
  }
  if (routing_hooks.dialog_request && routing_hooks.dialog_request(m)) return;
  if (m.method == method_invite) {
    if (m.contact.empty()) {
      reply(m, 400, "Bad Request");
      return;
    }
    if (m.transport == Transport::udp && udp_invite_flood()) {
      log_sip(2, String("DoS protection: Not accepting more calls"));
      reply(m, 501, "Temporarily Unavailable");
      return;
    }
    if (cpu_over_limit()) {
      log_sip(2, String("CPU limit: Not accepting more calls"));
      reply(m, 501, "Temporarily Unavailable");
      return;
    }
    if (had_to_tag) {
      reply(m, 481, "Call/Transaction Does Not Exist");
      return;
    }
    if (!routing_hooks.new_call || !routing_hooks.new_call(m)) {
      log_sip(2, String("No call ports: Not accepting more calls"));
      reply(m, 501, "Temporarily Unavailable");
    }
    return;
  }
  if (m.method == method_ack) return;
  if (m.method == method_notify) {
    reply(m, 404, "Not Available");
  } else if (m.method == method_message) {
    bool config = m.content_type.word(0, ';').trim().equals_nocase(String("x-pbx-config"));
    if ((m.transport_authenticated || config) && routing_hooks.instant_message && routing_hooks.instant_message(m))
      reply(m, 200, "Ok");
    else
      reply(m, 403, "Authentication Required");
  } else if (m.method == method_options) {
    bool registered = false;
    if (routing_hooks.source_registered) registered = routing_hooks.source_registered(m.source);
    if (sip_setting(String("out_of_dialog_options")) == "true" || registered) {
      SipMessage r(200, String("Ok"), m);
      r.add_header(String("Allow"), allow_methods);
      send_packet(static_cast<SipMessage&&>(r));
    }
  } else if (m.method == method_bye || m.method == method_cancel) {
    reply(m, 481, "Call/Transaction Does Not Exist");
  } else {
    reply(m, 501, "Not Supported");
  }
}

void travel_backward(SipMessage& m) {
  if (m.via.empty() || m.status == 100) return;
  if (routing_hooks.trunk_response && routing_hooks.trunk_response(m)) return;
  if (routing_hooks.dialog_response) routing_hooks.dialog_response(m);
}

void request_routing_register() {
  register_service_handler(tag_sip_received, on_received);
  set_local_response_sink(on_local_response);
}
