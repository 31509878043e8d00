#include "store/settings.h"

#include "core/codings.h"
#include "core/files.h"
#include "core/format.h"
#include "core/log.h"
#include "core/mutex.h"
#include "core/posting.h"
#include "core/random.h"
#include "core/tagged_text.h"
#include "core/xml.h"
#include "store/cell_cipher.h"
#include "store/names.h"
#include "store/schema.h"
#include "store/store_mode.h"

namespace {

const String str_finished("finished");
const String str_encrypted("encrypted");
const String str_root("pbx-config");
const String str_record_start("record_start");
const String str_record_end("record_end");
const String str_mailbox_call("mailbox_call");
const String str_test_file("exchsrv-test.txt");
const String str_domains_index("domains/index.txt");

struct Names {
  String names[registry_size + 1];
  String defaults[registry_size];
  Names() {
    for (int i = 0; i < registry_size; i++) {
      names[i] = String(registry_slots[i].name);
      defaults[i] = String(registry_slots[i].default_value);
    }
  }
};
const Names& slot_names() {
  static const Names n;
  return n;
}

String ctrl_values[registry_size];
String srv_values[registry_size];
// `codec_preference` as readers see it, kept beside the raw slot so that a read costs no
// more than any other.
String ctrl_codecs;
String srv_codecs;
bool srv_finished = false;
std::map<int, String> srv_domain_levels;
SettingEffect effects[registry_size] = {};
String file_name("pbx.xml");
ParsedSettings extras;

// A value with a buffer of its own. A slot that shares its buffer (with a default, or with
// the document it was cut from) makes every read take the ring lock; a lone one does not,
// and it does not keep a whole document alive either.
String own_copy(const String& value) {
  return value.empty() ? String() : String(value.c_data(), value.length());
}

// The category each `log_event_` slot sets, in slot order from 11.
const int log_event_categories[] = {
    LOG_GENERAL, LOG_SIP,  LOG_MEDIA, LOG_APP,       LOG_EMAIL, LOG_WEBSERVER, LOG_REGISTER, LOG_SNMP,
    LOG_LDAP,    LOG_CONFIG, LOG_TRUNK, LOG_SOAP,    LOG_PROV,  LOG_WEBCLIENT, LOG_PSTN,     LOG_TLS,
    LOG_ACME,    LOG_RPS,  LOG_DNS,   LOG_BILL,      LOG_SCRIPT, LOG_CSTA,     LOG_CRM};
static_assert(sizeof(log_event_categories) / sizeof(int) == reg_log_event_last - reg_log_event_first + 1);

// The payload numbers of the words that the web form writes into `codec_preference`;
// words without a number stay words.
struct CodecWord {
  const char* word;
  const char* number;
};
const CodecWord codec_words[] = {{"ulaw", "0"}, {"alaw", "8"}, {"gsm", "3"}, {"g729", "18"},
                                 {"g726", "96"}, {"g722", "9"}};

String computed_codec_preference(const String& value) {
  String out;
  for (const String& word : value.split(' ')) {
    if (word.empty()) continue;
    String item = word;
    for (const CodecWord& c : codec_words) {
      if (word.equals_nocase(c.word)) item = String(c.number);
    }
    if (!out.empty()) out.append(' ');
    out.append(item);
  }
  return out;
}

void post_value(int index, const String& value) {
  TaggedText inner;
  inner.add(post_setting_name, slot_names().names[index]);
  inner.add(post_setting_value, value);
  TaggedText msg;
  msg.add(post_setting, inner);
  pbxsrv_post(msg.text());
}

void run_builtin_effect(int index, const String& value) {
  if (index == reg_log_filename) {
    set_log_file(value);
  } else if (index == reg_log_length) {
    log_set_length(value.to_int());
  } else if (index == reg_log_duration) {
    log_set_duration(value, false);
  } else if (index == 4) {
    log_set_keep(value.empty() ? 3 : value.to_int());
  } else if (index >= reg_log_event_first && index <= reg_log_event_last) {
    log_set_level(log_event_categories[index - reg_log_event_first], value);
  } else if (index == reg_syslog_server_ip) {
    syslog_set_server(value);
  } else if (index == reg_thread_level) {
    apply_thread_level(value);
  } else if (index == reg_write_cobjs_to_fs || index == reg_write_legs_to_fs) {
    Table* t = find_table(index == reg_write_cobjs_to_fs ? tbl_cobjs : tbl_legs);
    if (t) t->set_persist(value == str_true);
  }
}

bool is_base64_text(const String& text) {
  if (text.length() % 4 != 0) return false;
  for (int i = 0; i < text.length(); i++) {
    char c = text[i];
    bool pad = c == '=' && i >= text.length() - 2 && (i == text.length() - 1 || text[i + 1] == '=');
    if (!((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
          c == '/' || pad))
      return false;
  }
  return true;
}

// The first complete element of `text` after the declaration and comments, with nothing
// but blanks around it; empty if there is none.
String document_element(const String& text) {
  String rest = text.trim();
  while (rest.starts_with("<?") || rest.starts_with("<!")) {
    int end = rest.starts_with("<!--") ? rest.find("-->") : rest.find('>');
    if (end < 0) return String();
    rest = rest.tail(end + (rest.starts_with("<!--") ? 3 : 1)).trim();
  }
  if (!rest.starts_with("<")) return String();
  String element = XmlNode::next_element_strict(rest);
  if (element.empty() || !rest.trim().empty()) return String();
  return element;
}

}  // namespace

std::vector<String> registry_defaults() {
  const Names& n = slot_names();
  return std::vector<String>(n.defaults, n.defaults + registry_size);
}

void reset_registry() {
  const Names& n = slot_names();
  for (int i = 0; i < registry_size; i++) ctrl_values[i] = own_copy(n.defaults[i]);
  ctrl_codecs = computed_codec_preference(ctrl_values[reg_codec_preference]);
}

String ctrl_read_registry(int index) {
  must_not_own(srv_run_mutex, "ctrl_read_registry", 1);
  if (static_cast<unsigned>(index) >= static_cast<unsigned>(registry_size)) return String();
  if (index == reg_codec_preference) return ctrl_codecs;
  return ctrl_values[index];
}

String srv_read_registry(int index) {
  must_own(srv_run_mutex, "srv_read_registry", 1);
  must_not_own(ctrl_run_mutex, "srv_read_registry", 2);
  if (static_cast<unsigned>(index) >= static_cast<unsigned>(registry_size)) return String();
  if (index == reg_codec_preference) return srv_codecs;
  return srv_values[index];
}

void ctrl_write_setting(int index, const String& value) {
  must_own(ctrl_run_mutex, "ctrl_write_setting", 1);
  if (static_cast<unsigned>(index) >= static_cast<unsigned>(registry_size)) return;
  ctrl_values[index] = own_copy(value);
  if (index == reg_codec_preference) ctrl_codecs = computed_codec_preference(value);
  post_value(index, value);
}

void ctrl_write_registry(int index, const String& value, bool persist) {
  must_own(ctrl_run_mutex, "ctrl_write_registry", 1);
  if (static_cast<unsigned>(index) >= static_cast<unsigned>(registry_size)) return;
  // The duration restarts its count even when written with the same value.
  if (ctrl_values[index] != value || index == reg_log_duration) {
    String old = ctrl_values[index];
    ctrl_values[index] = own_copy(value);
    if (index == reg_codec_preference) ctrl_codecs = computed_codec_preference(value);
    run_builtin_effect(index, value);
    if (effects[index]) effects[index](index, old, value);
  }
  if (persist) (void)save_settings();
  post_value(index, value);
}

int registry_index(const String& name) {
  const Names& n = slot_names();
  for (int i = 0; i < registry_size; i++) {
    if (n.names[i] == name) return i;
  }
  return registry_none;
}

const String& registry_name(int index) {
  if (static_cast<unsigned>(index) >= static_cast<unsigned>(registry_size)) return str_empty;
  return slot_names().names[index];
}

const String& registry_value(int index) {
  if (static_cast<unsigned>(index) >= static_cast<unsigned>(registry_size)) return str_empty;
  return ctrl_values[index];
}

void registry_sync() {
  for (int i = 0; i < registry_size; i++) post_value(i, ctrl_values[i]);
  TaggedText inner;
  inner.add(post_setting_name, str_finished);
  inner.add(post_setting_value, str_true);
  TaggedText msg;
  msg.add(post_setting, inner);
  pbxsrv_post(msg.text());
  Table* domains = find_table(tbl_domains);
  if (!domains) return;
  for (int row = domains->first(); row; row = domains->next(row)) {
    TaggedText item;
    item.add(post_setting_domain, row);
    item.add(post_setting_value, domains->get(row, col_log_level));
    TaggedText m;
    m.add(post_domain_log_level, item);
    pbxsrv_post(m.text());
  }
}

bool srv_registry_finished() { return srv_finished; }

String srv_domain_log_level(int domain) {
  auto it = srv_domain_levels.find(domain);
  return it == srv_domain_levels.end() ? String() : it->second;
}

static void receive_setting(const String& value) {
  TaggedText t(value);
  String name = t.find(post_setting_name);
  String v = t.find(post_setting_value);
  if (name == str_finished) {
    srv_finished = v == str_true;
    return;
  }
  int index = registry_index(name);
  if (index >= registry_size) return;
  srv_values[index] = own_copy(v);
  if (index == reg_codec_preference) srv_codecs = computed_codec_preference(v);
}

static void receive_domain_log_level(const String& value) {
  TaggedText t(value);
  srv_domain_levels[t.find(post_setting_domain).to_int()] = t.find(post_setting_value);
}

void register_settings_handlers() {
  register_service_handler(post_setting, receive_setting);
  register_service_handler(post_domain_log_level, receive_domain_log_level);
}

void set_setting_effect(int index, SettingEffect effect) {
  if (index >= 0 && index < registry_size) effects[index] = effect;
}

ParsedSettings parse_settings(const String& text) {
  ParsedSettings p;
  const Names& n = slot_names();
  p.values.assign(n.defaults, n.defaults + registry_size);
  String element = document_element(text);
  if (element.empty()) return p;
  XmlNode root(element, false);
  if (root.name() != str_root) return p;
  std::vector<bool> seen(registry_size, false);
  std::vector<int> enciphered;
  String body = root.raw_body();
  while (true) {
    body = body.trim_left(str_blanks);
    if (body.empty()) break;
    if (!body.starts_with("<")) return p;
    String child_text = XmlNode::next_element_strict(body);
    if (child_text.empty()) return p;
    if (child_text.starts_with("<!") || child_text.starts_with("<?")) continue;
    XmlNode child(child_text, false);
    if (child.name().empty()) return p;
    int index = registry_index(child.name());
    if (index == registry_none) {
      if (child.name() == str_record_start) {
        p.record_start = child.text();
        p.move_records = true;
      } else if (child.name() == str_record_end) {
        p.record_end = child.text();
        p.move_records = true;
      } else if (child.name() == str_mailbox_call) {
        p.mailbox_call = child.text();
      }
      continue;
    }
    if (seen[index]) {
      p.problems.push_back(format("Settings: Element %s appears twice, keeping the first", child.name()));
      continue;
    }
    seen[index] = true;
    p.values[index] = child.text();
    if (child.attribute(str_encrypted) == str_true) enciphered.push_back(index);
  }
  // Deciphered only now: `random`, which makes the key, may stand behind them.
  if (!enciphered.empty()) {
    String saved = cell_key();
    set_cell_key_from_setting(p.values[reg_random]);
    for (int index : enciphered) {
      String coded = p.values[index];
      String plain;
      if (!is_base64_text(coded) || !decipher_cell(base64_decode(coded), plain)) {
        p.problems.push_back(format("Settings: Cannot decipher %s, taking the default", n.names[index]));
        plain = n.defaults[index];
      }
      p.values[index] = plain;
    }
    set_cell_key(saved);
  }
  p.ok = true;
  return p;
}

String settings_document() { return settings_document(std::vector<String>(ctrl_values, ctrl_values + registry_size)); }

String settings_document(const std::vector<String>& values) {
  const Names& n = slot_names();
  String out;
  out.reserve(16384);
  out.append("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<pbx-config>");
  for (int i = 0; i < registry_size; i++) {
    if (registry_slots[i].flags & registry_encrypted) {
      XmlNode child(n.names[i], base64_encode(encipher_cell(values[i])));
      child.set_attribute(str_encrypted, str_true);
      out.append(child.to_string());
    } else {
      out.append(XmlNode(n.names[i], values[i]).to_string());
    }
  }
  out.append("</pbx-config>");
  return out;
}

bool save_settings() {
  if (store_passive) return true;
  return write_file_atomic(settings_document(), file_name, true);
}

const String& settings_file() { return file_name; }
const ParsedSettings& settings_extras() { return extras; }

void apply_parsed_settings(const ParsedSettings& parsed) {
  for (int i = 0; i < registry_size; i++) ctrl_values[i] = own_copy(parsed.values[i]);
  ctrl_codecs = computed_codec_preference(ctrl_values[reg_codec_preference]);
  extras.record_start = parsed.record_start;
  extras.record_end = parsed.record_end;
  extras.mailbox_call = parsed.mailbox_call;
  extras.move_records = parsed.move_records;
  set_cell_key_from_setting(ctrl_values[reg_random]);
  store_replication = !ctrl_values[reg_replication_server].empty();
}

void find_languages(const String& base, String& tones, String& audio) {
  tones.clear();
  audio.clear();
  String dir = base.empty() ? String(".") : base;
  for (const DirectoryEntry& e : list_directory(dir)) {
    if (!e.is_directory || !e.name.starts_with("audio_")) continue;
    if (e.name == "audio_upload" || e.name == "audio_moh") continue;
    String language = e.name.tail(6);
    if (language.empty()) continue;
    if (file_size(dir + "/" + e.name + "/ringback.wav") > 0) {
      if (!tones.empty()) tones.append(' ');
      tones.append(language);
    }
    if (file_size(dir + "/" + e.name + "/bi_1.wav") > 0) {
      if (!audio.empty()) audio.append(' ');
      audio.append(language);
    }
  }
}

static void log_config(int level, const String& text) {
  if (log_enabled(LOG_CONFIG, level)) log_add_message_global(LOG_CONFIG, level, 0, text);
}

SettingsLoad load_settings(const String& file) {
  file_name = file;
  reset_registry();
  // What an interrupted rewrite left beside the file.
  remove_file(file + temp_file_suffix, true);
  SettingsLoad result = SettingsLoad::loaded;
  String text = read_file(file, true);
  ParsedSettings parsed;
  if (!text.empty()) parsed = parse_settings(text);
  if (text.empty()) {
    String probe = random_text(10);
    bool same = write_file(probe, str_test_file) && read_file(str_test_file, true) == probe;
    remove_file(str_test_file, true);
    if (!same) return SettingsLoad::fs_failed;
    if (file_nonempty(str_domains_index)) return SettingsLoad::unreadable;
    result = SettingsLoad::first_start;
  } else if (!parsed.ok) {
    if (file_nonempty(str_domains_index)) return SettingsLoad::unreadable;
    log_config(1, format("Settings: %s is no settings document, starting from the defaults", file));
    result = SettingsLoad::defaults;
  } else {
    for (const String& problem : parsed.problems) log_config(1, problem);
    apply_parsed_settings(parsed);
  }
  if (result != SettingsLoad::loaded) {
    ctrl_values[reg_random] = base64_encode(random_string(16));
    set_cell_key_from_setting(ctrl_values[reg_random]);
    if (!save_settings()) return SettingsLoad::fs_failed;
  }
  String tones, audio;
  find_languages(String(), tones, audio);
  if (!tones.empty()) ctrl_values[reg_languages_tones] = tones;
  if (!audio.empty()) ctrl_values[reg_languages_audio] = audio;
  store_replication = !ctrl_values[reg_replication_server].empty();
  return result;
}

void apply_log_settings() {
  if (!ctrl_values[reg_log_filename].empty()) set_log_file(ctrl_values[reg_log_filename]);
  log_set_length(ctrl_values[reg_log_length].to_int());
  log_set_duration(ctrl_values[reg_log_duration], true);
  log_set_keep(ctrl_values[4].empty() ? 3 : ctrl_values[4].to_int());
  for (int i = reg_log_event_first; i <= reg_log_event_last; i++) {
    log_set_level(log_event_categories[i - reg_log_event_first], ctrl_values[i]);
  }
  if (!ctrl_values[reg_syslog_server_ip].empty()) syslog_set_server(ctrl_values[reg_syslog_server_ip]);
}
