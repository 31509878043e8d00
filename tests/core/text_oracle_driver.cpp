// Applies one text operation to a stream of inputs, for the oracle test that compares
// the results with independent implementations. Records on stdin and stdout are a
// 4-byte little-endian length followed by the bytes.
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "core/codings.h"
#include "core/format.h"

static bool read_record(String& out) {
  uint8_t len[4];
  if (fread(len, 1, 4, stdin) != 4) return false;
  uint32_t n = len[0] | (len[1] << 8) | (len[2] << 16) | (static_cast<uint32_t>(len[3]) << 24);
  out = String::repeat(0, static_cast<int>(n));
  return n == 0 || fread(out.writable_data(), 1, n, stdin) == n;
}

static void write_record(const String& s) {
  uint32_t n = static_cast<uint32_t>(s.length());
  uint8_t len[4] = {static_cast<uint8_t>(n), static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n >> 16),
                    static_cast<uint8_t>(n >> 24)};
  fwrite(len, 1, 4, stdout);
  fwrite(s.c_data(), 1, n, stdout);
}

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  const char* op = argv[1];
  String in;
  while (read_record(in)) {
    String out;
    if (!strcmp(op, "json")) out = format("%j", in);
    else if (!strcmp(op, "xml")) out = format("%m", in);
    else if (!strcmp(op, "url")) out = format("%r", in);
    else if (!strcmp(op, "utf8")) out = in.is_utf8() ? String("1") : String("0");
    else if (!strcmp(op, "base64")) out = base64_encode(in, 18);
    else if (!strcmp(op, "unbase64")) out = base64_decode(in);
    else if (!strcmp(op, "lower")) out = in.to_lower();
    else if (!strcmp(op, "upper")) out = in.to_upper();
    else return 2;
    write_record(out);
  }
  return 0;
}
