#include "store/store_mode.h"

#include <ctime>

#include "core/random.h"

bool store_passive = false;
bool store_replication = false;
ReplicationHook store_replication_hook = nullptr;

String new_object_id() {
  static bool started = false;
  static uint8_t counter[3];
  if (!started) {
    if (!random_bytes(counter, 3)) counter[0] = counter[1] = counter[2] = 0;
    started = true;
  }
  for (int i = 2; i >= 0; i--) {
    if (++counter[i] != 0) break;
  }
  uint32_t now = static_cast<uint32_t>(time(nullptr));
  uint8_t id[12] = {static_cast<uint8_t>(now >> 24), static_cast<uint8_t>(now >> 16),
                    static_cast<uint8_t>(now >> 8), static_cast<uint8_t>(now)};
  if (!random_bytes(id + 4, 5)) return String();
  id[9] = counter[0];
  id[10] = counter[1];
  id[11] = counter[2];
  return String(id, 12);
}
