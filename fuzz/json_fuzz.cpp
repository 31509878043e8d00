// libFuzzer target for Json: any bytes parse without a crash, an over-read or a
// hang, the getters and the writer work on whatever came out, and the writer's text is
// stable once it has been read back.
#include <cstdint>
#include <cstdlib>

#include "core/json.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > (1 << 20)) return 0;
  String text(reinterpret_cast<const char*>(data), static_cast<int>(size));
  Json j(text);
  String out = j.to_string();

  (void)j.get_string("a");
  (void)j.get_int("a");
  (void)j.get_int64("a");
  (void)j.get_bool("a");
  (void)j.get_object("a").get_array("b")[0].get_string("c");
  for (const auto& [key, value] : j.members()) (void)value.size();
  for (const Json& e : j.elements()) (void)e.as_int64();

  // The writer's text is a fixed point after one round: numbers come out as integers, and
  // strings that are not valid UTF-8 take %j's second routine, which is lossy, once.
  String out2 = Json(out).to_string();
  if (Json(out2).to_string() != out2) abort();
  // NaN never comes out of the reader, so a copy always compares equal.
  Json copy = j;
  if (!(copy == j)) abort();
  return 0;
}
