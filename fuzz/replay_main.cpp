// Replays every file of a corpus folder through a fuzz target, so the ordinary build
// keeps the inputs that once found a fault as regression tests.
#include <dirent.h>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  int files = 0;
  for (int a = 1; a < argc; a++) {
    DIR* d = opendir(argv[a]);
    if (!d) {
      fprintf(stderr, "no corpus folder %s\n", argv[a]);
      return 1;
    }
    while (dirent* e = readdir(d)) {
      if (e->d_name[0] == '.') continue;
      std::string path = std::string(argv[a]) + "/" + e->d_name;
      FILE* f = fopen(path.c_str(), "rb");
      if (!f) continue;
      std::vector<uint8_t> bytes;
      uint8_t buf[65536];
      size_t n;
      while ((n = fread(buf, 1, sizeof buf, f)) > 0) bytes.insert(bytes.end(), buf, buf + n);
      fclose(f);
      LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
      files++;
    }
    closedir(d);
  }
  printf("replayed %d inputs\n", files);
  return 0;
}
