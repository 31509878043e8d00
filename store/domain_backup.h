// The export of one domain as "domain.xml" inside a tar archive: the domain's cells with
// references written as names, its DNS names, its accounts with their own rows, its dial
// plans and its groups. Control half only.
#pragma once

#include "core/string.h"

// The document alone, for the archive and for tests.
String domain_document(int domain);
// The archive with "domain.xml"; empty for a domain that does not exist.
void make_domain_backup(int domain, String& out);
