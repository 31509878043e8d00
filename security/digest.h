// Hashes and HMAC chosen at run time, for callers that pick the hash from data: the MAC of
// a TLS suite, the hash of a certificate signature, the name a script passes to createHmac.
#pragma once

#include "core/string.h"

enum class HashKind { none, md5, sha1, sha256, sha384, sha512 };

// "md5", "sha1", "sha256", "sha384", "sha512" (also "sha-1", "sha-256", ..., any case);
// anything else is HashKind::none.
HashKind hash_kind_from_name(const String& name);
const char* hash_name(HashKind kind);
// Digest length in bytes; 0 for none.
int digest_size(HashKind kind);
// Empty for HashKind::none.
String digest(HashKind kind, const String& data);
String hmac(HashKind kind, const String& key, const String& data);
