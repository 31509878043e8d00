#include "store/dictionary.h"

#include <unistd.h>
#include <zlib.h>

#include "core/files.h"
#include "core/format.h"
#include "core/json.h"
#include "core/log.h"
#include "security/sha256.h"
#include "store/registry.h"
#include "store/settings.h"

const uint8_t dictionary_scramble[100] = {
    0x32, 0x60, 0x6e, 0x20, 0xcc, 0x30, 0x32, 0x97, 0x15, 0x46, 0xfa, 0xf8, 0xf6, 0x62, 0x0e,
    0xf1, 0xe8, 0x0a, 0xf7, 0x7d, 0xf9, 0x87, 0x70, 0x05, 0x21, 0x7e, 0xad, 0x57, 0x58, 0x91,
    0x0a, 0xa3, 0x52, 0xf2, 0xa8, 0x01, 0xb2, 0x6e, 0x38, 0x01, 0xd9, 0x9d, 0x46, 0xa3, 0x4d,
    0x97, 0x74, 0xc8, 0x9e, 0x3d, 0xe9, 0x58, 0xb9, 0xb9, 0x6f, 0x9e, 0x94, 0xfa, 0x31, 0xae,
    0x12, 0xb1, 0x34, 0x38, 0x01, 0x0d, 0x67, 0xbc, 0x9b, 0x85, 0xff, 0x6d, 0x2f, 0xa5, 0xd0,
    0x8a, 0x78, 0xba, 0xca, 0xca, 0x98, 0xba, 0x49, 0x3e, 0x56, 0x2f, 0xd6, 0xc8, 0x19, 0xdf,
    0x31, 0xa4, 0x68, 0xb1, 0xff, 0x9a, 0xe5, 0x3a, 0xbb, 0x48};

namespace {

std::map<String, String> records;
String version;
std::map<String, std::map<String, std::map<String, String>>> translations;
const String str_dict_json("dict.json");

// The inflater is fed in pieces of this size, as the file format was made for.
constexpr int inflate_piece = 300;

bool inflate_body(const String& in, String& out, String& error) {
  z_stream z{};
  if (inflateInit(&z) != Z_OK) {
    error = "the inflater does not start";
    return false;
  }
  const unsigned char* data = reinterpret_cast<const unsigned char*>(in.c_data());
  int offset = 0;
  int status = Z_OK;
  unsigned char buffer[16384];
  while (status != Z_STREAM_END) {
    if (z.avail_in == 0) {
      if (offset >= in.length()) break;
      int n = std::min(inflate_piece, in.length() - offset);
      z.next_in = const_cast<unsigned char*>(data + offset);
      z.avail_in = static_cast<unsigned>(n);
      offset += n;
    }
    z.next_out = buffer;
    z.avail_out = sizeof buffer;
    status = inflate(&z, Z_NO_FLUSH);
    if (status != Z_OK && status != Z_STREAM_END && status != Z_BUF_ERROR) break;
    int got = static_cast<int>(sizeof buffer - z.avail_out);
    if (out.length() + got > max_string_size) {
      status = Z_MEM_ERROR;
      break;
    }
    out.append(reinterpret_cast<const char*>(buffer), got);
    if (status == Z_BUF_ERROR && z.avail_in == 0 && offset >= in.length()) break;
  }
  inflateEnd(&z);
  if (status != Z_STREAM_END) {
    error = "the compressed body does not inflate";
    return false;
  }
  return true;
}

bool parse_records(const String& body, std::map<String, String>& out, String& error,
                   String* listing) {
  const uint8_t* p = reinterpret_cast<const uint8_t*>(body.c_data());
  int n = body.length();
  int pos = 0;
  while (pos < n) {
    int start = pos;
    int name_length = p[pos++];
    if (pos + name_length + 3 > n) {
      error = format("record at %d cut short", start);
      return false;
    }
    String name = body.substr(pos, name_length);
    pos += name_length;
    int length = (p[pos] << 16) | (p[pos + 1] << 8) | p[pos + 2];
    pos += 3;
    if (length > n - pos) {
      error = format("record %s at %d claims %d bytes past the end", name, start, length);
      return false;
    }
    out[name] = body.substr(pos, length);
    if (listing) listing->append(format("%d: %s (%d)\n", start, name, length));
    pos += length;
  }
  return true;
}

void log_web(int level, const String& text, const String& detail = String()) {
  if (log_enabled(LOG_WEBSERVER, level)) log_add_message_global(LOG_WEBSERVER, level, 0, text, detail);
}

}  // namespace

bool parse_dictionary(const String& data, std::map<String, String>& out, String& error,
                      String* listing) {
  if (data.length() < 4) {
    error = "file too short";
    return false;
  }
  String magic = data.head(4);
  bool compressed = magic == "QWD2";
  if (!compressed && magic != "QWDT") {
    error = "bad magic";
    return false;
  }
  String body;
  char* w = body.writable(data.length() - 4);
  const char* r = data.c_data();
  for (int i = 4; i < data.length(); i++) w[i - 4] = static_cast<char>(r[i] ^ dictionary_scramble[i % 100]);
  if (compressed) {
    String plain;
    if (!inflate_body(body, plain, error)) return false;
    body = plain;
  }
  std::map<String, String> map;
  String list;
  if (!parse_records(body, map, error, listing ? &list : nullptr)) return false;
  out.swap(map);
  if (listing) listing->append(list);
  return true;
}

bool read_dictionary_from(const String& path, bool show) {
  String data = read_file(path, true);
  String error = data.empty() ? String("missing or empty file") : String();
  String listing;
  std::map<String, String> map;
  if (data.empty() || !parse_dictionary(data, map, error, show ? &listing : nullptr)) {
    log_web(1, String("Could not read dictionary"), error);
    records.clear();
    version.clear();
    return false;
  }
  if (show && !listing.empty()) {
    ssize_t n = write(1, listing.c_data(), static_cast<size_t>(listing.length()));
    (void)n;
  }
  records.swap(map);
  String hash = sha256(data);
  uint32_t tag = (static_cast<uint32_t>(hash.byte_at(0)) << 24) | (hash.byte_at(1) << 16) |
                 (hash.byte_at(2) << 8) | hash.byte_at(3);
  version = format("%x", static_cast<unsigned>(tag));
  return true;
}

bool read_dictionary(bool show) { return read_dictionary_from(String("exchsrv.dat"), show); }

String dictionary_file(const String& name) {
  auto it = records.find(name);
  return it == records.end() ? String() : it->second;
}

const String& dictionary_version() { return version; }
int dictionary_count() { return static_cast<int>(records.size()); }

void load_translations() {
  translations.clear();
  Json doc(dictionary_file(str_dict_json));
  if (!doc.is_object()) return;
  String languages;
  for (const auto& [language, files] : doc.members()) {
    if (!files.is_object()) continue;
    auto& by_file = translations[language];
    for (const auto& [file, items] : files.members()) {
      if (!items.is_object()) continue;
      auto& by_item = by_file[file];
      for (const auto& [item, text] : items.members()) {
        if (text.is_string()) by_item[item] = text.as_string();
      }
    }
    if (!languages.empty()) languages.append(' ');
    languages.append(language);
  }
  if (!languages.empty()) ctrl_write_registry(reg_languages_web, languages, true);
}

String translation(const String& language, const String& file, const String& item) {
  auto l = translations.find(language);
  if (l == translations.end()) return String();
  auto f = l->second.find(file);
  if (f == l->second.end()) return String();
  auto i = f->second.find(item);
  return i == f->second.end() ? String() : i->second;
}
