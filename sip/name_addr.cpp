#include "sip/name_addr.h"

#include "sip/internal/char_class.h"

void NameAddr::assign(const String& text) {
  raw_ = text;
  unparsed_ = true;
  dirty_ = false;
  angle_form_ = false;
  display_quoted_ = true;
}

namespace {

const String tag_name("tag");

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

void close_param(const String& name, const String& value, String& tag, ParamList& params) {
  if (name.equals_nocase(tag_name)) tag = value;
  else params.push_back(SipParam{name, value});
}

}  // namespace

void read_nameaddr_params(const String& text, String& tag, ParamList& params) {
  const char* p = text.c_data();
  int n = text.length();
  int state = 0;
  int name_start = 0;
  String name;
  int value_start = 0;
  bool escaped = false;  // a quoted value held a backslash
  auto quoted_value = [&](int end) {
    String v = text.substr(value_start, end - value_start);
    return escaped ? unescape_quoted(v) : v;
  };
  for (int i = 0; i < n; i++) {
    char c = p[i];
    bool token = sip_char_in(c, cc_token);
    switch (state) {
      case 0:
        if (token) {
          name_start = i;
          state = 1;
        }
        break;
      case 1:
        if (token) break;
        name = text.substr(name_start, i - name_start);
        if (c == '=') {
          state = 3;
        } else if (c == ';') {
          close_param(name, String(), tag, params);
          state = 0;
        } else {
          state = 2;
        }
        break;
      case 2:
        if (c == '=') {
          state = 3;
        } else if (c == ';') {
          close_param(name, String(), tag, params);
          state = 0;
        }
        break;
      case 3:
        if (is_blank(c)) break;
        if (c == '"') {
          value_start = i + 1;
          escaped = false;
          state = 5;
        } else if (c == ';') {
          close_param(name, String(), tag, params);
          state = 0;
        } else {
          value_start = i;
          state = 4;
        }
        break;
      case 4:
        if (token) break;
        close_param(name, text.substr(value_start, i - value_start), tag, params);
        state = c == ';' ? 0 : 7;
        break;
      case 5:
        if (c == '"') {
          close_param(name, quoted_value(i), tag, params);
          state = 7;
        } else if (c == '\\') {
          escaped = true;
          state = 6;
        }
        break;
      case 6:
        state = 5;
        break;
      case 7:
        if (c == ';') state = 0;
        break;
    }
  }
  switch (state) {
    case 1:
      close_param(text.substr(name_start, n - name_start), String(), tag, params);
      break;
    case 2:
    case 3:
      close_param(name, String(), tag, params);
      break;
    case 4:
      close_param(name, text.substr(value_start, n - value_start), tag, params);
      break;
    case 5:
    case 6:
      close_param(name, quoted_value(n), tag, params);
      break;
  }
}

void NameAddr::parse() const {
  unparsed_ = false;
  display_.clear();
  uri_ = SipUri();
  tag_.clear();
  params_.clear();
  angle_form_ = false;
  display_quoted_ = true;
  String t = raw_.trim();
  if (t.empty()) return;

  const char* p = t.c_data();
  int n = t.length();
  String rest;
  if (p[0] == '"') {
    int i = 1;
    bool escaped = false;
    while (i < n && p[i] != '"') {
      if (p[i] == '\\') {
        escaped = true;
        i++;
      }
      i++;
    }
    if (i > n) i = n;
    String d = t.substr(1, i - 1);
    display_ = escaped ? unescape_quoted(d) : d;
    display_quoted_ = true;
    angle_form_ = true;
    rest = t.tail(i + 1).trim();
  } else {
    display_quoted_ = false;
    int lt = t.find('<');
    if (lt >= 0) {
      display_ = t.head(lt).trim();
      rest = t.tail(lt);
      angle_form_ = true;
    } else {
      rest = t;
    }
  }

  String param_text;
  if (!rest.empty() && rest[0] == '<') {
    int gt = rest.find('>', 1);
    if (gt < 0) {
      uri_.assign(rest.tail(1).trim());
    } else {
      uri_.assign(rest.substr(1, gt - 1).trim());
      param_text = rest.tail(gt + 1).trim();
      if (!param_text.empty() && param_text[0] == ';') param_text = param_text.tail(1);
    }
  } else {
    int semi = rest.find(';', 1);
    if (semi < 0) {
      uri_.assign(rest);
    } else {
      uri_.assign(rest.head(semi));
      param_text = rest.tail(semi + 1);
    }
  }
  if (!param_text.empty()) read_nameaddr_params(param_text, tag_, params_);
}

namespace {

void append_escaped_quoted(String& out, const String& v, bool control_too) {
  out.append('"');
  const char* p = v.c_data();
  int n = v.length();
  int run = 0;
  for (int i = 0; i < n; i++) {
    uint8_t c = static_cast<uint8_t>(p[i]);
    bool esc = c == '"' || c == '\\' || (control_too && (c < 32 || c == 127));
    if (!esc) continue;
    out.append(p + run, i - run);
    out.append('\\');
    out.append(p[i]);
    run = i + 1;
  }
  out.append(p + run, n - run);
  out.append('"');
}

bool all_token(const String& v) {
  const char* p = v.c_data();
  for (int i = 0, n = v.length(); i < n; i++)
    if (!sip_char_in(p[i], cc_token)) return false;
  return true;
}

}  // namespace

void NameAddr::append_full(String& out) const {
  parsed();
  if (!display_.empty()) {
    if (display_quoted_ || display_.contains('"') || display_.contains('\\'))
      append_escaped_quoted(out, display_, false);
    else
      out.append(display_);
    out.append(' ');
  }
  out.append('<');
  out.append(uri_.text());
  out.append('>');
  if (!tag_.empty()) {
    out.append(";tag=");
    out.append(tag_);
  }
  for (const SipParam& prm : params_) {
    out.append(';');
    out.append(prm.name);
    out.append('=');
    if (all_token(prm.value)) out.append(prm.value);
    else append_escaped_quoted(out, prm.value, true);
  }
}

const String& NameAddr::text() const {
  if (!dirty_) return raw_;
  String out;
  if (angle_form_ || !display_.empty() || !uri_.params().empty()) {
    append_full(out);
  } else {
    out.append(uri_.text());
    if (!tag_.empty()) {
      out.append(";tag=");
      out.append(tag_);
    }
    for (const SipParam& prm : params_) {
      out.append(';');
      out.append(prm.name);
      out.append('=');
      out.append(prm.value);
    }
  }
  raw_ = out;
  dirty_ = false;
  return raw_;
}

String nameaddr_param(const NameAddr& a, const String& name) {
  const SipParam* p = find_param(a.params(), name);
  return p ? p->value : String();
}

void nameaddr_set_param(NameAddr& a, const String& name, const String& value) {
  if (name.equals_nocase(tag_name)) a.set_tag(value);
  else set_param(a.params_mutable(), name, value);
}
