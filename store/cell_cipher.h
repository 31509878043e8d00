// The cipher of the cells of encrypted columns on disk: AES-128 in counter mode under a key
// that the settings supply at start. A value on disk is 16 random bytes (the first counter
// block) followed by the cipher bytes, as long as the plain value; no padding.
#pragma once

#include "core/string.h"

// Builds the key as the byte-wise XOR of the base64-decoded `random` setting with this
// build's fixed 16-character constant. Called by the settings code once the setting is
// known, and before any table with encrypted columns loads.
void set_cell_key_from_setting(const String& random_setting);
// Sets the 16-byte key itself (tests, and a caller that already holds it).
void set_cell_key(const String& key);
const String& cell_key();

// The enciphered form of `plain` under a fresh initial vector.
String encipher_cell(const String& plain);
// False, with `plain` empty, for input shorter than the initial vector.
[[nodiscard]] bool decipher_cell(const String& stored, String& plain);
