#include "store/cell_cipher.h"

#include "core/codings.h"
#include "core/random.h"
#include "security/aes.h"

namespace {

// Mixed into the key so that the setting alone, as found in a backup of pbx.xml, is not
// the key of the row files.
const char key_constant[17] = "q7Vr!Lm2#xT9p@Kd";

String& key_storage() {
  static String key = String(key_constant, 16);
  return key;
}

}  // namespace

void set_cell_key_from_setting(const String& random_setting) {
  String raw = base64_decode(random_setting);
  char key[16];
  for (int i = 0; i < 16; i++) {
    char r = i < raw.length() ? raw[i] : 0;
    key[i] = static_cast<char>(key_constant[i] ^ r);
  }
  key_storage() = String(key, 16);
}

void set_cell_key(const String& key) {
  if (key.length() == 16) key_storage() = key;
}

const String& cell_key() { return key_storage(); }

String encipher_cell(const String& plain) {
  String iv = random_string(16);
  if (iv.length() != 16) return String();
  String out = iv;
  if (!plain.empty()) out.append(aes_ctr(key_storage(), iv, plain));
  return out;
}

bool decipher_cell(const String& stored, String& plain) {
  plain = String();
  if (stored.length() < 16) return false;
  if (stored.length() == 16) return true;
  plain = aes_ctr(key_storage(), stored.head(16), stored.tail(16));
  return true;
}
