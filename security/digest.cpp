#include "security/digest.h"

#include "security/hmac.h"

namespace {

template <class H>
String hash_one(const String& data) {
  H h;
  h.update(data);
  return h.final();
}

template <class H>
String hmac_one(const String& key, const String& data) {
  return Hmac<H>(key).mac(data);
}

struct HashEntry {
  HashKind kind;
  const char* name;
  const char* alias;
  int size;
  String (*digest)(const String&);
  String (*hmac)(const String&, const String&);
};

const HashEntry hash_table[] = {
    {HashKind::md5, "md5", "md5", Md5::digest_size, hash_one<Md5>, hmac_one<Md5>},
    {HashKind::sha1, "sha1", "sha-1", Sha1::digest_size, hash_one<Sha1>, hmac_one<Sha1>},
    {HashKind::sha256, "sha256", "sha-256", Sha256::digest_size, hash_one<Sha256>,
     hmac_one<Sha256>},
    {HashKind::sha384, "sha384", "sha-384", Sha384::digest_size, hash_one<Sha384>,
     hmac_one<Sha384>},
    {HashKind::sha512, "sha512", "sha-512", Sha512::digest_size, hash_one<Sha512>,
     hmac_one<Sha512>},
};

const HashEntry* entry(HashKind kind) {
  for (const auto& e : hash_table)
    if (e.kind == kind) return &e;
  return nullptr;
}

}  // namespace

HashKind hash_kind_from_name(const String& name) {
  for (const auto& e : hash_table)
    if (name.equals_nocase(e.name) || name.equals_nocase(e.alias)) return e.kind;
  return HashKind::none;
}

const char* hash_name(HashKind kind) {
  const HashEntry* e = entry(kind);
  return e ? e->name : "none";
}

int digest_size(HashKind kind) {
  const HashEntry* e = entry(kind);
  return e ? e->size : 0;
}

String digest(HashKind kind, const String& data) {
  const HashEntry* e = entry(kind);
  return e ? e->digest(data) : String();
}

String hmac(HashKind kind, const String& key, const String& data) {
  const HashEntry* e = entry(kind);
  return e ? e->hmac(key, data) : String();
}
