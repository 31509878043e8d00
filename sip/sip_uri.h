// A SIP URI held as its raw text and taken apart only when a field is first asked for;
// turned back into text only after a setter changed it. Most URIs of a forwarded
// message are never parsed.
#pragma once

#include "core/string.h"
#include "sip/sip_params.h"

class SipUri {
 public:
  SipUri() = default;
  explicit SipUri(const String& text) { assign(text); }

  // Takes `text` as the raw form; nothing is parsed yet.
  void assign(const String& text);
  // The same with `length` bytes of `src` from `pos`, made in place.
  void assign_slice(const String& src, int pos, int length);
  SipUri& operator=(const String& text) {
    assign(text);
    return *this;
  }

  // The text: the raw form, rebuilt first when a field was changed.
  const String& text() const;
  bool unparsed() const { return unparsed_; }
  bool dirty() const { return dirty_; }

  const String& scheme() const { return parsed().scheme_; }
  const String& user() const { return parsed().user_; }
  const String& password() const { return parsed().password_; }
  const String& host() const { return parsed().host_; }
  const String& port() const { return parsed().port_; }
  const ParamList& params() const { return parsed_all().params_; }
  const ParamList& headers() const { return parsed_all().headers_; }

  void set_scheme(const String& v) { changed().scheme_ = v; }
  void set_user(const String& v) { changed().user_ = v; }
  void set_password(const String& v) { changed().password_ = v; }
  void set_host(const String& v) { changed().host_ = v; }
  void set_port(const String& v) { changed().port_ = v; }
  ParamList& params_mutable() { return changed().params_; }
  ParamList& headers_mutable() { return changed().headers_; }

  // Appends the text built from the fields (the rebuild), whatever `dirty` says.
  void append_built(String& out) const;

 private:
  const SipUri& parsed() const {
    if (unparsed_) parse();
    return *this;
  }
  // Parameters and headers are read only when asked for: most readers want the host.
  const SipUri& parsed_all() const {
    if (unparsed_) parse();
    if (params_at_ >= 0) parse_params();
    return *this;
  }
  SipUri& changed() {
    parsed_all();
    dirty_ = true;
    return *this;
  }
  void parse() const;
  void parse_params() const;

  // The fields are filled in by the first getter, hence mutable; see the concurrency
  // note in sip/README.md.
  mutable String raw_;
  mutable bool unparsed_ = false;
  mutable bool dirty_ = false;
  mutable String scheme_;
  mutable String user_;
  mutable String password_;
  mutable String host_;
  mutable String port_;
  mutable ParamList params_;
  mutable ParamList headers_;
  mutable int params_at_ = -1;  // where unread parameters start in raw_, or -1
};

String uri_param(const SipUri& uri, const String& name);
void uri_set_param(SipUri& uri, const String& name, const String& value);
bool uri_has_param(const SipUri& uri, const String& name);
String uri_header(const SipUri& uri, const String& name);
void uri_set_header(SipUri& uri, const String& name, const String& value);
bool uri_has_header(const SipUri& uri, const String& name);

// The comparison that finds a repeated request: all text compares byte for byte.
bool uri_equal(const SipUri& a, const SipUri& b);
