// Process-wide switches of the store that other subsystems set: the passive side of a
// failover pair neither loads nor writes, and replication wants an object id per row and
// a hook that receives each written change.
#pragma once

#include <map>

#include "core/string.h"

class Table;

// Set by the failover code before the tables load.
extern bool store_passive;

// Called after a row write when replication is on (a non-empty `replication_server`):
// table name, row id, the changed cells, the row's `_id`. A deletion passes no cells.
using ReplicationHook = void (*)(const String& table, int row,
                                 const std::map<String, String>& cells, const String& id);
extern bool store_replication;
extern ReplicationHook store_replication_hook;

// A 12-byte object id: 4 bytes of seconds since the epoch, 5 random bytes drawn per id,
// then a 3-byte counter that starts from random bytes and counts up, all big-endian.
String new_object_id();
