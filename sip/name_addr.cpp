#include "sip/name_addr.h"

#include <cstring>

#include "sip/internal/char_class.h"
#include "sip/internal/slice.h"
#include "sip/internal/text_out.h"

void NameAddr::assign(const String& text) {
  raw_ = text;
  unparsed_ = true;
  dirty_ = false;
  angle_form_ = false;
  display_quoted_ = true;
}

void NameAddr::assign_slice(const String& src, int pos, int length) {
  set_slice(raw_, src, pos, length);
  unparsed_ = true;
  dirty_ = false;
  angle_form_ = false;
  display_quoted_ = true;
}

namespace {

const String tag_name("tag");

// Closes a parameter from spans of `text`; a quoted value with escapes is unescaped.
void close_param(const String& text, const char* p, int nb, int ne, int vb, int ve, bool escaped,
                 String& tag, ParamList& params) {
  if (span_equals_nocase(p + nb, ne - nb, tag_name)) {
    if (escaped) tag = unescape_quoted(text.substr(vb, ve - vb));
    else set_slice(tag, text, vb, ve - vb);
    return;
  }
  SipParam& prm = params.emplace_back();
  set_slice(prm.name, text, nb, ne - nb);
  if (escaped) prm.value = unescape_quoted(text.substr(vb, ve - vb));
  else set_slice(prm.value, text, vb, ve - vb);
}

}  // namespace

void read_nameaddr_params(const String& text, int from, int to, String& tag, ParamList& params) {
  const char* p = text.c_data();
  int n = to;
  int state = 0;
  int nb = 0;  // the name
  int ne = 0;
  int vb = 0;  // the value
  bool escaped = false;
  auto close = [&](int value_end) { close_param(text, p, nb, ne, vb, value_end, escaped, tag, params); };
  for (int i = from; i < n; i++) {
    char c = p[i];
    bool token = sip_char_in(c, cc_token);
    switch (state) {
      case 0:
        if (token) {
          nb = i;
          state = 1;
        }
        break;
      case 1:
        if (token) break;
        ne = i;
        vb = i;
        escaped = false;
        if (c == '=') {
          state = 3;
        } else if (c == ';') {
          close(i);
          state = 0;
        } else {
          state = 2;
        }
        break;
      case 2:
        if (c == '=') {
          state = 3;
        } else if (c == ';') {
          vb = i;
          close(i);
          state = 0;
        }
        break;
      case 3:
        if (sip_blank(c)) break;
        if (c == '"') {
          vb = i + 1;
          state = 5;
        } else if (c == ';') {
          // Nothing behind "=": the value is empty and the next parameter starts.
          vb = i;
          close(i);
          state = 0;
        } else {
          vb = i;
          state = 4;
        }
        break;
      case 4:
        if (token) break;
        close(i);
        state = c == ';' ? 0 : 7;
        break;
      case 5:
        if (c == '"') {
          close(i);
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
      ne = n;
      vb = n;
      close(n);
      break;
    case 2:
    case 3:
      vb = n;
      close(n);
      break;
    case 4:
    case 5:
    case 6:
      close(n);
      break;
  }
}

void NameAddr::parse() const {
  unparsed_ = false;
  params_at_ = -1;
  display_.clear();
  uri_ = SipUri();
  tag_.clear();
  params_.clear();
  angle_form_ = false;
  display_quoted_ = true;
  const String& t = raw_;
  const char* p = t.c_data();
  int b = 0;
  int n = t.length();
  trim_span(p, b, n);
  if (b >= n) return;

  int rest = b;
  if (p[b] == '"') {
    int i = b + 1;
    bool escaped = false;
    while (i < n && p[i] != '"') {
      if (p[i] == '\\') {
        escaped = true;
        i++;
      }
      i++;
    }
    if (i > n) i = n;
    if (escaped) display_ = unescape_quoted(t.substr(b + 1, i - b - 1));
    else set_slice(display_, t, b + 1, i - b - 1);
    display_quoted_ = true;
    angle_form_ = true;
    rest = i + 1 < n ? i + 1 : n;
    int e = n;
    trim_span(p, rest, e);
  } else {
    display_quoted_ = false;
    const void* found = b < n ? memchr(p + b, '<', static_cast<size_t>(n - b)) : nullptr;
    int lt = found ? static_cast<int>(static_cast<const char*>(found) - p) : n;
    if (lt < n) {
      int de = lt;
      trim_span(p, b, de);
      set_slice(display_, t, b, de - b);
      rest = lt;
      angle_form_ = true;
    }
  }

  int pb = n;  // parameter text
  if (rest < n && p[rest] == '<') {
    int from = rest + 1;
    const void* found = from < n ? memchr(p + from, '>', static_cast<size_t>(n - from)) : nullptr;
    int gt = found ? static_cast<int>(static_cast<const char*>(found) - p) : n;
    int ub = rest + 1;
    int ue = gt;
    trim_span(p, ub, ue);
    uri_.assign_slice(t, ub, ue - ub);
    if (gt < n) {
      pb = gt + 1;
      int pe = n;
      trim_span(p, pb, pe);
      if (pb < n && p[pb] == ';') pb++;
    }
  } else {
    int semi = rest + 1;
    while (semi < n && p[semi] != ';') semi++;
    uri_.assign_slice(t, rest, (semi < n ? semi : n) - rest);
    if (semi < n) pb = semi + 1;
  }
  if (pb < n) {
    params_at_ = pb;
    params_end_ = n;
  }
}

void NameAddr::parse_params() const {
  int from = params_at_;
  params_at_ = -1;
  read_nameaddr_params(raw_, from, params_end_, tag_, params_);
}

namespace {

template <class Out>
void append_escaped_quoted(Out& out, const String& v, bool control_too) {
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

namespace {

template <class Out>
void write_full(const NameAddr& a, Out& out) {
  if (!a.display().empty()) {
    if (a.display_quoted() || a.display().contains('"') || a.display().contains('\\'))
      append_escaped_quoted(out, a.display(), false);
    else
      put(out, a.display());
    out.append(' ');
  }
  out.append('<');
  put(out, a.uri().text());
  out.append('>');
  if (!a.tag().empty()) {
    out.append(";tag=");
    put(out, a.tag());
  }
  for (const SipParam& prm : a.params()) {
    out.append(';');
    put(out, prm.name);
    out.append('=');
    if (all_token(prm.value)) put(out, prm.value);
    else append_escaped_quoted(out, prm.value, true);
  }
}

}  // namespace

void NameAddr::append_full(String& out) const { write_full(*this, out); }
void NameAddr::append_full(TextOut& out) const { write_full(*this, out); }

const String& NameAddr::text() const {
  if (!dirty_) return raw_;
  String out;
  if (angle_form_ || !display_.empty() || !uri_.params().empty()) {
    append_full(out);
  } else {
    put(out, uri_.text());
    if (!tag_.empty()) {
      out.append(";tag=");
      put(out, tag_);
    }
    for (const SipParam& prm : params_) {
      out.append(';');
      put(out, prm.name);
      out.append('=');
      put(out, prm.value);
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
