// A working directory for tests that start the daemon: pbx.xml with every listening port
// moved to a free loopback port or blanked, one domain, extensions with passwords and a
// whitelist entry for 127.0.0.1/32. Written with the store's own code, so it is what the
// daemon itself would have written.
//
// Writing sets this process's cell key to the one of the directory's secret.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/string.h"

struct WorkDirExtension {
  std::string number;
  std::string password;
};

struct WorkDirOptions {
  // Port settings (such as "ip_sip_udp_port") that get a free port; every other port
  // setting is blanked so that the service stays off.
  std::vector<std::string> ports;
  std::string domain = "localhost";
  std::vector<WorkDirExtension> extensions = {{"40", "secret40"}, {"41", "secret41"}};
  // Further settings by name, written as given.
  std::map<std::string, std::string> settings;
};

struct WorkDir {
  std::string path;
  std::string domain;
  std::map<std::string, int> ports;  // the port settings that were given a port
  std::vector<WorkDirExtension> extensions;
  int port(const std::string& setting) const {
    auto it = ports.find(setting);
    return it == ports.end() ? 0 : it->second;
  }
};

// Writes the directory (which must exist and may be empty). An unknown setting name or a
// failed write is a test failure.
WorkDir write_work_dir(const std::string& path, const WorkDirOptions& options = WorkDirOptions());

// A port that nothing on loopback uses at the moment of the call, for UDP and TCP alike.
int free_port();

class Table;
// A table of the schema on its own, loaded from the working directory `base`, outside the
// process's tables: what the daemon left on disk.
std::unique_ptr<Table> open_table(const std::string& base, const String& name);
