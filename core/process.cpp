#include "core/process.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/random.h"

static void reopen_standard_descriptors() {
  int fd = open("/dev/null", O_RDWR);
  if (fd < 0) return;
  for (int target = 0; target <= 2; target++)
    if (fd != target) dup2(fd, target);
  if (fd > 2) close(fd);
}

void detach_process(const StartupOptions& options) {
  close(0);
  close(1);
  close(2);
  reopen_standard_descriptors();
  pid_t child = fork();
  if (child < 0) exit(2);
  if (child > 0) {
    if (!options.pid_file.empty()) {
      int fd = open((options.pid_file + str_nul).c_data(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
      if (fd >= 0) {
        String pid(static_cast<int>(child));
        ssize_t w = write(fd, pid.c_data(), static_cast<size_t>(pid.length()));
        (void)w;
        close(fd);
      }
    }
    _exit(0);
  }
  setsid();
}

String self_executable() {
  char path[1024];
  ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  return n > 0 ? String(path, static_cast<int>(n)) : String();
}

void respawn_forever(const std::vector<String>& arguments) {
  std::vector<String> terminated;
  std::vector<char*> argv;
  for (const String& a : arguments) terminated.push_back(a + str_nul);
  for (String& t : terminated) argv.push_back(t.writable_data());
  argv.push_back(nullptr);
  for (;;) {
    pid_t child = fork();
    if (child < 0) exit(2);
    if (child == 0) {
      execv(argv[0], argv.data());
      return;  // could not run the program again: be the server ourselves
    }
    int status;
    while (wait(&status) < 0 && errno == EINTR) {
    }
    sleep(5);
  }
}

void ignore_signals() {
  signal(SIGHUP, SIG_IGN);
  signal(SIGPIPE, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);
}

static void set_limit(int resource, rlim_t value) {
  struct rlimit r;
  r.rlim_cur = r.rlim_max = value;
  setrlimit(resource, &r);
}

void set_resource_limits(bool core_dumps) {
  if (core_dumps) set_limit(RLIMIT_CORE, 0x7FFFFFFF);
#ifndef EXCH_SANITIZER_BUILD
  set_limit(RLIMIT_STACK, 0x4000000);
  set_limit(RLIMIT_DATA, 0x7D000000);
#endif
  set_limit(RLIMIT_NOFILE, 16384);
}

void seed_c_random() {
  unsigned char b[4] = {0, 0, 0, 0};
  int fd = open("/dev/urandom", O_RDONLY);
  if (fd >= 0) {
    ssize_t n = read(fd, b, 4);
    (void)n;
    close(fd);
  }
  srand((static_cast<unsigned>(b[0]) << 24) | (b[1] << 16) | (b[2] << 8) | b[3]);
}

bool ipv6_available() {
  int fd = socket(AF_INET6, SOCK_DGRAM, 0);
  if (fd < 0) return false;
  sockaddr_in6 a;
  memset(&a, 0, sizeof a);
  a.sin6_family = AF_INET6;
  a.sin6_addr = in6addr_any;
  bool ok = bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  close(fd);
  return ok;
}
