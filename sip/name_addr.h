// A name-addr, or a bare address (From, To, Contact, Route and the like), held as raw text and
// parsed on first use, like SipUri.
#pragma once

#include "core/string.h"
#include "sip/sip_params.h"
#include "sip/sip_uri.h"

class TextOut;

class NameAddr {
 public:
  NameAddr() = default;
  explicit NameAddr(const String& text) { assign(text); }

  void assign(const String& text);
  // The same with `length` bytes of `src` from `pos`, made in place.
  void assign_slice(const String& src, int pos, int length);
  NameAddr& operator=(const String& text) {
    assign(text);
    return *this;
  }

  const String& raw() const { return raw_; }
  bool unparsed() const { return unparsed_; }
  bool dirty() const { return dirty_; }

  const String& display() const { return parsed().display_; }
  const SipUri& uri() const { return parsed().uri_; }
  const String& tag() const { return parsed_all().tag_; }
  const ParamList& params() const { return parsed_all().params_; }
  bool angle_form() const { return parsed().angle_form_; }
  bool display_quoted() const { return parsed().display_quoted_; }

  void set_display(const String& v) { changed().display_ = v; }
  void set_uri(const SipUri& v) { changed().uri_ = v; }
  void set_uri(const String& v) { changed().uri_.assign(v); }
  SipUri& uri_mutable() { return changed().uri_; }
  void set_tag(const String& v) { changed().tag_ = v; }
  ParamList& params_mutable() { return changed().params_; }
  void set_angle_form(bool v) { changed().angle_form_ = v; }
  void set_display_quoted(bool v) { changed().display_quoted_ = v; }

  // The normal form that every name-addr leaves in: display, <uri>, tag, parameters.
  void append_full(String& out) const;
  void append_full(TextOut& out) const;
  String full() const {
    String out;
    append_full(out);
    return out;
  }
  // The text for header_text and the log: `raw` while unchanged, else rebuilt and kept.
  const String& text() const;

 private:
  const NameAddr& parsed() const {
    if (unparsed_) parse();
    return *this;
  }
  // The tag and parameters are read only when asked for.
  const NameAddr& parsed_all() const {
    if (unparsed_) parse();
    if (params_at_ >= 0) parse_params();
    return *this;
  }
  NameAddr& changed() {
    parsed_all();
    dirty_ = true;
    return *this;
  }
  void parse() const;
  void parse_params() const;

  mutable String raw_;
  mutable String display_;
  mutable SipUri uri_;
  mutable String tag_;
  mutable ParamList params_;
  mutable bool angle_form_ = false;
  mutable bool display_quoted_ = true;
  mutable bool unparsed_ = false;
  mutable bool dirty_ = false;
  mutable int params_at_ = -1;  // where unread parameters start in raw_, or -1
  mutable int params_end_ = 0;
};

String nameaddr_param(const NameAddr& a, const String& name);
// The name "tag" (ignoring case) sets the tag instead of a parameter.
void nameaddr_set_param(NameAddr& a, const String& name, const String& value);

// Reads ";name=value" parameters of a name-addr from bytes [from, to) of `text`; "tag"
// goes to `tag`, the rest to `params`.
void read_nameaddr_params(const String& text, int from, int to, String& tag, ParamList& params);
