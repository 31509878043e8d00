#include "sip/sip_hooks.h"

SipHooks sip_hooks;

String sip_setting(const String& name) {
  return sip_hooks.setting ? sip_hooks.setting(name) : String();
}
