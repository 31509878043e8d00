// The names of the domains and of their aliases, as the control half last published them,
// for the filters of the service half, which can't read the tables itself.
#pragma once

#include "core/string.h"

// Control half: reads `domains` and `domain_alias` and replaces the published names.
void publish_domain_names();
// Any thread: whether `host` (any case) names a domain or an alias.
bool domain_name_known(const String& host);
// Publishes once the store is loaded, and again whenever either table reports a change.
void domain_names_register();
