#include "sip/branch.h"

#include "security/md5.h"
#include "sip/sip_message.h"
#include "sip/sip_names.h"

namespace {

const String branch_name("branch");
const String branch_prefix(";branch=z9hG4bK-");

}  // namespace

String make_via_suffix(const SipMessage& request) {
  Md5 h;
  h.update(request.call_id);
  h.update(str_space);
  if (!request.via.empty()) {
    String top_branch = param_value(request.via[0], branch_name, ';');
    if (!top_branch.empty()) {
      h.update(top_branch);
      h.update(str_space);
    }
  }
  h.update(String(request.cseq));
  h.update(request.invite_related ? method_invite : request.method);
  return branch_prefix + hex(h.final());
}

void set_via_suffix(SipMessage& request) { request.via_suffix = make_via_suffix(request); }

String set_local_tag(SipMessage& request) {
  if (!request.to.tag().empty()) return request.to.tag();
  String tag = hex(md5(request.request_uri.text() + " " + request.call_id)).head(10);
  request.to.set_tag(tag);
  return tag;
}
