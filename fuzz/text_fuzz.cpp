// Feeds arbitrary bytes through the text decoders and the String text helpers.
#include <cstddef>
#include <cstdint>

#include "core/codings.h"
#include "core/format.h"
#include "core/string.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  String in(reinterpret_cast<const char*>(data), static_cast<int>(size));
  base64_decode(in);
  percent_decode(in);
  url_decode(in, size & 1);
  hex_decode(in);
  in.to_lower();
  in.to_upper();
  in.is_utf8();
  in.to_int();
  in.to_double();
  header_value(in, String("a"), String("b"));
  String copy = in;
  while (!copy.empty()) copy.next_line(true);
  // The input as a template, with a few slots of every kind.
  String t = in.head(256);
  String text("x\xff");
  String out;
  format(out, t, 1, text, "c", true, 5L, 'z');
  format("%j%m%r", in, in, in);
  return 0;
}
